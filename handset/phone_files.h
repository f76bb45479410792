// Where the files lie that a handset is made of: the folder lib/ftm-handset that is nearest above
// the running program, so that an installed program, one in an unpacked package and the tests of a
// build folder each find their own.

#pragma once

#include <filesystem>
#include <string>

namespace handset {

// The path of one of them: "ftmd", "handset_stage", "profile", "broken_phones", "sysmd5.zip",
// "demo.txt", "commands.json", "page". Throws std::runtime_error when the program stands beside no
// such folder or the file is not in it.
std::filesystem::path phone_file(const std::string& name);

}  // namespace handset
