// The devices of the phone and what the daemon has open of them: an open of a device's path is
// answered with a descriptor of its model, and an ioctl on such a descriptor goes to its file.
// Callable from any thread; models are called one at a time.

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "handset/links/device.h"
#include "handset/links/supervisor.h"

namespace handset {

class DeviceTable {
 public:
  // Puts the device at a path of the phone, or takes it away. Not while a daemon runs; the device
  // must outlive the table's use of it.
  void add(const std::string& path, Device* device);
  void remove(const std::string& path);

  // The process whose descriptors are looked at for closes. Before its first open.
  void set_daemon(pid_t daemon);

  // Answer an open of the path and an ioctl; they are the kernel's where no device is meant.
  Answer open(const TrappedCall& call, const std::string& path);
  Answer ioctl(const TrappedCall& call);

  // Which device's file the call's descriptor is: the path that was opened, or nothing.
  std::string path(const TrappedCall& call);

  // The daemon has gone on after its last open: the descriptor of that is with it now.
  void note_arrived();

  // How many files the daemon has open whose descriptor's name contains kind; of all when empty.
  // The model's files that the daemon has closed are closed by this.
  size_t count_open(const std::string& kind);
  // The daemon has ended: closes all files.
  void close_all();

 private:
  struct Opened {
    std::string path;
    std::unique_ptr<DeviceFile> file;
  };

  void close_unheld();

  std::map<std::string, Device*> devices_;
  std::mutex mutex_;
  pid_t daemon_ = 0;
  std::map<std::string, Opened> files_;  // by what /proc/PID/fd/N names
  std::optional<std::string> arriving_;  // the name of the one that the daemon is being given
};

}  // namespace handset
