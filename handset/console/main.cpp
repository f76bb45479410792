// The handset as a program for a person: types AT commands and shows the replies, and looks into
// the phone with dot commands. Commands come from the arguments, from a pipe, or from a terminal.

#include <poll.h>
#include <readline/history.h>
#include <readline/readline.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "handset/console/dot_commands.h"
#include "handset/handset.h"
#include "handset/visible.h"

using namespace handset;

namespace {

struct Console {
  std::unique_ptr<Handset> phone;
  bool quit = false;
  bool shows_journal = false;  // with each command all that it brings about, not its replies alone
  bool failed = false;         // a line was none that could be carried out
  std::deque<std::string> typed = {};  // at the terminal, not yet sent or done
  int awaited_reads = 0;               // of the daemon, by which the last sent line is handled
};

Console console;

void print_replies() {
  for (const std::string& reply : console.phone->serial.take_replies()) {
    std::cout << "< " << visible(reply) << std::endl;
  }
}

void print_journal(const std::string& sent) {
  for (const Journal::Entry& entry : count_repeats(fold(console.phone->journal.take(), sent))) {
    std::cout << shown(entry) << std::endl;
  }
}

// What only the console has, then what every script has.
void run_dot_line(const std::string& line) {
  if (line == ".quit") {
    console.quit = true;
  } else if (line == ".journal on" || line == ".journal off") {
    console.shows_journal = line == ".journal on";
    console.phone->journal.take();
  } else if (!run_dot_command(console.phone.get(), line, std::cout)) {
    console.failed = true;
  }
}

// ---- batch: from the arguments or a pipe

// Sends a command and prints its replies as they come. True when the daemon lives on.
bool run_command(const std::string& line) {
  Handset& phone = *console.phone;
  const int reads = phone.serial.reads();
  const std::string sent = sent_bytes(line);
  if (!console.shows_journal && !phone.serial.replies().empty()) {
    std::cout << "replies that came meanwhile:" << std::endl;
    print_replies();
  }
  phone.serial.send(sent);
  bool handled = false;
  bool ended = false;
  while (!handled && !ended) {
    ended = phone.wait_exit(std::chrono::seconds(0)).has_value();
    handled = phone.serial.wait_read_or_reply(reads + 1);
    if (!console.shows_journal) {
      print_replies();
    }
  }
  if (console.shows_journal) {
    phone.serial.take_replies();
    print_journal(sent);
  }
  if (ended && !handled) {
    std::cout << "the daemon has ended; its log ends:\n";
    run_dot_line(".log 5");
    return false;
  }
  return true;
}

bool run_batch_line(const std::string& line) {
  if (line.empty() || line[0] == '#') {
    return true;
  }
  std::cout << (line[0] == '>' ? "" : "> ") << line << std::endl;
  if (line[0] == '.') {
    run_dot_line(line);
    return true;
  }
  return run_command(line);
}

// Every command of the phone, and the dot commands that some need beforehand.
std::vector<std::string> demo_lines() {
  std::ifstream stream(FTM_DEMO);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty() && line[0] != '#') {
      lines.push_back(line);
    }
  }
  return lines;
}

// Walks every command of the phone once, with a line of progress for each.
bool run_demo() {
  const std::vector<std::string> lines = demo_lines();
  const auto is_command = [](const std::string& line) { return line[0] != '.'; };
  const auto all = std::count_if(lines.begin(), lines.end(), is_command);
  int number = 0;
  for (const std::string& line : lines) {
    if (!is_command(line)) {
      run_dot_line(line);
      print_replies();
      continue;
    }
    const bool longer = line.size() > 60;
    std::cout << "[" << ++number << "/" << all << "] " << line.substr(0, 60)
              << (longer ? "..." : "") << std::endl;
    if (!run_command(line)) {
      return false;
    }
  }
  return true;
}

// ---- terminal

void start_phone() {
  Handset::StartOptions options;
  options.faults = true;
  console.phone->start(options);
}

// What can be typed: the commands of the demonstration, which has them all, and the dot commands.
std::set<std::string> known_commands() {
  const std::vector<std::string> demo = demo_lines();
  std::set<std::string> known(demo.begin(), demo.end());
  for (const std::string& name : dot_command_names()) {
    known.insert(name);
  }
  return known;
}

char* complete(const char* text, int state) {
  static const std::set<std::string> commands = known_commands();
  static std::set<std::string>::const_iterator next;
  if (state == 0) {
    next = commands.begin();
  }
  for (; next != commands.end(); ++next) {
    if (strncasecmp(next->c_str(), text, strlen(text)) == 0) {
      return strdup((next++)->c_str());
    }
  }
  return nullptr;
}

void on_line(char* typed) {
  if (typed == nullptr) {
    std::cout << std::endl;
    console.quit = true;
    return;
  }
  const std::string line = typed;
  free(typed);
  if (line.empty()) {
    return;
  }
  add_history(line.c_str());
  console.typed.push_back(line);
}

// Does what has been typed, but sends no line before the last one has been handled: the daemon
// takes what has come by its next read for one command.
void do_typed() {
  SerialLine& serial = console.phone->serial;
  while (!console.typed.empty() && !console.quit) {
    const std::string line = console.typed.front();
    const bool at_once = line[0] == '.' && line != ".quit";  // a key is pressed while AT+KEY waits
    if (!at_once && serial.reads() < console.awaited_reads) {
      return;
    }
    console.typed.pop_front();
    if (line[0] == '.') {
      run_dot_line(line);
      continue;
    }
    try {
      const std::string bytes = sent_bytes(line);
      console.awaited_reads = serial.reads() + 1;
      serial.send(bytes);
    } catch (const std::exception& error) {
      std::cout << error.what() << "\n";
    }
  }
}

// Prints above the line that is being typed.
void print_above_prompt(void (*print)()) {
  char* typed = rl_copy_text(0, rl_end);
  const int point = rl_point;
  rl_save_prompt();
  rl_replace_line("", 0);
  rl_redisplay();
  print();
  rl_restore_prompt();
  rl_replace_line(typed, 0);
  rl_point = point;
  rl_on_new_line();
  rl_redisplay();
  free(typed);
}

void run_terminal() {
  std::cout << "A simulated handset. Type AT commands; .help lists what else there is.\n";
  run_dot_line(".line");
  rl_completion_entry_function = complete;
  rl_completer_word_break_characters = const_cast<char*>(" ");
  rl_callback_handler_install("> ", on_line);
  while (!console.quit) {
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    constexpr int kLook = 20;  // ms between looks for replies
    if (poll(&input, 1, kLook) > 0) {
      rl_callback_read_char();
    }
    do_typed();
    if (!console.phone->serial.replies().empty()) {
      print_above_prompt([] {
        print_replies();
        if (console.shows_journal) {
          print_journal("");
        }
      });
    }
    if (!console.quit && console.phone->pid() != 0 &&
        console.phone->wait_exit(std::chrono::seconds(0)).has_value()) {
      print_above_prompt([] {
        std::cout << "the daemon has ended; starting it anew (.log shows its last lines)\n";
        start_phone();
        console.awaited_reads = 0;
      });
    }
  }
  rl_callback_handler_remove();
}

}  // namespace

constexpr double kDemoTime = 0.1;  // of the daemon's waits: nobody measures them in a demonstration

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  const bool terminal = argc == 1 && isatty(STDIN_FILENO) != 0;
  const bool demo = argc == 2 && strcmp(argv[1], "--demo") == 0;
  try {
    console.phone =
        std::make_unique<Handset>(Handset::Options{.time_factor = demo ? kDemoTime : 1});
    start_phone();
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 2;
  }
  bool alive = true;
  if (demo) {
    alive = run_demo();
  } else if (terminal) {
    run_terminal();
  } else if (argc > 1) {
    for (int i = 1; i < argc && alive && !console.quit; ++i) {
      alive = run_batch_line(argv[i]);
    }
  } else {
    for (std::string line; alive && !console.quit && std::getline(std::cin, line);) {
      alive = run_batch_line(line);
    }
  }
  console.phone.reset();
  return alive && !console.failed ? 0 : 1;
}
