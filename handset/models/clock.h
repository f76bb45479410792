// The phone's waits: every clock_nanosleep of the daemon is recorded as asked for, and shortened by
// a factor, so that exact waits can be read back without being waited for.

#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

namespace handset {

class Clock {
 public:
  // 1 for real time, 0 for no waiting at all.
  explicit Clock(double factor) : factor_(factor) {}

  double factor() const {
    return factor_;
  }
  // For the waits that begin from now on.
  void set_factor(double factor) {
    factor_ = factor;
  }

  // The waits since the last call, the latest 100,000 at most, in the order they began.
  std::vector<std::chrono::microseconds> take_waits();

  // Runs a function when a wait begins, with the wait, on the thread that begins it. Set before the
  // first wait.
  void on_wait(std::function<void(std::chrono::microseconds)> function) {
    on_wait_ = std::move(function);
  }

  // What becomes of a wait: it takes this time on the desk, and then until ready, asked again and
  // again, says true (null: at once).
  struct Wait {
    std::chrono::nanoseconds time;
    std::function<bool()> ready = nullptr;
  };
  // Begins a wait of the time that the daemon asks for.
  Wait wait(std::chrono::nanoseconds asked);

  // Called with the time that a wait is shortened by, for a part of the phone that acts meanwhile:
  // the wait ends when the returned function says true. Set before the first wait.
  std::function<std::function<bool()>(std::chrono::nanoseconds)> on_skip;

 private:
  std::atomic<double> factor_;
  std::mutex mutex_;
  std::vector<std::chrono::microseconds> waits_;
  std::function<void(std::chrono::microseconds)> on_wait_;
};

}  // namespace handset
