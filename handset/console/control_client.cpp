// Bytes in, lines done, bytes out; see control_client.h.

#include "handset/console/control_client.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace handset {

constexpr size_t kLongestLine = 65536;
constexpr size_t kEnoughUnsent = 65536;   // no further line is begun
constexpr size_t kMostUnsent = 4U << 20;  // bytes
constexpr std::chrono::seconds kMostStalled(10);

ControlClient::ControlClient(int socket, SharedPhone* phone)
    : socket_(socket),
      phone_(*phone),
      session_(phone, &out_),
      last_sent_(std::chrono::steady_clock::now()) {}

ControlClient::~ControlClient() {
  close(socket_);
}

bool ControlClient::wants_input() const {
  return !input_ended_ && !in_line_ && unsent_.size() < kEnoughUnsent &&
         input_.find('\n') == std::string::npos;
}

// Once the other side has closed, poll would say so again and again.
int ControlClient::polled_socket() const {
  return gone_ && !wants_input() ? -1 : socket_;
}

short ControlClient::polled_events() const {
  return static_cast<short>((wants_input() ? POLLIN : 0) | (unsent_.empty() ? 0 : POLLOUT));
}

bool ControlClient::go_on(short events) {
  gone_ = gone_ || (events & (POLLHUP | POLLERR)) != 0;
  if (wants_input() && (events & (POLLIN | POLLHUP | POLLERR)) != 0 && !receive()) {
    unsent_ += " a line has at most " + std::to_string(kLongestLine) + " bytes\nfailed\n";
    transmit();
    return false;
  }
  run_lines();
  add_journal();
  transmit();
  const bool served = input_ended_ && !in_line_ && input_.find('\n') == std::string::npos &&
                      (gone_ || !follows_) && unsent_.empty();
  return !served && !session_.quit() && unsent_.size() <= kMostUnsent && !stalled();
}

// False when the line has become too long.
bool ControlClient::receive() {
  char part[4096];
  const ssize_t count = recv(socket_, part, sizeof(part), 0);
  if (count > 0) {
    input_.append(part, static_cast<size_t>(count));
  } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
    input_ended_ = true;
    if (!input_.empty() && !input_.ends_with('\n')) {
      input_ += '\n';
    }
  }
  return input_.size() <= kLongestLine || input_.find('\n') != std::string::npos;
}

void ControlClient::run_lines() {
  for (;;) {
    if (in_line_) {
      const bool done = session_.go_on();
      take_output();
      if (!done) {
        return;
      }
      finish(session_.failed());
    }
    const size_t end = input_.find('\n');
    if (end == std::string::npos || session_.quit() || unsent_.size() >= kEnoughUnsent) {
      return;
    }
    const std::string line = input_.substr(0, end);
    input_.erase(0, end + 1);
    begin(line);
  }
}

void ControlClient::begin(const std::string& line) {
  if (line.empty() || line[0] == '#') {
    finish(false);
  } else if (line == ".follow") {
    follows_ = true;
    followed_ = phone_.handset.journal.size();
    finish(false);
  } else {
    in_line_ = true;
    session_.begin(line);
  }
}

void ControlClient::finish(bool failed) {
  in_line_ = false;
  unsent_ += failed ? "failed\n" : "ok\n";
}

// What the session has printed, with a blank before each line.
void ControlClient::take_output() {
  std::istringstream lines(out_.str());
  out_.str("");
  for (std::string line; std::getline(lines, line);) {
    unsent_ += " " + line + "\n";
  }
}

void ControlClient::add_journal() {
  if (!follows_) {
    return;
  }
  for (const Journal::Entry& entry : phone_.handset.journal.since(followed_)) {
    unsent_ += " " + shown(entry) + "\n";
    ++followed_;
  }
}

void ControlClient::transmit() {
  const auto now = std::chrono::steady_clock::now();
  while (!unsent_.empty()) {
    const ssize_t count = send(socket_, unsent_.data(), unsent_.size(), MSG_NOSIGNAL);
    gone_ = gone_ || (count < 0 && errno != EAGAIN && errno != EINTR);
    if (gone_) {
      unsent_.clear();
    }
    if (count <= 0) {
      break;
    }
    unsent_.erase(0, static_cast<size_t>(count));
    last_sent_ = now;
  }
  if (unsent_.empty()) {
    last_sent_ = now;
  }
}

bool ControlClient::stalled() {
  return std::chrono::steady_clock::now() - last_sent_ > kMostStalled;
}

}  // namespace handset
