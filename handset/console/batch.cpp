// Lines that nobody types; see batch.h.

#include "handset/console/batch.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <optional>

#include "handset/console/ending.h"
#include "handset/phone_files.h"

namespace handset {

namespace {

class Batch {
 public:
  explicit Batch(StartedPhone* phone)
      : phone_(*phone), session_(&phone->phone, &std::cout, isatty(STDOUT_FILENO) != 0) {}

  // Runs a line. False when it was the last one that can be.
  bool run(const std::string& line) {
    session_.begin(line);
    while (!session_.go_on() && ending() == 0) {
      std::cout.flush();
      phone_.write_journal();
      session_.rest();
    }
    std::cout.flush();
    phone_.write_journal();
    failed_ = failed_ || session_.failed();
    return ending() == 0 && !session_.daemon_ended() && !session_.quit() && std::cout.good();
  }

  // The same with the line itself before it; an empty line and a comment are none.
  bool show_and_run(const std::string& line) {
    if (line.empty() || line[0] == '#') {
      return true;
    }
    std::cout << (line[0] == '>' ? "" : "> ") << line << std::endl;
    return run(line);
  }

  void look() {
    session_.look();
  }

  int status() const {
    constexpr int kSignal = 128;
    if (ending() != 0) {
      return kSignal + ending();
    }
    return failed_ || !std::cout.good() ? 1 : 0;
  }

 private:
  StartedPhone& phone_;
  Session session_;
  bool failed_ = false;
};

// Standard input line by line, until its end or a signal.
class InputLines {
 public:
  std::optional<std::string> next() {
    for (;;) {
      const size_t end = bytes_.find('\n');
      if (end != std::string::npos || (at_end_ && !bytes_.empty())) {
        std::string line = bytes_.substr(0, end);
        bytes_.erase(0, end == std::string::npos ? end : end + 1);
        return line;
      }
      if (at_end_ || !read_more()) {
        return std::nullopt;
      }
    }
  }

 private:
  // False when a signal came.
  bool read_more() {
    pollfd waiting[] = {{STDIN_FILENO, POLLIN, 0}, {ending_descriptor(), POLLIN, 0}};
    poll(waiting, 2, -1);
    if (ending() != 0) {
      return false;
    }
    char part[4096];
    const ssize_t count = read(STDIN_FILENO, part, sizeof(part));
    at_end_ = count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN);
    bytes_.append(part, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return true;
  }

  std::string bytes_;
  bool at_end_ = false;
};

}  // namespace

int run_lines(StartedPhone* phone, const std::vector<std::string>& lines) {
  Batch batch(phone);
  std::all_of(lines.begin(), lines.end(),
              [&](const std::string& line) { return batch.show_and_run(line); });
  return batch.status();
}

int run_standard_input(StartedPhone* phone) {
  Batch batch(phone);
  InputLines input;
  for (auto line = input.next(); line.has_value() && batch.show_and_run(*line);
       line = input.next()) {
  }
  return batch.status();
}

std::vector<std::string> demo_lines() {
  std::ifstream stream(phone_file("demo.txt"));
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty() && line[0] != '#') {
      lines.push_back(line);
    }
  }
  return lines;
}

// A line of progress for each command.
int run_demo(StartedPhone* phone) {
  constexpr size_t kWidth = 60;
  Batch batch(phone);
  const std::vector<std::string> lines = demo_lines();
  const auto is_command = [](const std::string& line) { return line[0] != '.'; };
  const auto all = std::count_if(lines.begin(), lines.end(), is_command);
  const auto start = std::chrono::steady_clock::now();
  int number = 0;
  for (const std::string& line : lines) {
    if (is_command(line)) {
      std::cout << "[" << ++number << "/" << all << "] " << line.substr(0, kWidth)
                << (line.size() > kWidth ? "..." : "") << std::endl;
    }
    if (!batch.run(line)) {
      break;
    }
    if (!is_command(line)) {
      batch.look();
    }
  }
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
  printf("%d of %d commands in %.1f s\n", number, static_cast<int>(all), time.count());
  return batch.status();
}

}  // namespace handset
