// Opens, ioctls and closes of devices; see device_table.h.

#include "handset/links/device_table.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <utility>

namespace handset {

namespace fs = std::filesystem;

void DeviceTable::add(const std::string& path, Device* device) {
  devices_[path] = device;
}

void DeviceTable::remove(const std::string& path) {
  devices_.erase(path);
}

void DeviceTable::set_daemon(pid_t daemon) {
  const std::lock_guard lock(mutex_);
  daemon_ = daemon;
}

Answer DeviceTable::open(const TrappedCall& call, const std::string& path) {
  const auto device = devices_.find(path);
  if (device == devices_.end()) {
    return Answer::kernel();
  }
  const std::lock_guard lock(mutex_);
  close_unheld();
  OpenedDevice opened = device->second->open(call, static_cast<int>(call.arguments[2]));
  if (opened.fd < 0) {
    return Answer::result(opened.fd);
  }
  if (opened.file != nullptr) {
    std::error_code unreadable;
    const fs::path link = "/proc/self/fd/" + std::to_string(opened.fd);
    const std::string name = fs::read_symlink(link, unreadable).string();
    files_[name] = {path, std::move(opened.file)};
    arriving_ = name;
  }
  return Answer::descriptor(opened.fd, static_cast<int>(call.arguments[2]));
}

Answer DeviceTable::ioctl(const TrappedCall& call) {
  const std::lock_guard lock(mutex_);
  arriving_.reset();
  const auto file = files_.empty() ? files_.end() : files_.find(call.link(call.descriptor()));
  if (file == files_.end()) {
    return Answer::kernel();
  }
  return Answer::result(
      file->second.file->ioctl(call, static_cast<uint32_t>(call.arguments[1]), call.arguments[2]));
}

std::string DeviceTable::path(const TrappedCall& call) {
  const std::lock_guard lock(mutex_);
  const auto file = files_.find(call.link(call.descriptor()));
  return file == files_.end() ? "" : file->second.path;
}

void DeviceTable::note_arrived() {
  const std::lock_guard lock(mutex_);
  arriving_.reset();
}

size_t DeviceTable::count_open(const std::string& kind) {
  const std::lock_guard lock(mutex_);
  close_unheld();
  return static_cast<size_t>(std::count_if(files_.begin(), files_.end(), [&](const auto& file) {
    return file.first.find(kind) != std::string::npos;
  }));
}

void DeviceTable::close_all() {
  const std::lock_guard lock(mutex_);
  files_.clear();
}

// A close is no trapped call: what the daemon no longer holds has been closed.
void DeviceTable::close_unheld() {
  std::set<std::string> held;
  std::error_code ended;
  for (fs::directory_iterator entry("/proc/" + std::to_string(daemon_) + "/fd", ended), none;
       !ended && entry != none; entry.increment(ended)) {
    std::error_code closed;
    held.insert(fs::read_symlink(entry->path(), closed).string());
  }
  // The latest may be on its way to the daemon still.
  std::erase_if(files_, [&](const auto& file) {
    return held.count(file.first) == 0 && file.first != arriving_;
  });
}

}  // namespace handset
