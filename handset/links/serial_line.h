// The factory serial line: a pty whose slave is the phone's /dev/ttyMSM0, and a second pty for any
// serial program on the desk. What either side sends reaches the daemon; what the daemon sends is
// recorded and passed on. Callable from any thread.

#pragma once

#include <termios.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace handset {

class SerialLine {
 public:
  SerialLine();
  ~SerialLine();

  // The tty that becomes the phone's /dev/ttyMSM0.
  const std::string& phone_tty() const {
    return phone_tty_;
  }
  // The tty that a serial program on the desk opens.
  const std::string& desk_tty() const {
    return desk_tty_;
  }

  // How the phone's tty takes what is sent. A new line is kRaw: what is sent in one write is read
  // in one, and a reply passes unchanged.
  enum class Tty {
    kRaw,
    kCanonical,  // raw but for ICANON: a read gives a line, and waits for its "\n"
    kDefault,    // as a kernel makes a tty: it also echoes and translates line ends
    kUart,       // raw, and what is sent comes in small parts, as the wire brings it
  };
  // bits_per_second: of the wire, for kUart.
  void set_tty(Tty tty, int bits_per_second = 115200);

  // Puts bytes on the line in one write, as a station would.
  void send(std::string_view bytes);

  // The daemon's replies, one for each of its write calls, in order; take_replies also forgets
  // them.
  std::vector<std::string> replies() const;
  std::vector<std::string> take_replies();
  // Every byte that the line has carried from the daemon, reply boundaries or not.
  std::string received() const;

  // The daemon has said how often it has begun to wait for a command (its reads of the line).
  int reads() const;
  // Waits until that number is reached. False when the limit passes or the daemon ends first.
  bool wait_reads(int count, std::chrono::seconds limit) const;
  // Waits a moment at most, and only until a reply is there. True when the number is reached: the
  // command is handled and all its replies are there.
  bool wait_read_or_reply(int count) const;
  // Waits until that many replies have come since the last take_replies.
  bool wait_replies(size_t count, std::chrono::seconds limit) const;

  // From now on each reply is cut to this many bytes on the way, as a full line would; -1 for
  // whole.
  void cut_replies(int bytes);

  // What the traps report: the daemon begins a read; the daemon writes a reply (returns how many
  // bytes of it the line takes); the daemon has started or ended.
  void note_read();
  size_t note_reply(std::string_view text);
  void note_running(bool running);

 private:
  bool put(std::string_view bytes) const;
  void relay();
  void pass_to_desk(bool attached);
  void pass_to_phone();

  int phone_master_ = -1;
  int phone_slave_ = -1;  // kept open: the line stays up while no daemon runs
  int desk_master_ = -1;
  int stop_[2] = {-1, -1};
  termios first_ = {};                    // the phone's tty as the kernel made it
  std::atomic<int> bits_per_second_ = 0;  // of the wire; 0 for one that is at once
  std::string phone_tty_;
  std::string desk_tty_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::string> replies_;
  std::string received_;
  int reads_ = 0;
  int cut_ = -1;
  bool running_ = false;
  std::thread thread_;
};

}  // namespace handset
