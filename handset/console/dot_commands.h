// The console's commands that look into the phone: lines that begin with a dot. They print on
// standard output.

#pragma once

#include <string>
#include <vector>

#include "handset/handset.h"

struct Console {
  explicit Console(const handset::Handset::Options& options) : phone(options) {}

  handset::Handset phone;
  bool quit = false;  // a person wants to leave
};

// Runs one line; a failure is printed.
void run_dot_command(Console& console, const std::string& line);
std::vector<std::string> dot_command_names();

// Prints the daemon's replies since the last time, a line each.
void print_replies(handset::Handset& phone);
