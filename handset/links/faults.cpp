// Failing system calls; see faults.h.

#include "handset/links/faults.h"

#include <sched.h>
#include <sys/syscall.h>

namespace handset {

void Faults::fail(const std::string& path, int call, int error) {
  const std::lock_guard lock(mutex_);
  if (error == 0) {
    errors_.erase({path, call});
  } else {
    errors_[{path, call}] = error;
  }
}

int Faults::error(const std::string& path, int call) const {
  const std::lock_guard lock(mutex_);
  const auto found = errors_.find({path, call});
  return found == errors_.end() ? 0 : found->second;
}

Answer Faults::answer(const TrappedCall& call) const {
  if (call.number != SYS_clone3) {
    return Answer::fail(error(call.link(call.descriptor()), call.number));
  }
  uint64_t flags = 0;  // the first field of the caller's record
  call.read(call.arguments[0], &flags, sizeof(flags));
  return Answer::fail(error((flags & CLONE_THREAD) != 0 ? "thread" : "process", SYS_clone3));
}

}  // namespace handset
