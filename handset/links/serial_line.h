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

  // Puts bytes on the line in one write, as a station would. What is sent to a sleeping phone waits
  // in its tty.
  void send(std::string_view bytes);

  // Whether the daemon waits for a line: it has handled all that was sent, by whomever.
  bool idle() const;

  // Whether the last bytes for the daemon came from the desk's tty, so that the replies since are
  // awaited there.
  bool desk_sent_last() const {
    return desk_sent_last_;
  }

  // The daemon's latest replies, 100,000 at most, one for each of its write calls, in order;
  // take_replies also forgets them.
  std::vector<std::string> replies() const;
  std::vector<std::string> take_replies();
  // The bytes that the line has carried from the daemon, reply boundaries or not: the latest 1 MiB.
  std::string received() const;

  // The daemon has said how often it has begun to wait for a command (its reads of the line).
  int reads() const;
  // Waits until that number is reached. False when the limit passes, the daemon ends or the phone
  // falls asleep first.
  bool wait_reads(int count, std::chrono::seconds limit) const;
  // Waits a moment at most, and only until a reply is there. True when the number is reached: the
  // command is handled and all its replies are there.
  bool wait_read_or_reply(int count) const;
  // Waits until that many replies have come since the last take_replies.
  bool wait_replies(size_t count, std::chrono::seconds limit) const;

  // From now on each reply is cut to this many bytes on the way, as a full line would; -1 for
  // whole.
  void cut_replies(int bytes);

  // From now on replies reach the desk's tty that much later, and in parts of so many bytes (0:
  // whole) with a pause after each. Meanwhile the line carries nothing else.
  void set_late(std::chrono::milliseconds late);
  void set_torn(size_t part, std::chrono::milliseconds pause);

  // Forgets what was sent and not read, as a phone that is off does.
  void drop_unread() const;

  // What the traps report: the daemon begins a read; the daemon writes a reply (returns how many
  // bytes of it the line takes); the daemon has started or ended.
  void note_read();
  size_t note_reply(std::string_view text);
  void note_running(bool running);
  // The phone has fallen asleep or wakes up.
  void note_asleep(bool asleep);

 private:
  bool put(std::string_view bytes);
  bool put_part(std::string_view part);
  void relay();
  void pass_to_desk(bool attached);
  void deliver(std::string_view bytes) const;
  void pass_to_phone();

  int phone_master_ = -1;
  int phone_slave_ = -1;  // kept open: the line stays up while no daemon runs
  int desk_master_ = -1;
  int stop_[2] = {-1, -1};
  termios first_ = {};                    // the phone's tty as the kernel made it
  std::atomic<int> bits_per_second_ = 0;  // of the wire; 0 for one that is at once
  std::atomic<Tty> tty_ = Tty::kRaw;
  std::atomic<bool> desk_sent_last_ = false;
  std::atomic<int> late_ms_ = 0;
  std::atomic<size_t> part_ = 0;  // bytes; 0 for whole replies
  std::atomic<int> pause_ms_ = 0;
  std::string phone_tty_;
  std::string desk_tty_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::string> replies_;
  std::string received_;
  int reads_ = 0;
  int cut_ = -1;
  bool busy_ = false;  // something to read was sent since the daemon began its last read
  bool running_ = false;
  bool asleep_ = false;
  std::string waiting_;  // sent while the phone sleeps
  std::thread thread_;
};

}  // namespace handset
