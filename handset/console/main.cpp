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
#include <iostream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "handset/console/visible.h"
#include "handset/handset.h"
#include "handset/models/partitions.h"

using namespace handset;

using Words = std::vector<std::string>;

static std::unique_ptr<Handset> phone;
static bool quit = false;

static void print_replies() {
  for (const std::string& reply : phone->serial.take_replies()) {
    std::cout << "< " << visible(reply) << std::endl;
  }
}

// ---- dot commands
// --------------------------------------------------------------------------------

static void show_node(const Words& words) {
  const std::string& path = words[1];
  if (words.size() > 2) {
    std::string value = words[2];
    for (size_t i = 3; i < words.size(); ++i) {
      value += " " + words[i];
    }
    phone->nodes.set(path, value + "\n");
  } else if (const auto value = phone->nodes.value(path); value.has_value()) {
    std::cout << visible(*value) << "\n";
  } else {
    std::cout << "no such node; the nodes below it:\n";
    for (const std::string& node : phone->nodes.paths()) {
      if (node.compare(0, path.size(), path) == 0) {
        std::cout << "  " << node << "\n";
      }
    }
  }
}

static void remove_node(const Words& words) {
  phone->nodes.remove(words[1]);
}

static void fail_node(const Words& words) {
  const std::string what = words.size() > 2 ? words[2] : "write";
  using Operation = Nodes::Operation;
  const std::vector<std::pair<std::string, Operation>> operations = {
      {"open", Operation::kOpen}, {"read", Operation::kRead}, {"write", Operation::kWrite}};
  for (const auto& [name, operation] : operations) {
    if (what == name) {
      phone->nodes.fail(words[1], operation, EIO);
    } else if (what == "nothing") {
      phone->nodes.fail(words[1], operation, 0);
    }
  }
}

static void show_writes(const Words&) {
  for (const Nodes::Write& write : phone->nodes.take_writes()) {
    std::cout << write.path << "  " << visible(write.bytes) << "\n";
  }
}

static void show_waits(const Words&) {
  for (const auto wait : phone->clock.take_waits()) {
    std::cout << static_cast<double>(wait.count()) / 1000 << " ms\n";
  }
}

static void show_modules(const Words& words) {
  if (words.size() > 2) {
    phone->modules.fail(words[1], EAGAIN, atoi(words[2].c_str()));
    return;
  }
  for (const KernelModules::Call& call : phone->modules.calls()) {
    std::cout << call.what << " " << call.name << "\n";
  }
}

static void show_programs(const Words&) {
  for (const std::string& call : phone->program_calls()) {
    std::cout << call << "\n";
  }
}

static void show_property(const Words& words) {
  if (words.size() > 2) {
    phone->set_property(words[1], words[2]);
  } else {
    std::cout << phone->property(words[1]).value_or("(not set)") << "\n";
  }
}

static void show_mixer(const Words& words) {
  if (words.size() > 1) {
    std::string name = words[1];
    for (size_t i = 2; i < words.size(); ++i) {
      name += " " + words[i];
    }
    const std::string control = phone->sound.show(name);
    std::cout << (control.empty() ? "no such control" : control) << "\n";
    return;
  }
  for (const std::string& write : phone->sound.take_writes()) {
    std::cout << write << "\n";
  }
}

static void set_mixer(const Words& words) {
  std::string name = words[2];
  for (size_t i = 3; i < words.size(); ++i) {
    name += " " + words[i];
  }
  phone->sound.set(name, words[1]);
}

static void switch_party(const Words& words) {
  phone->tone_party.set_answering(words[1] != "off");
}

static void wait_for_replies(const Words& words) {
  phone->serial.wait_replies(1, std::chrono::seconds(std::stol(words[1])));
  print_replies();
}

static void save_panel(const Words& words) {
  const Picture picture = phone->display.picture();
  if (!picture.write_png(words[1])) {
    std::cout << "cannot write " << words[1] << "\n";
  } else {
    std::cout << picture.width << " x " << picture.height << " pixels in " << words[1] << "\n";
  }
}

static void press_keys(const Words& words) {
  for (size_t i = 1; i < words.size(); ++i) {
    if (!phone->press_key(words[i])) {
      std::cout << "power, volup and voldown are the keys\n";
    }
  }
}

static void put_record(const Words& words) {
  const std::filesystem::path image = phone->path("/dev/block/by-name/norvareserve1");
  const std::string value = words.size() > 2 ? words[2] : "";
  if (words[1] == "pcba") {
    put_pcba_record(image, value);
  } else if (words[1] == "download") {
    put_download_marks(image, value.empty() ? "" : "download start",
                       value == "over" ? "download over" : "");
  } else {
    std::cout << "pcba and download are the records that can be put\n";
  }
}

static void show_sensors(const Words& words) {
  if (words.size() > 2) {
    std::vector<float> values;
    for (size_t i = 2; i < words.size(); ++i) {
      values.push_back(strtof(words[i].c_str(), nullptr));
    }
    if (!phone->sensors.set_values(words[1], values)) {
      std::cout << "no such sensor; .sensor lists them\n";
    }
    return;
  }
  for (const SensorHub::Sensor& sensor : phone->sensors.sensors()) {
    std::cout << sensor.name << " (" << sensor.data_type << ")";
    for (const float value : sensor.values) {
      std::cout << " " << value;
    }
    std::cout << "\n";
  }
}

static void set_hub(const Words& words) {
  struct HubState {
    const char* name;
    SensorHub::State hub;
    HubService::State service;
  };
  using Hub = SensorHub::State;
  using Service = HubService::State;
  static constexpr HubState kStates[] = {{"healthy", Hub::kHealthy, Service::kOpen},
                                         {"silent", Hub::kSilent, Service::kOpen},
                                         {"garbage", Hub::kGarbage, Service::kOpen},
                                         {"refusing", Hub::kHealthy, Service::kRefusing},
                                         {"absent", Hub::kHealthy, Service::kAbsent}};
  for (const HubState& state : kStates) {
    if (words[1] == state.name) {
      phone->sensors.set_state(state.hub);
      phone->hub_service.set_state(state.service);
      return;
    }
  }
  phone->hub_service.set_delay(std::chrono::milliseconds(atoi(words[1].c_str())));
}

static void show_log(const Words& words) {
  std::istringstream stream(phone->log());
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty()) {  // most lines bring a line feed of their own
      lines.push_back(line);
    }
  }
  const size_t wanted = words.size() > 1 ? std::stoul(words[1]) : 20;
  for (size_t i = lines.size() - std::min(wanted, lines.size()); i < lines.size(); ++i) {
    std::cout << lines[i] << "\n";
  }
}

static void show_power(const Words&) {
  const PowerInterfaces& power = phone->power;
  std::cout << (power.asleep() ? "asleep" : "awake") << ", suspended " << power.suspends()
            << " times, alarm " << (power.alarm_pending() ? "pending" : "not pending")
            << ", wake locks:";
  for (const std::string& name : power.wake_locks()) {
    std::cout << " " << name;
  }
  std::cout << "\n";
}

static void fire_alarm(const Words&) {
  // A command just answered gets a moment to arm the alarm and to let the phone sleep.
  constexpr std::chrono::seconds kMoment(1);
  phone->power.wait_asleep(kMoment);
  if (!phone->power.fire_alarm(kMoment)) {
    std::cout << "no alarm is pending\n";
  }
}

static void wake(const Words&) {
  phone->power.wakeup_event();
}

static void show_file(const Words& words) {
  const std::filesystem::path path = phone->path(words[1]);
  if (std::filesystem::is_directory(path)) {
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
      std::cout << "  " << entry.path().filename().string() << "\n";
    }
  } else {
    std::cout << phone->read_file(words[1]).value_or("no such file\n");
  }
}

static void pause(const Words& words) {
  std::this_thread::sleep_for(std::chrono::milliseconds(atoi(words[1].c_str())));
}

static void show_line(const Words&) {
  std::cout << "serial line: " << phone->serial.desk_tty() << "\n"
            << "the phone's files: " << phone->path("/").string() << "\n";
}

static void restart(const Words&) {
  phone->start();
}

static void leave(const Words&) {
  quit = true;
}

static void help(const Words&);

struct DotCommand {
  const char* name;
  const char* arguments;
  const char* meaning;
  size_t least_words;
  void (*run)(const Words&);
};

static const DotCommand kDotCommands[] = {
    {".help", "", "this list", 1, help},
    {".node", "PATH [VALUE]", "show a kernel node, or set it (a line feed is added)", 2, show_node},
    {".remove", "PATH", "take a node away", 2, remove_node},
    {".refuse", "PATH [open|read|write|nothing]", "make a node fail with EIO", 2, fail_node},
    {".writes", "", "node writes since the last look, in order", 1, show_writes},
    {".waits", "", "the daemon's waits since the last look", 1, show_waits},
    {".modules", "[NAME TIMES]", "kernel module calls; or keep a module busy for TIMES unloads", 1,
     show_modules},
    {".programs", "", "calls of the phone's shell programs", 1, show_programs},
    {".prop", "NAME [VALUE]", "show or set a system property", 2, show_property},
    {".key", "power|volup|voldown ...", "press keys, now or as soon as AT+KEY listens", 2,
     press_keys},
    {".mixer", "[CONTROL]", "mixer writes since the last look, in order; or a control's values", 1,
     show_mixer},
    {".mixerset", "VALUE CONTROL", "set a control's first value: a number or an item", 3,
     set_mixer},
    {".party", "on|off", "whether \"cmd_off\" of the test tone is answered with \"cmd_finish\"", 2,
     switch_party},
    {".wait", "SECONDS", "wait for a reply that comes after its command, that long at most", 2,
     wait_for_replies},
    {".panel", "FILE.png", "what the panel shows, as a picture", 2, save_panel},
    {".record", "pcba [NUMBER] | download [start|over]", "put a record on the reserve partition", 2,
     put_record},
    {".power", "", "asleep or awake, the alarm, the wake locks", 1, show_power},
    {".alarm", "", "let the RTC's alarm wake the phone now", 1, fire_alarm},
    {".wake", "", "wake the phone by an event from outside", 1, wake},
    {".file", "PATH", "show a file of the phone, or what a folder holds", 2, show_file},
    {".pause", "MS", "wait, as a script between commands", 2, pause},
    {".sensor", "[NAME VALUE...]", "the sensors, or what one of them measures", 1, show_sensors},
    {".hub", "healthy|silent|garbage|refusing|absent|MS",
     "how the sensor hub is, or how long each of its answers takes", 2, set_hub},
    {".log", "[LINES]", "the end of the daemon's log", 1, show_log},
    {".line", "", "where another serial program attaches", 1, show_line},
    {".restart", "", "start the daemon anew", 1, restart},
    {".quit", "", "leave", 1, leave},
};

static void help(const Words&) {
  std::cout << "A line is sent to the phone as it is, with \\n behind it: AT+EDFT=6,1\n";
  for (const DotCommand& command : kDotCommands) {
    std::string usage = command.name;
    usage += std::string(" ") + command.arguments;
    usage.resize(std::max<size_t>(usage.size(), 40), ' ');
    std::cout << "  " << usage << " " << command.meaning << "\n";
  }
}

static void run_dot_command(const std::string& line) {
  std::istringstream stream(line);
  const Words words{std::istream_iterator<std::string>(stream), {}};
  const auto* command = std::find_if(std::begin(kDotCommands), std::end(kDotCommands),
                                     [&](const DotCommand& c) { return words[0] == c.name; });
  if (command == std::end(kDotCommands)) {
    std::cout << "no such command; .help lists them\n";
  } else if (words.size() < command->least_words) {
    std::cout << "usage: " << command->name << " " << command->arguments << "\n";
  } else {
    try {
      command->run(words);
    } catch (const std::exception& error) {
      std::cout << error.what() << "\n";
    }
  }
}

// ---- batch: from the arguments or a pipe
// -----------------------------------------------------------

// Sends a command and prints its replies as they come. True when the daemon lives on.
static bool run_command(const std::string& line) {
  const int reads = phone->serial.reads();
  phone->serial.send(line + "\n");
  bool handled = false;
  bool ended = false;
  while (!handled && !ended) {
    ended = phone->wait_exit(std::chrono::seconds(0)).has_value();
    handled = phone->serial.wait_read_or_reply(reads + 1);
    print_replies();
  }
  if (ended && !handled) {
    std::cout << "the daemon has ended; its log ends:\n";
    show_log({".log", "5"});
    return false;
  }
  return true;
}

static bool run_batch_line(const std::string& line) {
  if (line.empty()) {
    return true;
  }
  std::cout << "> " << line << std::endl;
  if (line[0] == '.') {
    run_dot_command(line);
    return true;
  }
  return run_command(line);
}

// Walks every command of the phone once, with a line of progress for each.
static bool run_demo() {
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
      run_dot_command(line);
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
// ----------------------------------------------------------------------------------------

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
  for (const DotCommand& dot : kDotCommands) {
    found.insert(dot.name);
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

static void on_line(char* typed) {
  if (typed == nullptr) {
    std::cout << std::endl;
    quit = true;
    return;
  }
  const std::string line = typed;
  free(typed);
  if (line.empty()) {
    return;
  }
  add_history(line.c_str());
  if (line[0] == '.') {
    run_dot_command(line);
  } else {
    phone->serial.send(line + "\n");
  }
}

// Prints above the line that is being typed.
static void print_above_prompt(void (*print)()) {
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

static void run_terminal() {
  std::cout << "A simulated handset. Type AT commands; .help lists what else there is.\n";
  show_line({});
  rl_completion_entry_function = complete;
  rl_completer_word_break_characters = const_cast<char*>(" ");
  rl_callback_handler_install("> ", on_line);
  while (!quit) {
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    constexpr int kLook = 20;  // ms between looks for replies
    if (poll(&input, 1, kLook) > 0) {
      rl_callback_read_char();
    }
    if (!phone->serial.replies().empty()) {
      print_above_prompt(print_replies);
    }
    if (!quit && phone->pid() != 0 && phone->wait_exit(std::chrono::seconds(0)).has_value()) {
      print_above_prompt([] {
        std::cout << "the daemon has ended; starting it anew (.log shows its last lines)\n";
        phone->start();
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
  try {
    phone = std::make_unique<Handset>(Handset::Options{.time_factor = demo ? kDemoTime : 1});
    phone->start();
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
    for (int i = 1; i < argc && alive && !quit; ++i) {
      alive = run_batch_line(argv[i]);
    }
  } else {
    for (std::string line; alive && !quit && std::getline(std::cin, line);) {
      alive = run_batch_line(line);
    }
  }
  phone.reset();
  return alive ? 0 : 1;
}
