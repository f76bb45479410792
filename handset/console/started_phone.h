// A phone as the options describe it, with what the program keeps for it on the desk: the link to
// its line and the file of its journal.

#pragma once

#include <fstream>
#include <optional>
#include <string>

#include "handset/console/claimed_path.h"
#include "handset/console/options.h"
#include "handset/console/session.h"

namespace handset {

class StartedPhone {
 public:
  // Makes the phone of this number, from 1, and starts its daemon without waiting for it. Throws
  // std::exception with one line that says what is wrong.
  StartedPhone(const Options& options, int number);

  // Waits until the daemon waits for its first line. False when a signal came first. Throws
  // std::runtime_error when the daemon does not come up.
  bool wait_ready();

  // Where a serial program opens the line: the link, or the tty itself.
  const std::string& line() const {
    return line_;
  }

  // Writes what the daemon has done since the last time to the journal's file.
  void write_journal();

  SharedPhone phone;

 private:
  void run_option(const std::string& dot_line);

  std::string line_;
  std::optional<TtyLink> link_;
  std::string journal_path_;
  std::ofstream journal_;
  size_t journal_written_ = 0;
};

}  // namespace handset
