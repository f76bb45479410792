// Recorded and shortened waits; see clock.h.

#include "handset/models/clock.h"

#include "handset/recent.h"

namespace handset {

using std::chrono::microseconds;
using std::chrono::nanoseconds;

std::vector<microseconds> Clock::take_waits() {
  const std::lock_guard lock(mutex_);
  return std::exchange(waits_, {});
}

Clock::Wait Clock::wait(nanoseconds asked) {
  {
    const std::lock_guard lock(mutex_);
    add_recent(&waits_, std::chrono::duration_cast<microseconds>(asked));
  }
  if (on_wait_) {
    on_wait_(std::chrono::duration_cast<microseconds>(asked));
  }
  Wait wait = {.time = std::chrono::duration_cast<nanoseconds>(asked * factor_.load())};
  if (on_skip != nullptr && asked > wait.time) {
    wait.ready = on_skip(asked - wait.time);
  }
  return wait;
}

}  // namespace handset
