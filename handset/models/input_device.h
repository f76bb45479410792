// An input device: its event types, and key events at the moment they are pressed. Callable from
// any thread.

#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "handset/links/device.h"

namespace handset {

class InputDevice : public Device {
 public:
  static constexpr uint64_t kSyn = 1U << 0;
  static constexpr uint64_t kKey = 1U << 1;
  static constexpr uint64_t kRelative = 1U << 2;
  static constexpr uint64_t kAbsolute = 1U << 3;

  // types: the bits of the event types that it reports.
  explicit InputDevice(uint64_t types) : types_(types) {}

  // One event of a key: value 1 for a press, 0 for a release. When nobody has the device open it
  // waits for the next who opens it.
  void send(uint16_t code, int32_t value);
  // A press and a release, each followed by its synchronisation event, as a kernel reports them.
  void press(uint16_t code);
  // A press without a release until it is let go, as a finger or a stuck key does it: lost when
  // nobody listens, and until then the key cannot be pressed again.
  void hold(uint16_t code);
  void let_go(uint16_t code);
  bool held(uint16_t code) const;
  // Bytes that are no whole event.
  void send_raw(const std::string& bytes);

  // Whether anybody has it open. What happens meanwhile on a kernel's device, nobody ever hears of.
  bool listening() const;

  // From now on opens give a descriptor that an epoll set refuses.
  void fail_epoll() {
    epoll_fails_ = true;
  }
  // Makes the event-type request fail with an errno.
  void fail_types(int error) {
    types_error_ = error;
  }

  OpenedDevice open(const Caller& caller, int flags) override;

 private:
  friend class InputFile;

  void deliver(const std::vector<std::string>& records);
  void report_if_heard(uint16_t code, int32_t value);

  const uint64_t types_;
  std::atomic<int> types_error_ = 0;
  std::atomic<bool> epoll_fails_ = false;
  mutable std::mutex mutex_;
  std::set<uint16_t> held_;
  std::set<int> open_;                // the handset's ends
  std::vector<std::string> waiting_;  // for the next open
};

}  // namespace handset
