// What outlives a command; see phone_state.h.

#include "tests/faults/phone_state.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "handset/models/partitions.h"

using namespace handset;

namespace fs = std::filesystem;

static const char kReserve[] = "/dev/block/bootdevice/by-name/norvareserve1";
static const char* const kLastingFolders[] = {"/data", "/mnt", "/persist", "/cache", "/dev/block"};
// Not among them: reports of what the phone is doing at the moment, and a recording that another
// program is still writing.
static const char kRecording[] = "/mnt/vendor/wcd-mic-record.pcm";
static const char kReports[] = "/mnt/vendor/norvareserve/ftm_admin/";

// The records of the reserve partition, and who writes them.
struct Record {
  const char* command;  // null: none
  size_t offset;
  size_t size;
};

static constexpr Record kRecords[] = {
    {"AT^ENABLE_ENG_ADB", 0x42d600, 13},
    {"AT^WITH_ARGS_BACKCOVER_COLOR", 0x42d200, 8},
    {"AT^RESET_ENG_MARK", 0x42d400, 512},
    {"AT^WITH_ARGS_PRODUCT_INFO", 0x481000, 2560},
    {"AT^RESET_PRODUCT_INFO", 0x481000, 2560},
    {"AT^WITH_ARGS_SECRECY_UNLOCK", 0x48e000, 1024},
    {nullptr, 0x428000, 183},
    {nullptr, 0x427000, 13},
    {nullptr, 0x426000, 14},
};
static constexpr size_t kMarkedFrom = 0x400000;
static constexpr size_t kMarkedTo = 0x4a0000;

// Whole, and quickly also where it is a partition.
static std::string content(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary | std::ios::ate);
  std::string bytes(stream ? static_cast<size_t>(stream.tellg()) : 0, '\0');
  stream.seekg(0);
  stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}

Files lasting_files(const Handset& phone) {
  Files files;
  for (const char* folder : kLastingFolders) {
    for (const auto& entry : fs::recursive_directory_iterator(phone.path(folder))) {
      const std::string path = "/" + entry.path().lexically_relative(phone.path("/")).string();
      if (entry.is_symlink() || path == kRecording || path.starts_with(kReports)) {
        continue;
      }
      if (entry.is_directory()) {
        files[path + "/"];
      } else if (entry.is_regular_file()) {
        files[path] = content(entry.path());
      }
    }
  }
  return files;
}

void lay_files(Handset* phone, const Files& files) {
  const Files now = lasting_files(*phone);
  for (auto last = now.rbegin(); last != now.rend(); ++last) {  // what a folder holds before it
    if (files.count(last->first) == 0) {
      fs::remove(phone->path(last->first));
    }
  }
  for (const auto& [path, bytes] : files) {
    const auto found = now.find(path);
    if (found != now.end() && found->second == bytes) {
      continue;
    }
    if (path.back() == '/') {
      fs::create_directories(phone->path(path));
    } else {
      phone->write_file(path, bytes);
    }
  }
}

void mark_partition(Handset* phone) {
  std::string marked(kMarkedTo - kMarkedFrom, '\x5a');
  for (const Record& record : kRecords) {
    const std::string kept = read_partition(phone->path(kReserve), record.offset, record.size);
    marked.replace(record.offset - kMarkedFrom, record.size, kept);
  }
  write_partition(phone->path(kReserve), kMarkedFrom, marked);
}

// Where two texts of one size differ first, from a place on.
static size_t difference(const std::string& one, const std::string& other, size_t from) {
  while (from < one.size() && one[from] == other[from]) {
    ++from;
  }
  return from;
}

// What of a partition has changed outside the command's own record; empty when nothing has.
static std::string changed_outside(const std::string& command, const std::string& before,
                                   const std::string& after) {
  const auto own = std::find_if(std::begin(kRecords), std::end(kRecords), [&](const Record& r) {
    return r.command != nullptr && command.starts_with(r.command);
  });
  const size_t begin = own == std::end(kRecords) ? before.size() : own->offset;
  const size_t end = own == std::end(kRecords) ? before.size() : own->offset + own->size;
  if (before.size() != after.size() || before.size() < end) {
    return "has another size";
  }
  std::ostringstream text;
  if (before.compare(0, begin, after, 0, begin) != 0) {
    text << "has another byte at 0x" << std::hex << difference(before, after, 0);
  } else if (before.compare(end, std::string::npos, after, end, std::string::npos) != 0) {
    text << "has another byte at 0x" << std::hex << difference(before, after, end);
  }
  return text.str();
}

static const std::string* content(const Files& files, const std::string& path) {
  const auto found = files.find(path);
  return found == files.end() ? nullptr : &found->second;
}

static bool same(const std::string* one, const std::string* other) {
  return one == nullptr || other == nullptr ? one == other : *one == *other;
}

std::vector<std::string> wrong_files(const std::string& command, const Files& before,
                                     const Files& after, const Files& healthy) {
  std::vector<std::string> wrong;
  Files all = before;
  all.insert(after.begin(), after.end());
  for (const auto& [path, unused] : all) {
    const std::string* was = content(before, path);
    const std::string* is = content(after, path);
    if (same(was, is)) {
      continue;
    }
    if (path == kReserve && was != nullptr && is != nullptr) {
      if (const std::string text = changed_outside(command, *was, *is); !text.empty()) {
        wrong.push_back(path + " " + text);
        continue;
      }
    }
    if (!same(is, content(healthy, path))) {
      wrong.push_back(path + " is neither as it was nor as it should be");
    }
  }
  return wrong;
}

static size_t count_entries(const std::string& folder) {
  std::error_code none;
  const fs::directory_iterator all(folder, none);
  return none ? 0 : static_cast<size_t>(std::distance(begin(all), end(all)));
}

Held held(const Handset& phone) {
  const std::string process = "/proc/" + std::to_string(phone.pid());
  Held now = {.descriptors = count_entries(process + "/fd"),
              .threads = count_entries(process + "/task")};
  std::error_code none;
  for (const auto& task : fs::directory_iterator(process + "/task", none)) {
    std::ifstream children(task.path() / "children");
    now.children +=
        static_cast<size_t>(std::distance(std::istream_iterator<std::string>(children), {}));
  }
  return now;
}
