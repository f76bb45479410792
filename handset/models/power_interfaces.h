// The kernel's power interfaces as the phone's processes see them below /sys: suspend with the
// wakeup count, wake locks, and the RTC's alarm. A suspend lasts until a wakeup event comes (the
// alarm is one) or a set time is over; who answers for the phone asks here whether it sleeps, as no
// process of it runs meanwhile. Callable from any thread.

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace handset {

class PowerInterfaces {
 public:
  // The alarm and the suspend time take this part of their time: 1 real time; with 0 no time passes
  // for the alarm, which then fires only when fired here. interrupted is asked by a show or store
  // that waits, on its thread: true when nobody waits for its result any more.
  PowerInterfaces(double time_factor, std::function<bool()> interrupted)
      : factor_(time_factor), interrupted_(std::move(interrupted)) {}

  bool asleep() const;
  // Suspends that ended in a resume.
  int suspends() const;
  std::set<std::string> wake_locks() const;
  // What a read of the node gives once no event is in progress.
  uint64_t wakeup_count() const;
  // True from its arming until the alarm fires.
  bool alarm_pending() const;
  // How often the phone's processes have flushed the file systems.
  int syncs() const;

  // Waits until the phone sleeps. False when the limit passes first.
  bool wait_asleep(std::chrono::seconds limit = std::chrono::seconds(20)) const;
  // For one of the phone's processes: waits until the phone is awake, or until interrupted.
  void wait_awake();

  // Called with true when the phone falls asleep and with false when it wakes up, before any of its
  // processes runs on. It calls nothing of this object. Set before start.
  std::function<void(bool)> on_sleep;

  // An event from outside: it moves the wakeup count and wakes the phone.
  void wakeup_event();
  // Waits until an alarm is pending and fires it before its time. False when the limit passes
  // first.
  bool fire_alarm(std::chrono::seconds limit = std::chrono::seconds(20));

  // Each suspend from now on lasts this long at most.
  void set_suspend_time(std::chrono::milliseconds time);

  // One of the phone's processes flushes the file systems.
  void note_sync();

  // What a read of a node gives, and what comes of a write to it: 0 or a negative errno. Whoever
  // calls store_state waits until the phone wakes up, whoever calls show_wakeup_count until no
  // event is in progress; each until interrupted at most.
  int store_state(const std::string& text);
  std::string show_wakeup_count();
  int store_wakeup_count(const std::string& text);
  std::string show_wake_locks();
  int store_wake_lock(const std::string& text);
  int store_wake_unlock(const std::string& text);
  std::string show_alarm();
  int store_alarm(const std::string& text);

 private:
  using Time = std::chrono::steady_clock::time_point;
  using Lock = std::unique_lock<std::mutex>;

  void set_asleep(bool asleep);
  bool wait_moment(Lock& lock);
  bool event_in_progress() const;
  void note_event();
  void note_alarm();
  void note_time();

  const double factor_;
  const std::function<bool()> interrupted_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool asleep_ = false;
  int suspends_ = 0;
  int syncs_ = 0;
  uint64_t wakeup_count_ = 0;
  std::optional<uint64_t> written_count_;  // the next suspend is refused when it has moved since
  std::set<std::string> wake_locks_;
  std::set<std::string> known_locks_;  // those that have ever been held
  std::optional<std::chrono::milliseconds> suspend_time_;
  std::optional<Time> alarm_;  // when the desk's clock makes it fire
  std::string alarm_text_;     // when the phone's clock does
  Time alarm_handled_;         // until then the fired alarm's event is in progress
};

}  // namespace handset
