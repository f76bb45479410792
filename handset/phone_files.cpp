// The search for the folder; see phone_files.h.

#include "handset/phone_files.h"

#include <stdexcept>

namespace handset {

namespace fs = std::filesystem;

fs::path phone_file(const std::string& name) {
  const fs::path program = fs::read_symlink("/proc/self/exe");
  std::error_code none;
  for (fs::path above = program.parent_path(); above.has_relative_path();
       above = above.parent_path()) {
    const fs::path folder = above / "lib/ftm-handset";
    if (!fs::is_directory(folder, none)) {
      continue;
    }
    if (!fs::exists(folder / name, none)) {
      throw std::runtime_error("the handset's files are not whole: there is no " +
                               (folder / name).string());
    }
    return folder / name;
  }
  throw std::runtime_error("no folder lib/ftm-handset above " + program.string());
}

}  // namespace handset
