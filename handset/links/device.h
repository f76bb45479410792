// What a device model plugs into: the phone's processes open a device path and get a descriptor
// that the model made; their ioctls on it come to the model. Open, ioctl and close run one at a
// time.

#pragma once

#include <errno.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "handset/links/call.h"

namespace handset {

// One open of a device. Destroyed when the daemon has closed the descriptor, or has ended: that is
// the model's close. (Noticed at the next open of a device, or when a test asks.)
class DeviceFile {
 public:
  virtual ~DeviceFile() = default;

  // Answers an ioctl: a result of 0 or more, or a negative errno. argument is the caller's third
  // argument, as a number or an address in its memory (caller.read, caller.write).
  virtual int64_t ioctl(const Caller& caller, uint32_t request, uint64_t argument) = 0;
};

// A file whose descriptor is memory of its own, which nothing need be written to.
class MemoryFile : public DeviceFile {
 public:
  // kind names the memory in /proc/PID/fd; each gets a number of its own behind it. Throws
  // std::runtime_error when there is no memory.
  explicit MemoryFile(const std::string& kind);
  ~MemoryFile() override;
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  // A descriptor for the caller.
  int caller_descriptor() const;

 protected:
  int memory() const {
    return memory_;
  }

 private:
  int memory_;
};

// Answers a request whose argument is the address of a record: reads it, lets a step work on it and
// writes it back unless the step failed. The step takes a Record*; its result is the request's, 0
// or more or a negative errno. -EFAULT when the record is not the caller's memory.
template <typename Record, typename Step>
int64_t with_record(const Caller& caller, uint64_t address, Step step) {
  Record record;
  if (!caller.read(address, &record, sizeof(record))) {
    return -EFAULT;
  }
  const int64_t result = step(&record);
  return result >= 0 && !caller.write(address, &record, sizeof(record)) ? -EFAULT : result;
}

struct OpenedDevice {
  int fd;  // becomes the caller's descriptor and is closed here, or a negative errno
  std::unique_ptr<DeviceFile> file = nullptr;  // null for a device without ioctls
};

// An open whose file is a new File, a MemoryFile, made of the arguments. Throws as MemoryFile does.
template <typename File, typename... Arguments>
OpenedDevice open_memory_file(Arguments&&... arguments) {
  auto file = std::make_unique<File>(std::forward<Arguments>(arguments)...);
  const int fd = file->caller_descriptor();
  return {.fd = fd, .file = std::move(file)};
}

class Device {
 public:
  virtual ~Device() = default;

  // Answers an open with the caller's flags. The descriptor must be of a file, pipe or socket of
  // its own (a new memfd, say), by which later ioctls are told apart; the file keeps a copy of it
  // as long as it lives, so that nothing new can take its number.
  virtual OpenedDevice open(const Caller& caller, int flags) = 0;
};

}  // namespace handset
