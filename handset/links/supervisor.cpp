// The seccomp notification loop; see supervisor.h.

#include "handset/links/supervisor.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <utility>

#include "handset/links/call_form.h"

namespace handset {

using std::chrono::steady_clock;

bool TrappedCall::read(uint64_t address, void* data, size_t size) const {
  iovec local = {data, size};
  iovec remote = {reinterpret_cast<void*>(address), size};
  return process_vm_readv(thread, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

bool TrappedCall::write(uint64_t address, const void* data, size_t size) const {
  iovec local = {const_cast<void*>(data), size};
  iovec remote = {reinterpret_cast<void*>(address), size};
  return process_vm_writev(thread, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

std::string TrappedCall::text(uint64_t address) const {
  // Up to the end of a page at a time: the next one need not be mapped.
  constexpr uint64_t kPage = 4096;
  std::string found;
  while (found.size() < kPage) {
    char part[kPage];
    const size_t count = kPage - (address + found.size()) % kPage;
    if (!read(address + found.size(), part, count)) {
      break;
    }
    const size_t length = strnlen(part, count);
    found.append(part, length);
    if (length < count) {
      break;
    }
  }
  return found;
}

void TrappedCall::note(const std::string& entry) const {
  journal->add(thread, entry);
}

std::string TrappedCall::link(int descriptor) const {
  const std::string path = "/proc/" + std::to_string(thread) + "/fd/" + std::to_string(descriptor);
  char target[4096];
  const ssize_t length = readlink(path.c_str(), target, sizeof(target));
  return length < 0 ? "" : std::string(target, static_cast<size_t>(length));
}

int TrappedCall::duplicate(int descriptor) const {
  pid_t process = 0;
  std::ifstream status("/proc/" + std::to_string(thread) + "/status");
  for (std::string line; process == 0 && std::getline(status, line);) {
    process = line.starts_with("Tgid:") ? static_cast<pid_t>(std::stol(line.substr(5))) : 0;
  }
  const auto handle = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
  const auto copy = static_cast<int>(syscall(SYS_pidfd_getfd, handle, descriptor, 0));
  const int error = errno;
  close(handle);
  errno = error;
  return copy;
}

Supervisor::~Supervisor() {
  wait_ended();
}

void Supervisor::handle(int call, Handler handler) {
  handlers_[call] = std::move(handler);
}

void Supervisor::serve(int listener, std::function<void()> ended) {
  wait_ended();
  thread_ = std::thread([this, listener, ended = std::move(ended)] {
    loop(listener);
    close(listener);
    later_.clear();
    ended();
  });
}

void Supervisor::wait_ended() {
  if (thread_.joinable()) {
    thread_.join();
  }
}

void Supervisor::loop(int listener) {
  for (;;) {
    pollfd waiting = {listener, POLLIN, 0};
    if (poll(&waiting, 1, next_timeout()) < 0 && errno != EINTR) {
      return;
    }
    if (!wait_released(listener)) {
      return;
    }
    answer_due(listener);
    if ((waiting.revents & POLLIN) != 0) {
      if (!answer_next(listener)) {
        return;
      }
    } else if ((waiting.revents & (POLLHUP | POLLERR)) != 0) {
      return;
    }
  }
}

// Waits while the phone is held; what is due then comes that much later. False when the phone's
// processes end meanwhile.
bool Supervisor::wait_released(int listener) {
  constexpr int kLookAgain = 1;  // ms
  const Time start = steady_clock::now();
  bool held = false;
  while (held_()) {
    held = true;
    pollfd ended = {listener, 0, 0};
    if (poll(&ended, 1, kLookAgain) > 0) {
      return false;
    }
  }
  if (held) {
    std::multimap<Time, Pending> shifted;
    for (const auto& [due, pending] : later_) {
      shifted.insert({due + (steady_clock::now() - start), pending});
    }
    later_ = std::move(shifted);
  }
  return true;
}

int Supervisor::next_timeout() const {
  if (later_.empty()) {
    return -1;
  }
  const std::chrono::duration<double, std::milli> left =
      later_.begin()->first - steady_clock::now();
  return std::max(0, static_cast<int>(std::ceil(left.count())));
}

static void respond(int listener, uint64_t id, int64_t value) {
  seccomp_notif_resp response = {};
  response.id = id;
  response.error = value < 0 ? static_cast<int>(value) : 0;
  response.val = value < 0 ? 0 : value;
  ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &response);  // fails when the caller has died: no loss
}

// Lets the kernel do the call.
static void pass_on(int listener, uint64_t id) {
  seccomp_notif_resp response = {};
  response.id = id;
  response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
  ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &response);
}

// Gives the caller a copy of the descriptor, and closes it here.
static void respond_descriptor(int listener, uint64_t id, int fd, int flags) {
  seccomp_notif_addfd add = {};
  add.id = id;
  add.flags = SECCOMP_ADDFD_FLAG_SEND;
  add.srcfd = static_cast<uint32_t>(fd);
  add.newfd_flags = static_cast<uint32_t>(flags & O_CLOEXEC);
  if (ioctl(listener, SECCOMP_IOCTL_NOTIF_ADDFD, &add) < 0) {
    respond(listener, id, -errno);  // the caller may have no descriptor left
  }
  close(fd);
}

void Supervisor::answer_due(int listener) {
  constexpr auto kAskAgain = std::chrono::milliseconds(1);
  const auto now = steady_clock::now();
  while (!later_.empty() && later_.begin()->first <= now) {
    const Pending due = std::move(later_.begin()->second);
    later_.erase(later_.begin());
    if (due.ready == nullptr || due.ready()) {
      respond(listener, due.id, due.value);
    } else {
      later_.insert({now + kAskAgain, due});
    }
  }
}

bool Supervisor::answer_next(int listener) {
  seccomp_notif notification = {};
  if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &notification) != 0) {
    return errno == EINTR || errno == ENOENT;  // ENOENT: the caller died in between
  }
  TrappedCall call;
  call.thread = static_cast<pid_t>(notification.pid);
  call.number = notification.data.nr;
  call.journal = journal_;
  std::copy(std::begin(notification.data.args), std::end(notification.data.args), call.arguments);
  use_common_form(&call);
  Answer answer = interceptor_ == nullptr ? Answer::kernel() : interceptor_(call);
  if (const auto handler = handlers_.find(call.number);
      answer.kind == Answer::Kind::kKernel && handler != handlers_.end()) {
    answer = handler->second(call);
  }
  if (observer_ != nullptr) {
    observer_(call, answer);
  }
  give(listener, notification.id, answer);
  return true;
}

void Supervisor::give(int listener, uint64_t id, const Answer& answer) {
  switch (answer.kind) {
    case Answer::Kind::kKernel:
      pass_on(listener, id);
      break;
    case Answer::Kind::kResult:
      if (answer.delay.count() > 0 || answer.ready != nullptr) {
        later_.insert({steady_clock::now() + answer.delay, {id, answer.value, answer.ready}});
      } else {
        respond(listener, id, answer.value);
      }
      break;
    case Answer::Kind::kDescriptor:
      respond_descriptor(listener, id, static_cast<int>(answer.value), answer.flags);
      break;
  }
}

}  // namespace handset
