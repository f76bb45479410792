// The phone's waits: every clock_nanosleep of the daemon is recorded as asked for, and shortened by
// a factor, so that exact waits can be read back without being waited for.

#pragma once

#include <chrono>
#include <mutex>
#include <vector>

#include "handset/supervisor.h"

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

  Answer clock_nanosleep(const TrappedCall& call);

 private:
  const double factor_;
  mutable std::mutex mutex_;
  std::vector<std::chrono::microseconds> waits_;
};
