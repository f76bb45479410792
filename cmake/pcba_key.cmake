# Checks FTM_PCBA_KEY, which both the daemon and the handset need. Two source files are compiled with
# pcba_key_definition, and tests that compile one of them link ftm_pcba_key; nothing else knows the key.
# Messages name the place of what is wrong, never the key.

string(LENGTH "${FTM_PCBA_KEY}" length)
if(NOT length EQUAL 60)
  message(FATAL_ERROR "FTM_PCBA_KEY has ${length} digits, not 60")
endif()
foreach(place RANGE 59)
  string(SUBSTRING "${FTM_PCBA_KEY}" ${place} 1 digit)
  if(NOT digit MATCHES "^[0-9a-fA-F]$")
    math(EXPR place "${place} + 1")
    message(FATAL_ERROR "FTM_PCBA_KEY: digit ${place} of 60 is not hexadecimal")
  endif()
endforeach()
if(FTM_PCBA_KEY MATCHES "^0+$")
  if(FTM_DESK)
    message(NOTICE "FTM_PCBA_KEY is all zeros: enough for a desk, but no phone's records are scrambled with it")
  else()
    message(WARNING "FTM_PCBA_KEY is all zeros: the daemon will not understand the PCBA record of a phone with a key")
  endif()
endif()

set(pcba_key_definition FTM_PCBA_KEY="${FTM_PCBA_KEY}")
add_library(ftm_pcba_key INTERFACE)
target_compile_definitions(ftm_pcba_key INTERFACE "${pcba_key_definition}")
