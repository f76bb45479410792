// Profile folders; see profile.h.

#include "handset/profile.h"

#include <fstream>
#include <iterator>
#include <string>

namespace handset {

namespace fs = std::filesystem;

static std::string content(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

static void lay_properties(const fs::path& file, const fs::path& root) {
  std::ifstream stream(file);
  for (std::string line; std::getline(stream, line);) {
    const size_t equals = line.find('=');
    if (!line.empty() && line[0] != '#' && equals != std::string::npos) {
      std::ofstream(root / "dev/__properties__" / line.substr(0, equals))
          << line.substr(equals + 1);
    }
  }
}

void lay_profile(const fs::path& profile, const fs::path& root, Nodes* nodes) {
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(profile)) {
    const fs::path place = entry.path().lexically_relative(profile);
    const std::string tree = place.begin()->string();
    if (entry.is_directory() && !entry.is_symlink()) {
      fs::create_directories(root / place);
    } else if (place == "properties") {
      lay_properties(entry.path(), root);
    } else if (place == "sensors") {
      continue;  // the sensor hub's own
    } else if (tree == "sys" || tree == "proc") {
      nodes->set((fs::path("/") / place).string(), content(entry.path()));
    } else {
      fs::remove(root / place);
      fs::copy(entry.path(), root / place, fs::copy_options::copy_symlinks);
    }
  }
}

}  // namespace handset
