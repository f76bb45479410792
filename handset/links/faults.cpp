// Failing and short system calls; see faults.h.

#include "handset/links/faults.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "handset/links/call_form.h"

namespace handset {

void Faults::fail(const std::string& path, int call, int error, const Which& which) {
  const std::lock_guard lock(mutex_);
  if (error == 0) {
    faults_.erase({path, call});
  } else {
    faults_[{path, call}] = {.error = error, .most = 0, .which = which};
  }
}

void Faults::shorten(const std::string& path, int call, size_t most, const Which& which) {
  const std::lock_guard lock(mutex_);
  faults_[{path, call}] = {.error = 0, .most = most, .which = which};
}

bool Faults::none() const {
  const std::lock_guard lock(mutex_);
  return faults_.empty();
}

std::optional<Faults::Fault> Faults::take(const std::string& path, int call) {
  const std::lock_guard lock(mutex_);
  const auto found = faults_.find({path, call});
  if (found == faults_.end()) {
    return std::nullopt;
  }
  const Fault fault = found->second;
  Which& left = found->second.which;
  left.first = std::max(left.first - 1, 1);
  left.last -= left.last == INT_MAX ? 0 : 1;
  if (left.last == 0) {
    faults_.erase(found);
  }
  return fault.which.first > 1 ? std::nullopt : std::optional(fault);
}

Answer move_some(const TrappedCall& call, size_t most) {
  const int file = call.duplicate(call.descriptor());
  if (file < 0) {
    return Answer::fail(errno);
  }
  std::string bytes(most, '\0');
  ssize_t count = 0;
  if (call.number == SYS_read) {
    count = read(file, bytes.data(), bytes.size());
    call.write(call.arguments[1], bytes.data(), count < 0 ? 0 : static_cast<size_t>(count));
  } else {
    call.read(call.arguments[1], bytes.data(), bytes.size());
    count = write(file, bytes.data(), bytes.size());
  }
  const int error = errno;
  close(file);
  return Answer::result(count < 0 ? -error : count);
}

Answer Faults::open(const std::string& path) {
  const std::optional<Fault> fault = take(path, SYS_openat);
  return Answer::fail(fault.has_value() ? fault->error : 0);
}

// A path as fail() names it: that of the argument behind its folder's. The daemon works in "/".
static std::string named(const TrappedCall& call, int folder) {
  const std::string name = call.text(call.arguments[folder + 1]);
  const std::string path = name.starts_with('/') ? name : "/" + name;
  return call.descriptor(folder) == AT_FDCWD ? path : call.link(call.descriptor(folder)) + path;
}

std::string target(const TrappedCall& call) {
  switch (call.number) {
    case SYS_clone:
    case SYS_clone3:
      return makes_thread(call) ? "thread" : "process";
    case SYS_shutdown:
      return "socket";
    case SYS_faccessat:
    case SYS_fchmodat:
    case SYS_fchownat:
    case SYS_mkdirat:
    case SYS_unlinkat:
      return named(call, 0);
    case SYS_renameat:
      return named(call, 2);
    default:
      return call.link(call.descriptor());
  }
}

// The call that fail() knows it by.
static int known_as(int call) {
  return call == SYS_clone ? SYS_clone3 : call;
}

Answer Faults::answer(const TrappedCall& call) {
  if (none()) {
    return Answer::kernel();  // without looking at what the call is on
  }
  const std::optional<Fault> fault = take(target(call), known_as(call.number));
  if (!fault.has_value()) {
    return Answer::kernel();
  }
  if (fault->error != 0) {
    return Answer::fail(fault->error);
  }
  return call.arguments[2] > fault->most ? move_some(call, fault->most) : Answer::kernel();
}

}  // namespace handset
