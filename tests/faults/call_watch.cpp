// Counting and failing calls; see call_watch.h.

#include "tests/faults/call_watch.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "handset/links/stage.h"

using namespace handset;

static const std::vector<CallKind>& call_kinds() {
  static const std::vector<CallKind> kKinds = {
      {SYS_openat, "openat", {ENOENT, EACCES, EMFILE, EIO, EINTR}},
      {SYS_read, "read", {EIO, EINTR, EAGAIN}, true},
      {SYS_pread64, "pread", {EIO, EINTR}},
      {SYS_write, "write", {EIO, ENOSPC, EINTR, EAGAIN}, true},
      {SYS_pwrite64, "pwrite", {EIO, ENOSPC, EINTR}},
      {SYS_lseek, "lseek", {EIO, EINVAL}},
      {SYS_fsync, "fsync", {EIO, ENOSPC, EINTR}},
      {SYS_fdatasync, "fdatasync", {EIO, ENOSPC}},
      {SYS_ftruncate, "ftruncate", {EIO, EACCES}},
      {SYS_newfstatat, "newfstatat", {ENOENT, EACCES, EIO}},
      {SYS_fstat, "fstat", {EIO}},
      {SYS_getdents64, "getdents64", {EIO}},
      {SYS_statfs, "statfs", {ENOENT, EIO, EACCES}},
      {SYS_faccessat, "faccessat", {ENOENT, EACCES, EIO}},
      {SYS_unlinkat, "unlinkat", {ENOENT, EACCES, EIO}},
      {SYS_renameat, "renameat", {EACCES, ENOSPC, EIO}},
      {SYS_mkdirat, "mkdirat", {EACCES, ENOSPC}},
      {SYS_fchmod, "fchmod", {EACCES, EIO}},
      {SYS_fchmodat, "fchmodat", {EACCES, ENOENT}},
      {SYS_fchown, "fchown", {EACCES}},
      {SYS_fchownat, "fchownat", {EACCES, ENOENT}},
      {SYS_ioctl, "ioctl", {EIO, EINTR, ENODEV, ENOMEM}},
      {SYS_fcntl, "fcntl", {EMFILE, EINVAL}},
      {SYS_dup3, "dup3", {EMFILE, EBUSY}},
      {SYS_pipe2, "pipe2", {EMFILE}},
      {SYS_clone3, "clone3", {EAGAIN, ENOMEM}},
      {SYS_execve, "execve", {ENOENT, EACCES, ENOMEM}},
      {SYS_wait4, "wait4", {EINTR}},
      {SYS_mmap, "mmap", {ENOMEM}},
      {SYS_mprotect, "mprotect", {ENOMEM}},
      {SYS_epoll_create1, "epoll_create1", {EMFILE, ENOMEM}},
      {SYS_epoll_ctl, "epoll_ctl", {ENOMEM, ENOSPC}},
      {SYS_eventfd2, "eventfd2", {EMFILE, ENOMEM}},
      {SYS_socket, "socket", {EMFILE, EACCES}},
      {SYS_connect, "connect", {ECONNREFUSED, ENOENT, EINTR}},
      {SYS_sendto, "sendto", {EPIPE, ENOBUFS, EINTR}},
      {SYS_recvfrom, "recvfrom", {ECONNRESET, EINTR}},
      {SYS_recvmsg, "recvmsg", {ECONNRESET, EINTR}},
      {SYS_shutdown, "shutdown", {ENOTCONN}},
      {SYS_ppoll, "ppoll", {EINTR, ENOMEM}},
      {SYS_clock_nanosleep, "clock_nanosleep", {EINTR}},
      {SYS_init_module, "init_module", {EEXIST, ENOEXEC, ENOMEM}},
      {SYS_finit_module, "finit_module", {EEXIST, ENOEXEC, ENOMEM}},
      {SYS_delete_module, "delete_module", {EBUSY, EAGAIN, ENOENT}},
      {SYS_clone, "clone", {EAGAIN, ENOMEM}},
      {SYS_epoll_pwait, "epoll_pwait", {EINTR, EINVAL}},
#ifdef SYS_poll  // newer architectures have them in another form only
      {SYS_epoll_wait, "epoll_wait", {EINTR, EINVAL}},
      {SYS_poll, "poll", {EINTR, ENOMEM}},
      {SYS_dup2, "dup2", {EMFILE, EBUSY}},
#endif
  };
  return kKinds;
}

template <typename Condition>
static const CallKind* find_kind(const Condition& condition) {
  const auto found = std::find_if(call_kinds().begin(), call_kinds().end(), condition);
  return found == call_kinds().end() ? nullptr : &*found;
}

const CallKind* call_kind(int number) {
  return find_kind([number](const CallKind& kind) { return kind.number == number; });
}

const CallKind* call_kind(const std::string& name) {
  return find_kind([&name](const CallKind& kind) { return name == kind.name; });
}

static std::string named_by(const TrappedCall& call) {
  if (call.number == SYS_openat || call.number == SYS_newfstatat) {
    const std::string path = call.text(call.arguments[1]);
    return path.empty() ? call.link(call.descriptor()) : path;
  }
  return call.number == SYS_mmap || call.number == SYS_mprotect || call.number == SYS_wait4
             ? ""
             : target(call);
}

// A short transfer is done here, so it must not wait for the phone: only on files, and on none of
// the nodes that keep their callers waiting.
static bool can_be_short(const TrappedCall& call, const std::string& on) {
  return call.arguments[2] > 1 && on.starts_with('/') &&
         on.find(" (deleted)") == std::string::npos && !on.starts_with("/sys/power/") &&
         !on.starts_with("/sys/class/rtc/");
}

void CallWatch::attach(Handset* phone) {
  phone_ = phone;
  phone->intercept([this](const TrappedCall& call) { return on_call(call); });
}

void CallWatch::begin(const std::optional<CallFault>& fault) {
  const std::lock_guard lock(mutex_);
  active_ = true;
  fault_ = fault;
  struck_.reset();
  calls_.clear();
  counts_.clear();
  children_.clear();
}

std::vector<Call> CallWatch::end() {
  const std::lock_guard lock(mutex_);
  active_ = false;
  return calls_;
}

size_t CallWatch::seen() const {
  const std::lock_guard lock(mutex_);
  return calls_.size();
}

std::optional<Call> CallWatch::struck() const {
  const std::lock_guard lock(mutex_);
  return struck_;
}

bool CallWatch::is_daemons(const TrappedCall& call) {
  const std::string daemon = std::to_string(phone_->pid());
  if (access(("/proc/" + daemon + "/task/" + std::to_string(call.thread)).c_str(), F_OK) == 0) {
    return true;
  }
  auto child = children_.find(call.thread);
  if (child == children_.end()) {
    bool own = false;
    std::ifstream status("/proc/" + std::to_string(call.thread) + "/status");
    for (std::string line; std::getline(status, line);) {
      own = own || line == "PPid:\t" + daemon;
    }
    child = children_.emplace(call.thread, own).first;
  }
  const bool own = child->second;
  child->second = own && call.number != SYS_execve;
  return own;
}

// Called on the supervisor's thread.
Answer CallWatch::on_call(const TrappedCall& call) {
  const std::lock_guard lock(mutex_);
  const CallKind* kind = active_ ? call_kind(call.number) : nullptr;
  const bool logs = call.number == SYS_write && call.descriptor() == STDERR_FILENO;
  if (kind == nullptr || logs || !is_daemons(call)) {
    return Answer::kernel();
  }
  const std::string on = named_by(call);
  const bool is_short = kind->moves_bytes && can_be_short(call, on);
  calls_.push_back({kind, ++counts_[call.number], on, is_short});
  if (!fault_.has_value() || fault_->kind != kind || fault_->k != calls_.back().k) {
    return Answer::kernel();
  }
  struck_ = calls_.back();
  return fault_->error != 0 ? Answer::fail(fault_->error) : strike(call, *struck_);
}

// One byte only of a read, half of what is written.
Answer CallWatch::strike(const TrappedCall& call, const Call& struck) const {
  if (!struck.is_short) {
    return Answer::kernel();
  }
  const bool reads = call.number == SYS_read;
  if (struck.on == "/dev/ttyMSM0") {
    return reads ? Answer::kernel() : Answer::result(static_cast<int64_t>(call.arguments[2] / 2));
  }
  return move_some(call, reads ? 1 : call.arguments[2] / 2);
}
