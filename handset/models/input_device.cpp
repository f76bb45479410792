// Input devices; see input_device.h.

#include "handset/models/input_device.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/input.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace handset {

// One open: a seqpacket socket, so that each read gives one event at most.
class InputFile : public DeviceFile {
 public:
  InputFile(InputDevice* device, int ours, int callers)
      : device_(device), ours_(ours), callers_(callers) {}
  ~InputFile() override {
    const std::lock_guard lock(device_->mutex_);
    device_->open_.erase(ours_);
    close(ours_);
    close(callers_);
  }

  int64_t ioctl(const Caller& caller, uint32_t request, uint64_t argument) override {
    if (_IOC_TYPE(request) != 'E' || _IOC_NR(request) != _IOC_NR(EVIOCGBIT(0, 0))) {
      return -ENOTTY;
    }
    if (device_->types_error_ != 0) {
      return -device_->types_error_;
    }
    const size_t size = std::min<size_t>(_IOC_SIZE(request), sizeof(device_->types_));
    return caller.write(argument, &device_->types_, size) ? static_cast<int64_t>(size) : -EFAULT;
  }

 private:
  InputDevice* device_;
  int ours_;
  int callers_;  // kept, so that the socket's number is nobody else's
};

// Answers the type request on a plain file, which epoll refuses.
class UnpollableInputFile : public MemoryFile {
 public:
  explicit UnpollableInputFile(uint64_t types) : MemoryFile("input"), types_(types) {}
  int64_t ioctl(const Caller& caller, uint32_t, uint64_t argument) override {
    return caller.write(argument, &types_, sizeof(types_)) ? 8 : -EFAULT;
  }

 private:
  const uint64_t types_;
};

bool InputDevice::listening() const {
  const std::lock_guard lock(mutex_);
  return !open_.empty();
}

OpenedDevice InputDevice::open(const Caller&, int) {
  if (epoll_fails_) {
    return open_memory_file<UnpollableInputFile>(types_);
  }
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
    return {.fd = -errno};
  }
  fcntl(ends[1], F_SETFL, 0);  // the caller's reads wait
  const std::lock_guard lock(mutex_);
  open_.insert(ends[0]);
  deliver(std::exchange(waiting_, {}));
  return {.fd = fcntl(ends[1], F_DUPFD_CLOEXEC, 0),
          .file = std::make_unique<InputFile>(this, ends[0], ends[1])};
}

void InputDevice::deliver(const std::vector<std::string>& records) {
  for (const std::string& record : records) {
    if (open_.empty()) {
      waiting_.push_back(record);
    }
    for (const int end : open_) {
      ::send(end, record.data(), record.size(), MSG_NOSIGNAL);
    }
  }
}

static std::string record(uint16_t type, uint16_t code, int32_t value) {
  input_event event = {};
  event.type = type;
  event.code = code;
  event.value = value;
  return {reinterpret_cast<const char*>(&event), sizeof(event)};
}

void InputDevice::send(uint16_t code, int32_t value) {
  const std::lock_guard lock(mutex_);
  deliver({record(EV_KEY, code, value), record(EV_SYN, SYN_REPORT, 0)});
}

void InputDevice::press(uint16_t code) {
  if (!held(code)) {
    send(code, 1);
    send(code, 0);
  }
}

void InputDevice::report_if_heard(uint16_t code, int32_t value) {
  if (!open_.empty()) {
    deliver({record(EV_KEY, code, value), record(EV_SYN, SYN_REPORT, 0)});
  }
}

void InputDevice::hold(uint16_t code) {
  const std::lock_guard lock(mutex_);
  if (held_.insert(code).second) {
    report_if_heard(code, 1);
  }
}

void InputDevice::let_go(uint16_t code) {
  const std::lock_guard lock(mutex_);
  if (held_.erase(code) != 0) {
    report_if_heard(code, 0);
  }
}

bool InputDevice::held(uint16_t code) const {
  const std::lock_guard lock(mutex_);
  return held_.count(code) != 0;
}

void InputDevice::send_raw(const std::string& bytes) {
  const std::lock_guard lock(mutex_);
  deliver({bytes});
}

}  // namespace handset
