// System calls that are made to fail, or to move fewer bytes than asked for. Callable from any
// thread.

#pragma once

#include <climits>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "handset/links/supervisor.h"

namespace handset {

// What a call is on, as Faults::fail names it; empty where that is nothing.
std::string target(const TrappedCall& call);

// Does the first bytes, most of them, of a read or write on the caller's own open file. Not where
// that would wait.
Answer move_some(const TrappedCall& call, size_t most);

class Faults {
 public:
  // Which calls from now on, the first being 1.
  struct Which {
    int first = 1;
    int last = INT_MAX;
  };

  // The call (SYS_...) on the path fails with an errno; with error 0 it works again. A rename's
  // path is the new name; for SYS_clone3 the "path" is "thread" or "process", for SYS_shutdown
  // "socket".
  void fail(const std::string& path, int call, int error, const Which& which);
  // A read or write on the path moves this many bytes at most.
  void shorten(const std::string& path, int call, size_t most, const Which& which);

  // Answers an openat of the path.
  Answer open(const std::string& path);

  // Answers a clone3, a call on a descriptor that is its first argument, or one on a path that is:
  // it fails, is short, or is the kernel's.
  Answer answer(const TrappedCall& call);

 private:
  struct Fault {
    int error;
    size_t most;  // where error is 0
    Which which;
  };

  bool none() const;
  std::optional<Fault> take(const std::string& path, int call);

  mutable std::mutex mutex_;
  std::map<std::pair<std::string, int>, Fault> faults_;
};

}  // namespace handset
