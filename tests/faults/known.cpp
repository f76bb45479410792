// Known findings; see known.h.

#include "tests/faults/known.h"

#include <algorithm>
#include <iterator>
#include <regex>

// The command begins with, the trouble matches, the text contains.
struct Known {
  const char* command;
  const char* trouble;
  const char* text;
};

static const Known kKnown[] = {
    // A configuration is written in place and without a sync: once its file is open and empty, what
    // fails is not reported.
    {"AT^WITH_ARGS_U", "write \\d+ \\w+ \\(/mnt/vendor/persist/engineermode/config/.*",
     ".cfg is neither as it was nor as it should be"},
    // One that does not exist is begun anew.
    {"AT^WITH_ARGS_U", "faccessat \\d+ ENOENT .*", ".cfg is neither as it was nor as it should be"},
    // The secrecy file does not count beside the record, which has the text, too.
    {"AT^WITH_ARGS_SECRECY_UNLOCK", "write \\d+ \\w+ \\(.*/secrecy.cfg\\)",
     "secrecy.cfg is neither as it was nor as it should be"},
    // A record's write is one call: bytes written are a success, however many.
    {"AT^", "write \\d+ short \\(/dev/block/.*",
     "norvareserve1 is neither as it was nor as it should be"},
    // A failed write of this mark is acknowledged, too.
    {"AT^ENABLE_ENG_ADB", "write \\d+ \\w+ \\(/dev/block/.*", "a pass, and no file is changed"},
    // What is not there need not be removed, and a folder that is not readable holds nothing.
    {"AT^R", "faccessat \\d+ ENOENT .*", "a pass, and no file is changed"},
    {"AT^RESET_ENG_MARK", "faccessat \\d+ \\w+ \\(.*/test_record/\\)",
     "a pass, and no file is changed"},
    // One look at the lock decides: of a text that is cut short only what has come is looked at.
    {"AT^", "read \\d+ short \\(.*/secrecy.cfg\\)", " is neither as it was nor as it should be"},
    {"AT^WITH_ARGS_SECRECY_UNLOCK", "read \\d+ short \\(.*/secrecy.cfg\\)",
     "a pass, and no file is changed"},
    // A connection to the sensor hub whose request cannot be encoded stays open.
    {"AT+", "allocation \\d+ \\((bool )?encode_message(<.*>)? get_encoded_suid_req .*",
     "the daemon holds"},
    // alsa-lib goes on with what it could not allocate.
    {"AT+", "allocation \\d+ \\(libasound.so.2 .*", "the daemon ends: signal Segmentation fault"},
};

bool is_known(const std::string& command, const std::string& trouble, const std::string& text) {
  return std::any_of(std::begin(kKnown), std::end(kKnown), [&](const Known& known) {
    return command.starts_with(known.command) &&
           std::regex_match(trouble, std::regex(known.trouble)) &&
           text.find(known.text) != std::string::npos;
  });
}
