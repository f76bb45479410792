// Typing and printing at once; see terminal.h.

#include "handset/console/terminal.h"

#include <poll.h>
#include <readline/history.h>
#include <readline/readline.h>
#include <string.h>
#include <unistd.h>

#include <deque>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "handset/console/command_table.h"
#include "handset/console/dot_commands.h"
#include "handset/console/ending.h"

namespace handset {

namespace {

// Readline's functions are given no state of ours.
struct Typing {
  std::deque<std::string> lines = {};  // not begun yet
  bool over = false;
};
Typing typing;

// What can be typed.
std::set<std::string> known_commands() {
  const std::vector<std::string> commands = command_table().texts();
  std::set<std::string> known(commands.begin(), commands.end());
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
    typing.over = true;
    return;
  }
  const std::string line = typed;
  free(typed);
  if (!line.empty()) {
    add_history(line.c_str());
    typing.lines.push_back(line);
  }
}

void print_above_prompt(const std::string& text) {
  char* typed = rl_copy_text(0, rl_end);
  const int point = rl_point;
  rl_save_prompt();
  rl_replace_line("", 0);
  rl_redisplay();
  std::cout << text << std::flush;
  rl_restore_prompt();
  rl_replace_line(typed, 0);
  rl_point = point;
  rl_on_new_line();
  rl_redisplay();
  free(typed);
}

class Terminal {
 public:
  explicit Terminal(StartedPhone* phone)
      : phone_(*phone),
        lines_(&phone->phone, &out_, kColours),
        dots_(&phone->phone, &out_, kColours) {}

  void go_on() {
    lines_.go_on();
    dots_.go_on();
    begin_typed();
    if (lines_.idle()) {
      lines_.look();
    }
    if (const std::string said = phone_.phone.keep_running(); !said.empty()) {
      out_ << said << "\n";
    }
    phone_.write_journal();
    if (!out_.str().empty()) {
      print_above_prompt(out_.str());
      out_.str("");
    }
  }

  bool quit() const {
    return lines_.quit();
  }

 private:
  // A dot line is begun at once, as a key is pressed while AT+KEY waits; those that are about the
  // other lines wait for their turn as these do.
  void begin_typed() {
    while (!typing.lines.empty() && !lines_.quit()) {
      const std::string& line = typing.lines.front();
      const bool at_once = line[0] == '.' && !line.starts_with(".quit") &&
                           !line.starts_with(".journal o") && !line.starts_with(".explain");
      Session& session = at_once ? dots_ : lines_;
      if (!session.idle()) {
        return;
      }
      session.begin(line);
      typing.lines.pop_front();
      session.go_on();
    }
  }

  static constexpr bool kColours = true;

  StartedPhone& phone_;
  std::ostringstream out_;
  Session lines_;
  Session dots_;
};

}  // namespace

int run_terminal(StartedPhone* phone) {
  std::cout << "A simulated handset. Type AT commands; .help lists what else there is.\n"
            << "serial line: " << phone->line() << std::endl;
  Terminal terminal(phone);
  rl_completion_entry_function = complete;
  rl_completer_word_break_characters = const_cast<char*>(" ");
  rl_catch_signals = 0;
  rl_callback_handler_install("> ", on_line);
  while (!typing.over && !terminal.quit() && ending() == 0) {
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    constexpr int kLook = 20;  // ms between looks for what has come
    if (poll(&input, 1, kLook) > 0) {
      rl_callback_read_char();
    }
    terminal.go_on();
  }
  rl_callback_handler_remove();
  return 0;
}

}  // namespace handset
