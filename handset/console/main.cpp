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
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <regex>
#include <set>

#include "handset/console/dot_commands.h"

using namespace handset;

// ---- batch: from the arguments or a pipe

// Sends a command and prints its replies as they come. True when the daemon lives on.
static bool run_command(Console& console, const std::string& line) {
  const int reads = console.phone.serial.reads();
  console.phone.serial.send(line + "\n");
  bool handled = false;
  bool ended = false;
  while (!handled && !ended) {
    ended = console.phone.wait_exit(std::chrono::seconds(0)).has_value();
    handled = console.phone.serial.wait_read_or_reply(reads + 1);
    print_replies(console.phone);
  }
  if (ended && !handled) {
    std::cout << "the daemon has ended; its log ends:\n";
    run_dot_command(console, ".log 5");
    return false;
  }
  return true;
}

static bool run_batch_line(Console& console, const std::string& line) {
  if (line.empty()) {
    return true;
  }
  std::cout << "> " << line << std::endl;
  if (line[0] == '.') {
    run_dot_command(console, line);
    return true;
  }
  return run_command(console, line);
}

// Walks every command of the phone once, with a line of progress for each.
static bool run_demo(Console& console) {
  std::ifstream stream(FTM_DEMO);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty() && line[0] != '#') {
      lines.push_back(line);
    }
  }
  const auto is_command = [](const std::string& line) { return line[0] != '.'; };
  const auto all = std::count_if(lines.begin(), lines.end(), is_command);
  int number = 0;
  for (const std::string& line : lines) {
    if (!is_command(line)) {
      run_dot_command(console, line);
      print_replies(console.phone);
      continue;
    }
    const bool longer = line.size() > 60;
    std::cout << "[" << ++number << "/" << all << "] " << line.substr(0, 60)
              << (longer ? "..." : "") << std::endl;
    if (!run_command(console, line)) {
      return false;
    }
  }
  return true;
}

// ---- terminal

// Every text in the daemon that looks like a command, for completion.
static std::set<std::string> known_commands() {
  std::ifstream stream(FTM_DAEMON, std::ios::binary);
  const std::string binary{std::istreambuf_iterator<char>(stream), {}};
  const std::regex command("AT[+^_][A-Z][A-Z0-9_+^=,a-z]*");
  std::set<std::string> found;
  // Texts between zero bytes, so that the expression never sees the whole binary.
  for (size_t start = 0; start < binary.size();) {
    const size_t end = std::min(binary.find('\0', start), binary.size());
    if (end - start < 64 && end - start > 4 && binary.compare(start, 2, "AT") == 0) {
      const std::string text = binary.substr(start, end - start);
      if (std::regex_match(text, command)) {
        found.insert(text);
      }
    }
    start = end + 1;
  }
  for (const std::string& name : dot_command_names()) {
    found.insert(name);
  }
  return found;
}

static char* complete(const char* text, int state) {
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

static Console* terminal_console;  // readline gives its callback nothing but the line

static void on_line(char* typed) {
  Console& console = *terminal_console;
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
  if (line[0] == '.') {
    run_dot_command(console, line);
  } else {
    console.phone.serial.send(line + "\n");
  }
}

// Prints above the line that is being typed.
static void print_above_prompt(const std::function<void()>& print) {
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

static void run_terminal(Console& console) {
  std::cout << "A simulated handset. Type AT commands; .help lists what else there is.\n";
  run_dot_command(console, ".line");
  terminal_console = &console;
  rl_completion_entry_function = complete;
  rl_completer_word_break_characters = const_cast<char*>(" ");
  rl_callback_handler_install("> ", on_line);
  while (!console.quit) {
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    constexpr int kLook = 20;  // ms between looks for replies
    if (poll(&input, 1, kLook) > 0) {
      rl_callback_read_char();
    }
    if (!console.phone.serial.replies().empty()) {
      print_above_prompt([&console] { print_replies(console.phone); });
    }
    if (!console.quit && console.phone.pid() != 0 &&
        console.phone.wait_exit(std::chrono::seconds(0)).has_value()) {
      print_above_prompt([&console] {
        std::cout << "the daemon has ended; starting it anew (.log shows its last lines)\n";
        console.phone.start();
      });
    }
  }
  rl_callback_handler_remove();
}

constexpr double kDemoTime = 0.1;  // of the daemon's waits: nobody measures them in a demonstration

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  const bool terminal = argc == 1 && isatty(STDIN_FILENO) != 0;
  const bool demo = argc == 2 && strcmp(argv[1], "--demo") == 0;
  std::unique_ptr<Console> console;
  try {
    console = std::make_unique<Console>(Handset::Options{.time_factor = demo ? kDemoTime : 1});
    console->phone.start();
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 2;
  }
  bool alive = true;
  if (demo) {
    alive = run_demo(*console);
  } else if (terminal) {
    run_terminal(*console);
  } else if (argc > 1) {
    for (int i = 1; i < argc && alive && !console->quit; ++i) {
      alive = run_batch_line(*console, argv[i]);
    }
  } else {
    for (std::string line; alive && !console->quit && std::getline(std::cin, line);) {
      alive = run_batch_line(*console, line);
    }
  }
  return alive ? 0 : 1;
}
