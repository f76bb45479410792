# Builds against the platform in this folder.

set(CMAKE_PREFIX_PATH ${CMAKE_CURRENT_LIST_DIR})
foreach(language C CXX)
  set(CMAKE_${language}_STANDARD_LIBRARIES "-L${CMAKE_CURRENT_LIST_DIR}/lib -lphone_c")
endforeach()
