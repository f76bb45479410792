// The table of dot commands and what each does; see dot_commands.h.

#include "handset/console/dot_commands.h"

#include <errno.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <sstream>
#include <thread>
#include <utility>

#include "handset/console/visible.h"
#include "handset/models/partitions.h"

using namespace handset;

using Words = std::vector<std::string>;

void print_replies(Handset& phone) {
  for (const std::string& reply : phone.serial.take_replies()) {
    std::cout << "< " << visible(reply) << std::endl;
  }
}

static void show_node(Console& console, const Words& words) {
  const std::string& path = words[1];
  if (words.size() > 2) {
    std::string value = words[2];
    for (size_t i = 3; i < words.size(); ++i) {
      value += " " + words[i];
    }
    console.phone.nodes.set(path, value + "\n");
  } else if (const auto value = console.phone.nodes.value(path); value.has_value()) {
    std::cout << visible(*value) << "\n";
  } else {
    std::cout << "no such node; the nodes below it:\n";
    for (const std::string& node : console.phone.nodes.paths()) {
      if (node.compare(0, path.size(), path) == 0) {
        std::cout << "  " << node << "\n";
      }
    }
  }
}

static void remove_node(Console& console, const Words& words) {
  console.phone.nodes.remove(words[1]);
}

static void fail_node(Console& console, const Words& words) {
  const std::string what = words.size() > 2 ? words[2] : "write";
  using Operation = Nodes::Operation;
  const std::vector<std::pair<std::string, Operation>> operations = {
      {"open", Operation::kOpen}, {"read", Operation::kRead}, {"write", Operation::kWrite}};
  for (const auto& [name, operation] : operations) {
    if (what == name) {
      console.phone.nodes.fail(words[1], operation, EIO);
    } else if (what == "nothing") {
      console.phone.nodes.fail(words[1], operation, 0);
    }
  }
}

static void show_writes(Console& console, const Words&) {
  for (const Nodes::Write& write : console.phone.nodes.take_writes()) {
    std::cout << write.path << "  " << visible(write.bytes) << "\n";
  }
}

static void show_waits(Console& console, const Words&) {
  for (const auto wait : console.phone.clock.take_waits()) {
    std::cout << static_cast<double>(wait.count()) / 1000 << " ms\n";
  }
}

static void show_modules(Console& console, const Words& words) {
  if (words.size() > 2) {
    console.phone.modules.fail(words[1], EAGAIN, atoi(words[2].c_str()));
    return;
  }
  for (const KernelModules::Call& call : console.phone.modules.calls()) {
    std::cout << call.what << " " << call.name << "\n";
  }
}

static void show_programs(Console& console, const Words&) {
  for (const std::string& call : console.phone.program_calls()) {
    std::cout << call << "\n";
  }
}

static void show_property(Console& console, const Words& words) {
  if (words.size() > 2) {
    console.phone.set_property(words[1], words[2]);
  } else {
    std::cout << console.phone.property(words[1]).value_or("(not set)") << "\n";
  }
}

static void show_mixer(Console& console, const Words& words) {
  if (words.size() > 1) {
    std::string name = words[1];
    for (size_t i = 2; i < words.size(); ++i) {
      name += " " + words[i];
    }
    const std::string control = console.phone.sound.show(name);
    std::cout << (control.empty() ? "no such control" : control) << "\n";
    return;
  }
  for (const std::string& write : console.phone.sound.take_writes()) {
    std::cout << write << "\n";
  }
}

static void set_mixer(Console& console, const Words& words) {
  std::string name = words[2];
  for (size_t i = 3; i < words.size(); ++i) {
    name += " " + words[i];
  }
  console.phone.sound.set(name, words[1]);
}

static void switch_party(Console& console, const Words& words) {
  console.phone.tone_party.set_answering(words[1] != "off");
}

static void wait_for_replies(Console& console, const Words& words) {
  console.phone.serial.wait_replies(1, std::chrono::seconds(std::stol(words[1])));
  print_replies(console.phone);
}

static void save_panel(Console& console, const Words& words) {
  const Picture picture = console.phone.display.picture();
  if (!picture.write_png(words[1])) {
    std::cout << "cannot write " << words[1] << "\n";
  } else {
    std::cout << picture.width << " x " << picture.height << " pixels in " << words[1] << "\n";
  }
}

static void press_keys(Console& console, const Words& words) {
  for (size_t i = 1; i < words.size(); ++i) {
    if (!console.phone.press_key(words[i])) {
      std::cout << "power, volup and voldown are the keys\n";
    }
  }
}

static void put_record(Console& console, const Words& words) {
  const std::filesystem::path image = console.phone.path("/dev/block/by-name/norvareserve1");
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

static void show_sensors(Console& console, const Words& words) {
  if (words.size() > 2) {
    std::vector<float> values;
    for (size_t i = 2; i < words.size(); ++i) {
      values.push_back(strtof(words[i].c_str(), nullptr));
    }
    if (!console.phone.sensors.set_values(words[1], values)) {
      std::cout << "no such sensor; .sensor lists them\n";
    }
    return;
  }
  for (const SensorHub::Sensor& sensor : console.phone.sensors.sensors()) {
    std::cout << sensor.name << " (" << sensor.data_type << ")";
    for (const float value : sensor.values) {
      std::cout << " " << value;
    }
    std::cout << "\n";
  }
}

static void set_hub(Console& console, const Words& words) {
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
      console.phone.sensors.set_state(state.hub);
      console.phone.hub_service.set_state(state.service);
      return;
    }
  }
  console.phone.hub_service.set_delay(std::chrono::milliseconds(atoi(words[1].c_str())));
}

static void show_log(Console& console, const Words& words) {
  std::istringstream stream(console.phone.log());
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

static void show_power(Console& console, const Words&) {
  const PowerInterfaces& power = console.phone.power;
  std::cout << (power.asleep() ? "asleep" : "awake") << ", suspended " << power.suspends()
            << " times, alarm " << (power.alarm_pending() ? "pending" : "not pending")
            << ", wake locks:";
  for (const std::string& name : power.wake_locks()) {
    std::cout << " " << name;
  }
  std::cout << "\n";
}

static void fire_alarm(Console& console, const Words&) {
  // A command just answered gets a moment to arm the alarm and to let the phone sleep.
  constexpr std::chrono::seconds kMoment(1);
  console.phone.power.wait_asleep(kMoment);
  if (!console.phone.power.fire_alarm(kMoment)) {
    std::cout << "no alarm is pending\n";
  }
}

static void wake(Console& console, const Words&) {
  console.phone.power.wakeup_event();
}

static void show_file(Console& console, const Words& words) {
  const std::filesystem::path path = console.phone.path(words[1]);
  if (std::filesystem::is_directory(path)) {
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
      std::cout << "  " << entry.path().filename().string() << "\n";
    }
  } else {
    std::cout << console.phone.read_file(words[1]).value_or("no such file\n");
  }
}

static void pause(Console&, const Words& words) {
  std::this_thread::sleep_for(std::chrono::milliseconds(atoi(words[1].c_str())));
}

static void show_line(Console& console, const Words&) {
  std::cout << "serial line: " << console.phone.serial.desk_tty() << "\n"
            << "the phone's files: " << console.phone.path("/").string() << "\n";
}

static void restart(Console& console, const Words&) {
  console.phone.start();
}

static void leave(Console& console, const Words&) {
  console.quit = true;
}

static void help(Console& console, const Words&);

struct DotCommand {
  const char* name;
  const char* arguments;
  const char* meaning;
  size_t least_words;
  void (*run)(Console& console, const Words& words);
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

static void help(Console&, const Words&) {
  std::cout << "A line is sent to the phone as it is, with \\n behind it: AT+EDFT=6,1\n";
  for (const DotCommand& command : kDotCommands) {
    std::string usage = command.name;
    usage += std::string(" ") + command.arguments;
    usage.resize(std::max<size_t>(usage.size(), 40), ' ');
    std::cout << "  " << usage << " " << command.meaning << "\n";
  }
}

void run_dot_command(Console& console, const std::string& line) {
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
      command->run(console, words);
    } catch (const std::exception& error) {
      std::cout << error.what() << "\n";
    }
  }
}

std::vector<std::string> dot_command_names() {
  std::vector<std::string> names;
  for (const DotCommand& command : kDotCommands) {
    names.emplace_back(command.name);
  }
  return names;
}
