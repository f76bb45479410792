// Folders of broken phones; see broken_phones.h.

#include "handset/console/broken_phones.h"

#include <fstream>
#include <iomanip>
#include <set>
#include <sstream>
#include <stdexcept>

#include "handset/console/dot_commands.h"
#include "handset/phone_files.h"

namespace handset {

namespace fs = std::filesystem;

static fs::path folder_of(const std::string& name) {
  if (name.find('/') != std::string::npos) {
    return name;
  }
  fs::path folder = phone_file("broken_phones") / name;
  if (!fs::is_directory(folder)) {
    throw std::runtime_error("no broken phone is called " + name + "; .broken lists them");
  }
  return folder;
}

// A script breaks a phone itself: another broken phone in it could be this one again.
static void run_script(Handset* phone, const fs::path& script) {
  std::ifstream stream(script);
  for (std::string line; std::getline(stream, line);) {
    if (line.empty() || line[0] == '#') {
      continue;
    }
    std::ostringstream out;
    if (line[0] != '.' || line.starts_with(".broken") || !run_dot_command(phone, line, out)) {
      std::string why = out.str();
      why = why.empty() ? "only dot lines but .broken can be in it" : why.substr(0, why.find('\n'));
      throw std::runtime_error(script.string() + ": " + line.append(": ").append(why));
    }
  }
}

void break_phone(Handset* phone, const std::string& name) {
  const fs::path folder = folder_of(name);
  phone->lay_over(folder);
  run_script(phone, folder / "script");
}

void print_broken_phones(std::ostream& out) {
  std::set<fs::path> folders;
  for (const fs::directory_entry& entry : fs::directory_iterator(phone_file("broken_phones"))) {
    folders.insert(entry.path());
  }
  for (const fs::path& folder : folders) {
    std::ifstream stream(folder / "about");
    std::string about;
    std::getline(stream, about);
    out << std::left << std::setw(20) << folder.filename().string() << " " << about << "\n";
  }
}

}  // namespace handset
