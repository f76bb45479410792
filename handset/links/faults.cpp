// Failing system calls; see faults.h.

#include "handset/links/faults.h"

#include <sched.h>
#include <sys/syscall.h>

namespace handset {

void Faults::fail(const std::string& path, int call, int error, int times) {
  const std::lock_guard lock(mutex_);
  if (error == 0) {
    faults_.erase({path, call});
  } else {
    faults_[{path, call}] = {error, times};
  }
}

int Faults::error(const std::string& path, int call) {
  const std::lock_guard lock(mutex_);
  const auto found = faults_.find({path, call});
  if (found == faults_.end()) {
    return 0;
  }
  const int error = found->second.error;
  if (found->second.times != kAlways && --found->second.times == 0) {
    faults_.erase(found);
  }
  return error;
}

Answer Faults::answer(const TrappedCall& call) {
  if (call.number != SYS_clone3) {
    return Answer::fail(error(call.link(call.descriptor()), call.number));
  }
  uint64_t flags = 0;  // the first field of the caller's record
  call.read(call.arguments[0], &flags, sizeof(flags));
  return Answer::fail(error((flags & CLONE_THREAD) != 0 ? "thread" : "process", SYS_clone3));
}

}  // namespace handset
