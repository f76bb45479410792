// The root's folders and profiles; see root.h.

#include "handset/root.h"

#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>

namespace handset {

namespace fs = std::filesystem;

void lay_root(const fs::path& root) {
  for (const char* folder :
       {"dev/block/bootdevice/by-name", ".nodes", ".proc", "sys", "proc", "usr",
        "dev/__properties__", "dev/socket", "tmp", "odm/etc", "odm/bin", "persist/ftm_admin",
        "vendor/bin", "system", "mnt/vendor/norvareserve/ftm_admin", "data", "cache", "persist",
        "d"}) {
    fs::create_directories(root / folder);
  }
  for (const char* folder : {"bin", "sbin", "lib", "lib32", "lib64", "libx32"}) {
    const fs::path on_host = fs::path("/") / folder;
    if (fs::is_symlink(on_host)) {
      fs::copy_symlink(on_host, root / folder);
    } else if (fs::is_directory(on_host)) {
      fs::create_directory(root / folder);
    }
  }
  // The unit that shows the phone's storage to be UFS.
  std::ofstream(root / "dev/block/sda").flush();
  // Both names of the partitions' folder lead to the same images.
  fs::create_symlink("bootdevice/by-name", root / "dev/block/by-name");
  // Places for binds.
  for (const char* file :
       {"dev/null", "dev/zero", "dev/full", "dev/urandom", "dev/ttyMSM0", "odm/bin/ftmd"}) {
    std::ofstream(root / file).flush();
  }
}

static std::string content(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!fs::is_regular_file(file) || !stream) {
    throw std::runtime_error("cannot read " + file.string());
  }
  return {std::istreambuf_iterator<char>(stream), {}};
}

static void lay_properties(const fs::path& file, const fs::path& root) {
  std::istringstream stream(content(file));
  for (std::string line; std::getline(stream, line);) {
    const size_t equals = line.find('=');
    if (!line.empty() && line[0] != '#' && equals != std::string::npos) {
      std::ofstream(root / "dev/__properties__" / line.substr(0, equals))
          << line.substr(equals + 1);
    }
  }
}

void lay_profile(const fs::path& profile, const fs::path& root, Nodes* nodes) {
  if (!fs::is_directory(profile)) {
    throw std::runtime_error("no folder of a phone: " + profile.string());
  }
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(profile)) {
    const fs::path place = entry.path().lexically_relative(profile);
    const std::string tree = place.begin()->string();
    if (entry.is_directory() && !entry.is_symlink()) {
      fs::create_directories(root / place);
    } else if (place == "properties") {
      lay_properties(entry.path(), root);
    } else if (place == "sensors" || place == "about" || place == "script") {
      continue;  // the sensor hub's own, and what is no file of the phone
    } else if (tree == "sys" || tree == "proc") {
      nodes->set((fs::path("/") / place).string(), content(entry.path()));
    } else if (!entry.is_symlink() && !entry.is_regular_file()) {
      throw std::runtime_error("neither a file nor a link: " + entry.path().string());
    } else {
      fs::remove(root / place);
      fs::copy(entry.path(), root / place, fs::copy_options::copy_symlinks);
    }
  }
}

}  // namespace handset
