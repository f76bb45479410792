// A phone as those who type lines use it: each has a session, which takes one line at a time and
// prints what comes of it. Several sessions share a phone. Nothing here waits: a line is begun, and
// gone on with until it is done. All on the thread that made the phone.

#pragma once

#include <functional>
#include <ostream>
#include <string>

#include "handset/console/command_table.h"
#include "handset/handset.h"

namespace handset {

class Session;

// A phone and what its sessions must know of each other.
class SharedPhone {
 public:
  explicit SharedPhone(const Handset::Options& options) : handset(options) {}

  // Starts the daemon, without waiting for it to be ready. Throws what Handset::start throws.
  void start();
  // True once every line that was sent has been handled, and the daemon waits for the next: it
  // takes what has come by its next read for one line.
  bool ready() const {
    return handset.serial.reads() >= awaited_reads_;
  }
  // One session at a time has the line, so that it sees the replies to what it has sent. False
  // while another one has it.
  bool take_line(const Session* session);
  void leave_line(const Session* session);
  // Waits until ready, a reply or the daemon's end, a tenth of a second at most.
  void wait_moment() const {
    handset.serial.wait_read_or_reply(awaited_reads_);
  }
  // No daemon runs: it has ended by itself, or did not come up.
  bool down();
  // Starts it anew where it has ended by itself, as a phone's init does. Returns a line that says
  // so, or that it does not come up and is left alone until the next ".start"; empty when there is
  // nothing to say. Sessions are to be gone on with between two calls: they see the end first.
  std::string keep_running();
  // How often the daemon has been started.
  int starts() const {
    return starts_;
  }

  // Sends bytes as one line. Throws std::runtime_error when the line takes no more.
  void send(const std::string& bytes);
  // Runs a dot line; prints and returns what finish_dot_command does.
  bool finish_dot_line(const std::string& line, std::ostream& out);

  Handset handset;
  Exchange last = {};  // the line that a session has sent last, and its replies

 private:
  const Session* line_user_ = nullptr;
  int awaited_reads_ = 0;
  int starts_ = 0;
  int reads_at_start_ = 0;
  bool seen_ended_ = false;  // by the last keep_running
};

class Session {
 public:
  // colours: what is printed may have them.
  Session(SharedPhone* phone, std::ostream* out, bool colours = false)
      : phone_(*phone), out_(*out), colours_(colours) {}
  ~Session() {
    phone_.leave_line(this);
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Begins a line: a dot line, or one for the phone. The last one must be done.
  void begin(const std::string& line);
  // Goes on with it and prints what has come of it. True when it is done.
  bool go_on();
  bool idle() const {
    return step_ == Step::kIdle;
  }
  // Waits until there may be something to go on with, a tenth of a second at most.
  void rest() const;
  // Prints replies that nobody awaits, and in journal mode what else the phone does. While idle.
  void look();

  // The last line could not be carried out; the daemon ended under it.
  bool failed() const {
    return failed_;
  }
  bool daemon_ended() const {
    return daemon_ended_;
  }
  // The line was ".quit".
  bool quit() const {
    return quit_;
  }

 private:
  enum class Step {
    kIdle,
    kTurn,     // until nobody else has the line and what was sent before has been handled
    kReplies,  // until it has been handled
    kWait,     // until what a dot line waits for is there
  };

  void begin_dot_line();
  bool do_table_line();
  void wait_for_turn();
  void send();
  void go_on_with_replies();
  void print_replies();
  void print_journal(const std::string& sent);
  void end_without_daemon();
  bool asleep() const;
  void end(bool failed);

  SharedPhone& phone_;
  std::ostream& out_;
  const bool colours_;
  std::string line_;
  std::string bytes_;  // what the line sends
  Step step_ = Step::kIdle;
  std::function<bool()> wait_over_;
  int start_ = 0;  // the daemon's, in which the line was sent
  bool shows_journal_ = false;
  size_t journal_seen_ = 0;
  bool failed_ = false;
  bool daemon_ended_ = false;
  bool quit_ = false;
};

}  // namespace handset
