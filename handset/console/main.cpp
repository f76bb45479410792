// The handset as a program: a phone for a person at a terminal, for scripts, or for other programs.

#include <signal.h>
#include <unistd.h>

#include <iostream>

#include "handset/console/batch.h"
#include "handset/console/ending.h"
#include "handset/console/options.h"
#include "handset/console/serve.h"
#include "handset/console/started_phone.h"
#include "handset/console/terminal.h"

using namespace handset;

static int run(const Options& options) {
  if (options.serve) {
    return serve(options);
  }
  StartedPhone phone(options, 1);
  if (!phone.wait_ready()) {
    constexpr int kSignal = 128;
    return kSignal + ending();
  }
  if (options.demo) {
    return run_demo(&phone);
  }
  if (!options.lines.empty()) {
    return run_lines(&phone, options.lines);
  }
  return isatty(STDIN_FILENO) != 0 ? run_terminal(&phone) : run_standard_input(&phone);
}

int main(int argc, char** argv) {
  const CommandLine command_line = parse_command_line(argc, argv);
  if (command_line.status.has_value()) {
    return *command_line.status;
  }
  signal(SIGPIPE, SIG_IGN);
  catch_endings();
  try {
    return run(command_line.options);
  } catch (const std::exception& error) {
    std::cerr << "handset: " << error.what() << "\n";
    return 2;
  }
}
