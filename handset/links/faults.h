// System calls that are made to fail. Callable from any thread.

#pragma once

#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "handset/links/supervisor.h"

namespace handset {

class Faults {
 public:
  static constexpr int kAlways = -1;

  // The call (SYS_...) on the path fails with an errno from now on, that many times; 0 makes it
  // work again. For SYS_clone3 the "path" is "thread" or "process".
  void fail(const std::string& path, int call, int error, int times = kAlways);

  // The errno that the call on the path, made now, is to fail with, or 0.
  int error(const std::string& path, int call);

  // Answers a clone3, or a call on a descriptor that is its first argument: it fails, or is the
  // kernel's.
  Answer answer(const TrappedCall& call);

 private:
  struct Fault {
    int error;
    int times;  // left
  };

  std::mutex mutex_;
  std::map<std::pair<std::string, int>, Fault> faults_;
};

}  // namespace handset
