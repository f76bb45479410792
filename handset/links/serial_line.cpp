// Both ptys and the relay between them; see serial_line.h.

#include "handset/links/serial_line.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "handset/recent.h"

namespace handset {

static constexpr size_t kMostReceived = 1 << 20;  // bytes
static constexpr size_t kUartPart = 8;            // bytes that a UART hands on at a time
static constexpr int kBitsPerByte = 10;           // with start and stop bit
static constexpr size_t kTtyRoom = 4095;          // bytes that a tty keeps for its reader

// Opens a pty in raw mode: bytes pass unchanged, nothing is echoed. first gets its settings before.
static int open_pty(std::string* slave, termios* first) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  char name[128];
  if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 ||
      ptsname_r(master, name, sizeof(name)) != 0 || tcgetattr(master, first) != 0) {
    throw std::runtime_error(std::string("this machine gives no pty: ") + strerror(errno));
  }
  termios raw = *first;
  cfmakeraw(&raw);
  tcsetattr(master, TCSANOW, &raw);
  *slave = name;
  return master;
}

SerialLine::SerialLine() {
  phone_master_ = open_pty(&phone_tty_, &first_);
  phone_slave_ = open(phone_tty_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  termios desk_first;
  desk_master_ = open_pty(&desk_tty_, &desk_first);
  // Opened and closed once: from then on the line tells whether a program has it open.
  close(open(desk_tty_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  fcntl(desk_master_, F_SETFL, O_NONBLOCK);
  fcntl(phone_master_, F_SETFL, O_NONBLOCK);
  if (pipe2(stop_, O_CLOEXEC) != 0) {
    throw std::runtime_error("cannot make a pipe");
  }
  thread_ = std::thread([this] { relay(); });
}

SerialLine::~SerialLine() {
  close(stop_[1]);
  thread_.join();
  for (const int fd : {stop_[0], desk_master_, phone_slave_, phone_master_}) {
    close(fd);
  }
}

void SerialLine::set_tty(Tty tty, int bits_per_second) {
  termios settings = first_;
  if (tty != Tty::kDefault) {
    cfmakeraw(&settings);
  }
  if (tty == Tty::kCanonical) {
    settings.c_lflag |= ICANON;
  }
  tcsetattr(phone_master_, TCSANOW, &settings);
  tty_ = tty;
  bits_per_second_ = tty == Tty::kUart ? bits_per_second : 0;
}

// False when the tty takes no more bytes.
bool SerialLine::put_part(std::string_view part) {
  const bool is_line = part.find('\n') != std::string_view::npos ||
                       (tty_ == Tty::kDefault && part.find('\r') != std::string_view::npos);
  const bool any_bytes = tty_ == Tty::kRaw || tty_ == Tty::kUart;
  const std::lock_guard lock(mutex_);
  busy_ = busy_ || any_bytes || is_line;
  return write(phone_master_, part.data(), part.size()) == static_cast<ssize_t>(part.size());
}

bool SerialLine::put(std::string_view bytes) {
  {
    const std::lock_guard lock(mutex_);
    if (asleep_) {
      const size_t kept = std::min(bytes.size(), kTtyRoom - waiting_.size());
      waiting_ += bytes.substr(0, kept);
      return kept == bytes.size();
    }
  }
  const int speed = bits_per_second_;
  const size_t part = speed == 0 ? std::max<size_t>(bytes.size(), 1) : kUartPart;
  for (size_t at = 0; at < bytes.size(); at += part) {
    const std::string_view some = bytes.substr(at, part);
    if (speed != 0) {
      const auto bits = static_cast<int64_t>(some.size()) * kBitsPerByte;
      std::this_thread::sleep_for(std::chrono::microseconds(bits * 1000000 / speed));
    }
    if (!put_part(some)) {
      return false;
    }
  }
  return true;
}

void SerialLine::send(std::string_view bytes) {
  desk_sent_last_ = false;
  if (!put(bytes)) {
    throw std::runtime_error("the serial line takes no more bytes");
  }
}

void SerialLine::relay() {
  constexpr int kAttachPoll = 50;  // ms between looks for a program on the desk's tty
  bool attached = false;
  for (;;) {
    pollfd waiting[] = {
        {stop_[0], 0, 0}, {phone_master_, POLLIN, 0}, {attached ? desk_master_ : -1, POLLIN, 0}};
    poll(waiting, 3, attached ? -1 : kAttachPoll);
    if ((waiting[0].revents & POLLHUP) != 0) {
      return;
    }
    pollfd desk = {desk_master_, POLLIN, 0};
    poll(&desk, 1, 0);
    attached = (desk.revents & POLLHUP) == 0;  // hung up while nobody has the tty open

    if ((waiting[1].revents & POLLIN) != 0) {
      pass_to_desk(attached);
    }
    // Also from a program that wrote and left at once.
    if ((desk.revents & POLLIN) != 0) {
      pass_to_phone();
    }
  }
}

void SerialLine::pass_to_desk(bool attached) {
  char bytes[4096];
  const ssize_t count = read(phone_master_, bytes, sizeof(bytes));
  if (count < 1) {
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    for (const char byte : std::string_view(bytes, static_cast<size_t>(count))) {
      add_recent(&received_, byte, kMostReceived);
    }
    changed_.notify_all();
  }
  if (attached) {
    deliver(std::string_view(bytes, static_cast<size_t>(count)));
  }
}

void SerialLine::deliver(std::string_view bytes) const {
  const auto rest = [this](int ms) {
    pollfd end = {stop_[0], 0, 0};
    poll(&end, 1, ms);
  };
  rest(late_ms_);
  const size_t part = part_ == 0 ? bytes.size() : part_.load();
  for (size_t at = 0; at < bytes.size(); at += part) {
    const std::string_view some = bytes.substr(at, part);
    // A program that does not read loses bytes, as on a line without flow control.
    [[maybe_unused]] const ssize_t passed = write(desk_master_, some.data(), some.size());
    rest(pause_ms_);
  }
}

void SerialLine::set_late(std::chrono::milliseconds late) {
  late_ms_ = static_cast<int>(late.count());
}

void SerialLine::set_torn(size_t part, std::chrono::milliseconds pause) {
  part_ = part;
  pause_ms_ = static_cast<int>(pause.count());
}

void SerialLine::drop_unread() const {
  tcflush(phone_slave_, TCIFLUSH);
}

void SerialLine::pass_to_phone() {
  char bytes[4096];
  const ssize_t count = read(desk_master_, bytes, sizeof(bytes));
  if (count > 0) {
    desk_sent_last_ = true;
    // A daemon that does not read loses bytes likewise.
    put(std::string_view(bytes, static_cast<size_t>(count)));
  }
}

std::vector<std::string> SerialLine::replies() const {
  const std::lock_guard lock(mutex_);
  return replies_;
}

std::vector<std::string> SerialLine::take_replies() {
  const std::lock_guard lock(mutex_);
  return std::exchange(replies_, {});
}

std::string SerialLine::received() const {
  const std::lock_guard lock(mutex_);
  return received_;
}

int SerialLine::reads() const {
  const std::lock_guard lock(mutex_);
  return reads_;
}

bool SerialLine::wait_reads(int count, std::chrono::seconds limit) const {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, limit, [&] { return reads_ >= count || !running_ || asleep_; });
  return reads_ >= count;
}

bool SerialLine::wait_read_or_reply(int count) const {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, std::chrono::milliseconds(100),
                    [&] { return reads_ >= count || !replies_.empty() || !running_ || asleep_; });
  return reads_ >= count;
}

bool SerialLine::wait_replies(size_t count, std::chrono::seconds limit) const {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, limit, [&] { return replies_.size() >= count || !running_; });
  return replies_.size() >= count;
}

void SerialLine::cut_replies(int bytes) {
  const std::lock_guard lock(mutex_);
  cut_ = bytes;
}

bool SerialLine::idle() const {
  const std::lock_guard lock(mutex_);
  return !busy_;
}

void SerialLine::note_read() {
  const std::lock_guard lock(mutex_);
  ++reads_;
  int unread = 0;
  ioctl(phone_slave_, FIONREAD, &unread);
  busy_ = unread > 0;
  changed_.notify_all();
}

size_t SerialLine::note_reply(std::string_view text) {
  const std::lock_guard lock(mutex_);
  const size_t taken = cut_ < 0 ? text.size() : std::min(text.size(), static_cast<size_t>(cut_));
  add_recent(&replies_, std::string(text.substr(0, taken)));
  changed_.notify_all();
  return taken;
}

void SerialLine::note_running(bool running) {
  const std::lock_guard lock(mutex_);
  running_ = running;
  changed_.notify_all();
}

void SerialLine::note_asleep(bool asleep) {
  const std::lock_guard lock(mutex_);
  asleep_ = asleep;
  if (!asleep && !waiting_.empty()) {
    // A tty that is full already loses the rest.
    busy_ = true;
    [[maybe_unused]] const ssize_t put = write(phone_master_, waiting_.data(), waiting_.size());
    waiting_.clear();
  }
  changed_.notify_all();
}

}  // namespace handset
