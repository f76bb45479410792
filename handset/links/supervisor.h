// Answers the system calls that the phone's processes make where a kernel would: each trapped call
// goes to one handler on the supervisor's thread. A handler must not wait for anything that the
// phone's processes do.

#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "handset/journal.h"
#include "handset/links/call.h"

namespace handset {

// A trapped call as its handler sees it: in the form of call_form.h.
class TrappedCall : public Caller {
 public:
  pid_t thread = 0;
  int number = 0;  // SYS_...
  uint64_t arguments[6] = {};
  Journal* journal = nullptr;

  int descriptor(int index = 0) const {
    return static_cast<int>(arguments[index]);
  }
  bool read(uint64_t address, void* data, size_t size) const override;
  bool write(uint64_t address, const void* data, size_t size) const override;
  // A terminated text of the caller, at most 4096 bytes of it.
  std::string text(uint64_t address) const;
  void note(const std::string& entry) const override;
  // What the caller's descriptor stands for: a path, "socket:[N]", "/memfd:NAME (deleted)"; empty
  // when it is not open.
  std::string link(int descriptor) const;
  // A descriptor of the handset's own for the caller's open file, with the same place in it; -1
  // with errno when there is none.
  int duplicate(int descriptor) const;
};

// What a handler answers.
struct Answer {
  enum class Kind { kKernel, kResult, kDescriptor };

  // Let the kernel do the call.
  static Answer kernel() {
    return {Kind::kKernel, 0, {}};
  }
  // The call returns value, or fails when value is a negative errno.
  static Answer result(int64_t value) {
    return {Kind::kResult, value, {}};
  }
  // The call fails with error, or is the kernel's when error is 0.
  static Answer fail(int error) {
    return error == 0 ? kernel() : result(-error);
  }
  // The call returns after a delay, and when ready (asked again and again; null: at once) then says
  // true.
  static Answer result_after(int64_t value, std::chrono::nanoseconds delay,
                             std::function<bool()> ready) {
    return {Kind::kResult, value, delay, std::move(ready)};
  }
  // The call, an open with these flags, returns a copy of the handset's descriptor fd, which is
  // closed here.
  static Answer descriptor(int fd, int flags) {
    return {Kind::kDescriptor, fd, {}, nullptr, flags};
  }

  Kind kind;
  int64_t value;
  std::chrono::nanoseconds delay;
  std::function<bool()> ready = nullptr;
  int flags = 0;  // of kDescriptor
};

class Supervisor {
 public:
  using Handler = std::function<Answer(const TrappedCall&)>;

  explicit Supervisor(Journal* journal) : journal_(journal) {}
  ~Supervisor();

  // Registers the handler of a system call. Not while a phone runs.
  void handle(int call, Handler handler);

  // Shows every call to interceptor first: what that answers stands, unless it is the kernel's. Not
  // while a phone runs.
  void intercept(Handler interceptor) {
    interceptor_ = std::move(interceptor);
  }

  // Shows every call with its answer, before it is given. Not while a phone runs.
  void observe(std::function<void(const TrappedCall&, const Answer&)> observer) {
    observer_ = std::move(observer);
  }

  // While the function says true no call is answered and no wait ends: the phone's processes stand
  // still. Not while a phone runs.
  void hold_while(std::function<bool()> held) {
    held_ = std::move(held);
  }

  // Answers the calls of the listener (taken over) until every trapped process has ended; then, and
  // only then, calls ended.
  void serve(int listener, std::function<void()> ended);
  void wait_ended();

 private:
  struct Pending {
    uint64_t id;
    int64_t value;
    std::function<bool()> ready;
  };
  using Time = std::chrono::steady_clock::time_point;
  void loop(int listener);
  bool wait_released(int listener);
  bool answer_next(int listener);
  void give(int listener, uint64_t id, const Answer& answer);
  void answer_due(int listener);
  int next_timeout() const;

  Journal* const journal_;
  std::map<int, Handler> handlers_;
  Handler interceptor_;
  std::function<void(const TrappedCall&, const Answer&)> observer_;
  std::function<bool()> held_ = [] { return false; };
  std::multimap<Time, Pending> later_;
  std::thread thread_;
};

}  // namespace handset
