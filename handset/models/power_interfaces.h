// The kernel's power interfaces as the phone's processes see them below /sys: suspend with the
// wakeup count, wake locks, and the RTC's alarm. A suspend lasts until a wakeup event comes (the
// alarm is one), a wake lock is taken or a set time is over; while the phone sleeps, whoever reads
// the alarm is frozen. Callable from any thread.

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "handset/links/nodes.h"
#include "handset/models/clock.h"

namespace handset {

class PowerInterfaces {
 public:
  // Answers for the nodes from now on. The clock's factor is that of the alarm and of the suspend
  // time; with factor 0 no time passes for the alarm, which then fires only when fired here.
  PowerInterfaces(Nodes* nodes, const Clock& clock);

  bool asleep() const;
  // Suspends that ended in a resume.
  int suspends() const;
  std::set<std::string> wake_locks() const;
  // What a read of the node gives once no event is in progress.
  uint64_t wakeup_count() const;
  // True from its arming until the alarm fires.
  bool alarm_pending() const;
  // How often the phone's processes have flushed the file systems (those of the desk are left be).
  int syncs() const;

  // Waits until the phone sleeps. False when the limit passes first.
  bool wait_asleep(std::chrono::seconds limit = std::chrono::seconds(20)) const;

  // An event from outside: it moves the wakeup count and wakes the phone.
  void wakeup_event();
  // Waits until an alarm is pending and fires it before its time. False when the limit passes
  // first.
  bool fire_alarm(std::chrono::seconds limit = std::chrono::seconds(20));

  // Each suspend from now on lasts this long at most.
  void set_suspend_time(std::chrono::milliseconds time);

  Answer sync(const TrappedCall& call);

 private:
  using Time = std::chrono::steady_clock::time_point;
  using Lock = std::unique_lock<std::mutex>;

  int store_state(const std::string& text);
  std::string show_wakeup_count();
  int store_wakeup_count(const std::string& text);
  int store_wake_lock(const std::string& text);
  int store_wake_unlock(const std::string& text);
  std::string show_wake_locks() const;
  int store_alarm(const std::string& text);
  std::string show_alarm();

  bool wait_moment(Lock& lock);
  void note_event();
  void note_alarm();
  void note_time();

  const double factor_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool asleep_ = false;
  int suspends_ = 0;
  int syncs_ = 0;
  uint64_t wakeup_count_ = 0;
  std::optional<uint64_t> written_count_;  // the next suspend is refused when it has moved since
  std::set<std::string> wake_locks_;
  std::optional<std::chrono::milliseconds> suspend_time_;
  std::optional<Time> alarm_;  // when the desk's clock makes it fire
  std::string alarm_text_;     // when the phone's clock does
  Time alarm_handled_;         // until then the fired alarm's event is in progress
};

}  // namespace handset
