// What a device model plugs into: the phone's processes open a device path and get a descriptor
// that the model made; their ioctls on it come to the model. Open and ioctl run on the supervisor's
// thread, one at a time.

#pragma once

#include <cstdint>
#include <string>

#include "handset/supervisor.h"

// One open of a device. The model keeps what belongs to it; it lives until the phone ends.
class DeviceFile {
 public:
  virtual ~DeviceFile() = default;

  // Answers an ioctl: a result of 0 or more, or a negative errno. argument is the caller's third
  // argument, as a number or an address in its memory (call.read, call.write).
  virtual int64_t ioctl(const TrappedCall& call, uint32_t request, uint64_t argument) = 0;
};

struct OpenedDevice {
  int fd;            // becomes the caller's descriptor and is closed here, or a negative errno
  DeviceFile* file;  // owned by the model; null for a device without ioctls
};

class Device {
 public:
  virtual ~Device() = default;

  // Answers an open with the caller's flags. The descriptor must be of a file, pipe or socket of
  // its own (a new memfd, say), by which later ioctls are told apart.
  virtual OpenedDevice open(const TrappedCall& call, int flags) = 0;
};
