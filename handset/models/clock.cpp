// Recorded and shortened waits; see clock.h.

#include "handset/models/clock.h"

#include <errno.h>
#include <time.h>

#include <algorithm>

namespace handset {

using std::chrono::microseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

std::vector<microseconds> Clock::waits() const {
  const std::lock_guard lock(mutex_);
  return waits_;
}

std::vector<microseconds> Clock::take_waits() {
  const std::lock_guard lock(mutex_);
  return std::exchange(waits_, {});
}

Answer Clock::clock_nanosleep(const TrappedCall& call) {
  timespec asked;
  if (!call.read(call.arguments[2], &asked, sizeof(asked))) {
    return Answer::result(-EFAULT);
  }
  nanoseconds wait = seconds(asked.tv_sec) + nanoseconds(asked.tv_nsec);
  if ((call.arguments[1] & TIMER_ABSTIME) != 0) {
    timespec now;
    clock_gettime(static_cast<clockid_t>(call.arguments[0]), &now);
    wait = std::max(nanoseconds(0), wait - seconds(now.tv_sec) - nanoseconds(now.tv_nsec));
  }
  {
    const std::lock_guard lock(mutex_);
    waits_.push_back(std::chrono::duration_cast<microseconds>(wait));
  }
  if (on_wait_) {
    on_wait_(std::chrono::duration_cast<microseconds>(wait));
  }
  Answer answer = Answer::result_after(0, std::chrono::duration_cast<nanoseconds>(wait * factor_));
  if (on_skip != nullptr && wait > answer.delay) {
    answer.ready = on_skip(wait - answer.delay);
  }
  return answer;
}

}  // namespace handset
