// From options to a phone; see started_phone.h.

#include "handset/console/started_phone.h"

#include <errno.h>
#include <string.h>

#include <chrono>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "handset/console/ending.h"

namespace handset {

// Empties the file, so that it holds what this run brings.
static std::ofstream open_output(const std::string& path) {
  std::ofstream stream(path);
  if (!stream) {
    throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
  }
  return stream;
}

static Handset::Options handset_options(const Options& options, int number) {
  constexpr double kDemoWaits = 0.1;  // nobody measures them in a demonstration
  Handset::Options made = {.time_factor = options.waits.value_or(options.demo ? kDemoWaits : 1)};
  if (!options.daemon.empty()) {
    made.daemon = std::filesystem::absolute(options.daemon);
  }
  if (!options.log.empty()) {
    made.log = std::filesystem::absolute(numbered(options.log, number));
    open_output(made.log);
  }
  return made;
}

StartedPhone::StartedPhone(const Options& options, int number)
    : phone(handset_options(options, number)), line_(phone.handset.serial.desk_tty()) {
  if (!options.journal.empty()) {
    journal_path_ = numbered(options.journal, number);
    journal_ = open_output(journal_path_);
  }
  if (!options.tty.empty()) {
    run_option(".tty " + options.tty +
               (options.speed > 0 ? " " + std::to_string(options.speed) : ""));
  }
  if (!options.profile.empty()) {
    run_option(".broken " + options.profile);
  }
  if (!options.line.empty()) {
    line_ = numbered(options.line, number);
    link_.emplace(line_, phone.handset.serial.desk_tty());
  }
  phone.start();
}

void StartedPhone::run_option(const std::string& dot_line) {
  std::ostringstream out;
  if (!phone.finish_dot_line(dot_line, out)) {
    std::string why = out.str();
    while (why.ends_with('\n')) {
      why.pop_back();
    }
    throw std::runtime_error(why);
  }
}

bool StartedPhone::wait_ready() {
  constexpr std::chrono::seconds kPatience(60);
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!phone.ready()) {
    if (ending() != 0) {
      return false;
    }
    if (phone.down() || std::chrono::steady_clock::now() > end) {
      throw std::runtime_error("the daemon did not come up; its log ends:\n" + phone.handset.log());
    }
    phone.wait_moment();
  }
  return true;
}

void StartedPhone::write_journal() {
  if (!journal_.is_open() || !journal_) {
    return;
  }
  for (const Journal::Entry& entry : phone.handset.journal.since(journal_written_)) {
    journal_ << shown(entry) << "\n";
    ++journal_written_;
  }
  if (!journal_.flush()) {
    std::cerr << "handset: cannot write " << journal_path_ << ": " << strerror(errno)
              << "; it ends here\n";
  }
}

}  // namespace handset
