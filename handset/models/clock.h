// The phone's waits: every clock_nanosleep of the daemon is recorded as asked for, and shortened by
// a factor, so that exact waits can be read back without being waited for.

#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "handset/links/supervisor.h"

namespace handset {

class Clock {
 public:
  // 1 for real time, 0 for no waiting at all.
  explicit Clock(double factor) : factor_(factor) {}

  double factor() const {
    return factor_;
  }

  // Waits in the order they began; take_waits also forgets them.
  std::vector<std::chrono::microseconds> waits() const;
  std::vector<std::chrono::microseconds> take_waits();

  // Runs a function when a wait begins, with the wait, on the supervisor's thread. Before start.
  void on_wait(std::function<void(std::chrono::microseconds)> function) {
    on_wait_ = std::move(function);
  }

  Answer clock_nanosleep(const TrappedCall& call);

  // Called with the time that a wait is shortened by, for a part of the phone that acts meanwhile:
  // the wait ends when the returned function says true. Set before start.
  std::function<std::function<bool()>(std::chrono::nanoseconds)> on_skip;

 private:
  const double factor_;
  mutable std::mutex mutex_;
  std::vector<std::chrono::microseconds> waits_;
  std::function<void(std::chrono::microseconds)> on_wait_;
};

}  // namespace handset
