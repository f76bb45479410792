// The steps of a line; see session.h.

#include "handset/console/session.h"

#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "handset/console/command_table.h"
#include "handset/console/dot_commands.h"
#include "handset/visible.h"

namespace handset {

// ---- the phone

void SharedPhone::start() {
  Handset::StartOptions options;
  options.faults = true;
  options.wait_ready = false;
  reads_at_start_ = handset.serial.reads();
  awaited_reads_ = reads_at_start_ + 1;
  ++starts_;
  handset.start(options);
}

bool SharedPhone::down() {
  return handset.pid() == 0 || handset.wait_exit(std::chrono::seconds(0)).has_value();
}

bool SharedPhone::take_line(const Session* session) {
  line_user_ = line_user_ == nullptr ? session : line_user_;
  return line_user_ == session;
}

void SharedPhone::leave_line(const Session* session) {
  line_user_ = line_user_ == session ? nullptr : line_user_;
}

std::string SharedPhone::keep_running() {
  const bool ended = handset.pid() != 0 && down();
  if (!std::exchange(seen_ended_, ended) || !ended) {
    return "";
  }
  if (handset.serial.reads() == reads_at_start_) {
    handset.stop();
    return "the daemon does not come up; .start tries again";
  }
  start();
  return "the daemon has ended and is started anew";
}

void SharedPhone::send(const std::string& bytes) {
  const int reads = handset.serial.reads();
  handset.serial.send(bytes);
  awaited_reads_ = reads + 1;
}

bool SharedPhone::finish_dot_line(const std::string& line, std::ostream& out) {
  const pid_t pid = handset.pid();
  const int reads = handset.serial.reads();
  const bool done = finish_dot_command(&handset, line, out);
  if (handset.pid() != pid) {
    ++starts_;
    reads_at_start_ = reads;
    awaited_reads_ = reads + 1;
  }
  return done;
}

// ---- a session

void Session::begin(const std::string& line) {
  line_ = line;
  failed_ = false;
  daemon_ended_ = false;
  if (line_[0] == '.') {
    begin_dot_line();
    return;
  }
  try {
    bytes_ = sent_bytes(line_);
    step_ = Step::kTurn;
  } catch (const std::exception& error) {
    out_ << error.what() << "\n";
    end(true);
  }
}

// ".commands [WORD]" and ".explain". False when the line is neither.
bool Session::do_table_line() {
  const std::string commands = ".commands";
  if (line_ == ".explain") {
    command_table().print_outcome(phone_.last, colours_, out_);
    end(false);
  } else if (line_ == commands || line_.starts_with(commands + " ")) {
    const std::string word = line_.substr(std::min(line_.size(), commands.size() + 1));
    const bool found = command_table().print_commands(word, out_);
    out_ << (found ? "" : "no command for: " + word + "\n");
    end(!found);
  } else {
    return false;
  }
  return true;
}

// What only a session has, then what every script has.
void Session::begin_dot_line() {
  if (line_ == ".quit") {
    quit_ = true;
    end(false);
  } else if (line_ == ".journal on" || line_ == ".journal off") {
    shows_journal_ = line_ == ".journal on";
    journal_seen_ = phone_.handset.journal.size();
    end(false);
  } else if (!do_table_line()) {
    wait_over_ = dot_command_wait(&phone_.handset, line_);
    step_ = Step::kWait;
  }
}

bool Session::go_on() {
  if (step_ == Step::kTurn && phone_.take_line(this)) {
    wait_for_turn();
  }
  if (step_ == Step::kReplies) {
    go_on_with_replies();
  }
  if (step_ == Step::kWait && wait_over_()) {
    end(!phone_.finish_dot_line(line_, out_));
  }
  return step_ == Step::kIdle;
}

void Session::wait_for_turn() {
  if (phone_.down()) {
    end_without_daemon();
  } else if (asleep()) {
    out_ << "the phone sleeps: .wake, .alarm or .press power wakes it\n";
    end(true);
  } else if (phone_.ready() && phone_.handset.serial.idle()) {
    send();
  }
}

void Session::send() {
  if (phone_.handset.serial.desk_sent_last()) {
    phone_.handset.serial.take_replies();
  }
  if (!shows_journal_ && !phone_.handset.serial.replies().empty()) {
    out_ << "replies that came meanwhile:\n";
    print_replies();
  }
  phone_.last = {bytes_};
  try {
    phone_.send(bytes_);
    start_ = phone_.starts();
    step_ = Step::kReplies;
  } catch (const std::exception& error) {
    out_ << error.what() << "\n";
    end(true);
  }
}

void Session::go_on_with_replies() {
  const bool other = phone_.starts() != start_;  // somebody has started the daemon anew
  const bool ended = other || phone_.down();
  const bool handled = !other && phone_.ready();
  const bool over = handled || (!ended && asleep());  // nobody waits for what begins a sleep
  print_replies();
  if (over || ended) {
    print_journal(bytes_);
  }
  if (over) {
    end(false);
  } else if (ended) {
    end_without_daemon();
  }
}

bool Session::asleep() const {
  return phone_.handset.power.asleep();
}

void Session::end_without_daemon() {
  daemon_ended_ = true;
  out_ << "the daemon has ended; its log ends:\n";
  phone_.finish_dot_line(".log 5", out_);
  end(true);
}

void Session::end(bool failed) {
  phone_.leave_line(this);
  failed_ = failed;
  step_ = Step::kIdle;
}

void Session::rest() const {
  if (step_ == Step::kReplies) {
    phone_.wait_moment();
  } else {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

void Session::look() {
  print_replies();
  print_journal("");
}

// In journal mode they are among the rest.
void Session::print_replies() {
  for (const std::string& reply : phone_.handset.serial.take_replies()) {
    phone_.last.replies.push_back(reply);
    if (!shows_journal_) {
      out_ << "< " << visible(reply) << "\n";
    }
  }
}

void Session::print_journal(const std::string& sent) {
  if (!shows_journal_) {
    return;
  }
  const std::vector<Journal::Entry> entries = phone_.handset.journal.since(journal_seen_);
  journal_seen_ += entries.size();
  for (const Journal::Entry& entry : count_repeats(fold(entries, sent))) {
    out_ << shown(entry) << "\n";
  }
}

}  // namespace handset
