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
  // The call (SYS_...) on the path fails with an errno from now on; 0 makes it work again. For
  // SYS_clone3 the "path" is "thread" or "process".
  void fail(const std::string& path, int call, int error);

  // The errno that the call on the path is to fail with, or 0.
  int error(const std::string& path, int call) const;

  // Answer a call on a descriptor (its first argument), and a clone3: they fail, or are the
  // kernel's.
  Answer descriptor_call(const TrappedCall& call) const;
  Answer clone3(const TrappedCall& call) const;

 private:
  mutable std::mutex mutex_;
  std::map<std::pair<std::string, int>, int> errors_;
};

}  // namespace handset
