// Suspend, wakeup count, wake locks and alarm; see power_interfaces.h.

#include "handset/models/power_interfaces.h"

#include <errno.h>
#include <stdlib.h>
#include <time.h>

namespace handset {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

static const char kSpace[] = " \t\n";

static std::string first_word(const std::string& text) {
  return text.substr(0, text.find_first_of(kSpace));
}

bool PowerInterfaces::asleep() const {
  const std::lock_guard lock(mutex_);
  return asleep_;
}

int PowerInterfaces::suspends() const {
  const std::lock_guard lock(mutex_);
  return suspends_;
}

std::set<std::string> PowerInterfaces::wake_locks() const {
  const std::lock_guard lock(mutex_);
  return wake_locks_;
}

uint64_t PowerInterfaces::wakeup_count() const {
  const std::lock_guard lock(mutex_);
  return wakeup_count_;
}

bool PowerInterfaces::alarm_pending() const {
  const std::lock_guard lock(mutex_);
  return alarm_.has_value() && steady_clock::now() < *alarm_;
}

int PowerInterfaces::syncs() const {
  const std::lock_guard lock(mutex_);
  return syncs_;
}

bool PowerInterfaces::wait_asleep(seconds limit) const {
  Lock lock(mutex_);
  return changed_.wait_for(lock, limit, [this] { return asleep_; });
}

void PowerInterfaces::wait_awake() {
  Lock lock(mutex_);
  while (asleep_ && wait_moment(lock)) {
  }
}

void PowerInterfaces::set_asleep(bool asleep) {
  if (asleep_ != asleep && on_sleep) {
    on_sleep(asleep);
  }
  asleep_ = asleep;
  changed_.notify_all();
}

void PowerInterfaces::wakeup_event() {
  const std::lock_guard lock(mutex_);
  note_event();
}

bool PowerInterfaces::fire_alarm(seconds limit) {
  Lock lock(mutex_);
  if (!changed_.wait_for(lock, limit, [this] { return alarm_.has_value(); })) {
    return false;
  }
  note_alarm();
  return true;
}

void PowerInterfaces::set_suspend_time(milliseconds time) {
  const std::lock_guard lock(mutex_);
  suspend_time_ = time;
}

void PowerInterfaces::note_sync() {
  const std::lock_guard lock(mutex_);
  ++syncs_;
}

// A held wake lock is an event that has not ended, and so is a fired alarm for a moment.
bool PowerInterfaces::event_in_progress() const {
  return !wake_locks_.empty() || steady_clock::now() < alarm_handled_;
}

void PowerInterfaces::note_event() {
  ++wakeup_count_;
  set_asleep(false);
}

// The kernel, too, holds the phone awake for a moment, so that whoever set the alarm can act on it.
void PowerInterfaces::note_alarm() {
  constexpr milliseconds kHeldAwake(500);
  alarm_.reset();
  alarm_handled_ = steady_clock::now() + kHeldAwake;
  note_event();
}

// Fires the alarm when its time has come. No thread does so by itself: every show and store calls
// this first, and those that wait call it at each moment.
void PowerInterfaces::note_time() {
  if (alarm_.has_value() && steady_clock::now() >= *alarm_) {
    note_alarm();
  }
}

// Waits a moment, or until a change. False when nobody waits for the result any more.
bool PowerInterfaces::wait_moment(Lock& lock) {
  constexpr milliseconds kMoment(10);
  changed_.wait_for(lock, kMoment);
  note_time();
  return !interrupted_();
}

int PowerInterfaces::store_state(const std::string& text) {
  if (first_word(text) != "mem") {
    return -EINVAL;
  }
  Lock lock(mutex_);
  note_time();
  // Who wrote no count does not care for events.
  const bool refused =
      written_count_.has_value() && (*written_count_ != wakeup_count_ || event_in_progress());
  written_count_.reset();
  if (refused) {
    return -EBUSY;
  }
  const Time start = steady_clock::now();
  set_asleep(true);
  while (asleep_ &&
         (!suspend_time_.has_value() || steady_clock::now() < start + *suspend_time_ * factor_)) {
    if (!wait_moment(lock)) {
      set_asleep(false);
      return -EINTR;
    }
  }
  set_asleep(false);
  ++suspends_;
  return 0;
}

std::string PowerInterfaces::show_wakeup_count() {
  Lock lock(mutex_);
  while (event_in_progress() && wait_moment(lock)) {
  }
  note_time();
  return std::to_string(wakeup_count_) + "\n";
}

int PowerInterfaces::store_wakeup_count(const std::string& text) {
  const std::lock_guard lock(mutex_);
  note_time();
  written_count_.reset();
  if (event_in_progress() || first_word(text) != std::to_string(wakeup_count_)) {
    return -EINVAL;
  }
  written_count_ = wakeup_count_;
  return 0;
}

int PowerInterfaces::store_wake_lock(const std::string& text) {
  const std::string name = first_word(text);
  if (name.empty()) {
    return -EINVAL;
  }
  const std::lock_guard lock(mutex_);
  wake_locks_.insert(name);
  known_locks_.insert(name);
  return 0;
}

int PowerInterfaces::store_wake_unlock(const std::string& text) {
  const std::string name = text.substr(0, text.find_last_not_of('\n') + 1);
  const std::lock_guard lock(mutex_);
  if (known_locks_.count(name) == 0) {
    return -EINVAL;
  }
  if (wake_locks_.erase(name) > 0) {
    ++wakeup_count_;  // the event has ended
    changed_.notify_all();
  }
  return 0;
}

std::string PowerInterfaces::show_wake_locks() {
  const std::lock_guard lock(mutex_);
  std::string names;
  for (const std::string& name : wake_locks_) {
    names += (names.empty() ? "" : " ") + name;
  }
  return names + "\n";
}

// "+N" arms the alarm N seconds ahead, "N" at that second of the clock; a time that is over takes
// it back.
int PowerInterfaces::store_alarm(const std::string& text) {
  const char* const digits = text.c_str() + (text[0] == '+' ? 1 : 0);
  char* end = nullptr;
  int64_t number = strtoll(digits, &end, 10);
  if (end == digits || (*end != '\0' && *end != '\n')) {
    return -EINVAL;
  }
  number -= text[0] == '+' ? 0 : time(nullptr);
  const std::lock_guard lock(mutex_);
  note_time();
  if (number <= 0) {
    alarm_.reset();
    return 0;
  }
  if (alarm_.has_value()) {
    return -EBUSY;
  }
  alarm_ = factor_ == 0
               ? Time::max()
               : steady_clock::now() +
                     std::chrono::duration_cast<steady_clock::duration>(seconds(number) * factor_);
  alarm_text_ = std::to_string(time(nullptr) + number) + "\n";
  changed_.notify_all();
  return 0;
}

std::string PowerInterfaces::show_alarm() {
  const std::lock_guard lock(mutex_);
  note_time();
  return alarm_.has_value() ? alarm_text_ : "";
}

}  // namespace handset
