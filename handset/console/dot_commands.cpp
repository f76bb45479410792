// The table of dot commands and what each does; see dot_commands.h.

#include "handset/console/dot_commands.h"

#include <drm.h>
#include <errno.h>
#include <linux/input-event-codes.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "handset/console/broken_phones.h"
#include "handset/models/partitions.h"
#include "handset/visible.h"

namespace handset {

namespace fs = std::filesystem;

using Words = std::vector<std::string>;

namespace {

// A line as its command sees it.
struct Line {
  Words words;       // the command's name first
  std::string text;  // the whole line

  const std::string& operator[](size_t i) const {
    return words[i];
  }
  size_t size() const {
    return words.size();
  }
  // What stands behind the first count words, blanks within it as they are.
  std::string rest(size_t count) const;
};

std::string Line::rest(size_t count) const {
  size_t at = 0;
  for (size_t i = 0; i < count; ++i) {
    at = text.find(words[i], at) + words[i].size();
  }
  return at < text.size() ? text.substr(at + 1) : "";
}

[[noreturn]] void refuse(const std::string& why) {
  throw std::invalid_argument(why);
}

template <typename Number>
Number number(const std::string& text) {
  Number value{};
  const bool hex = text.starts_with("0x");
  const char* const end = text.data() + text.size();
  std::from_chars_result result{};
  if constexpr (std::is_floating_point_v<Number>) {
    result = std::from_chars(text.data(), end, value);
  } else {
    result = std::from_chars(text.data() + (hex ? 2 : 0), end, value, hex ? 16 : 10);
  }
  if (result.ec != std::errc() || result.ptr != end) {
    refuse("no number: " + text);
  }
  return value;
}

// "EIO", or a number; "works" is none.
int error_number(const std::string& text) {
  if (text == "works") {
    return 0;
  }
  for (int error = 1; error < 134; ++error) {
    const char* const name = strerrorname_np(error);
    if (name != nullptr && text == name) {
      return error;
    }
  }
  refuse("no error's name: " + text);
}

template <typename Value>
Value choice(const std::map<std::string, Value>& choices, const std::string& text) {
  const auto found = choices.find(text);
  if (found != choices.end()) {
    return found->second;
  }
  std::string names;
  for (const auto& [name, value] : choices) {
    names += " " + name;
  }
  refuse("\"" + text + "\" is none of:" + names);
}

const std::string& absolute(const std::string& path) {
  if (path.empty() || path[0] != '/') {
    refuse("a path begins with '/': " + path);
  }
  return path;
}

bool is_node(const std::string& path) {
  return path.starts_with("/sys/") || path.starts_with("/proc/");
}

// ---- nodes and files

void node(Handset& phone, const Line& line, std::ostream& out) {
  const std::string& path = absolute(line[1]);
  if (!is_node(path)) {
    refuse("a node lies below /sys or /proc: " + path);
  }
  if (line.size() > 2) {
    phone.nodes.set(path, unescaped(line.rest(2)) + "\n");
    return;
  }
  if (const auto value = phone.nodes.value(path); value.has_value()) {
    out << visible(*value) << "\n";
    return;
  }
  out << "no such node; the nodes below it:\n";
  for (const std::string& node : phone.nodes.paths()) {
    if (node.starts_with(path)) {
      out << "  " << node << "\n";
    }
  }
}

void node_bytes(Handset& phone, const Line& line, std::ostream&) {
  phone.nodes.set(absolute(line[1]), unescaped(line.rest(2)));
}

void remove(Handset& phone, const Line& line, std::ostream&) {
  const std::string& path = absolute(line[1]);
  if (is_node(path)) {
    if (!phone.nodes.value(path).has_value()) {
      refuse("no such node: " + path);
    }
    phone.nodes.remove(path);
  } else if (fs::remove_all(phone.path(path)) == 0) {
    refuse("no such file: " + path);
  }
}

void file(Handset& phone, const Line& line, std::ostream& out) {
  const std::string& path = absolute(line[1]);
  if (line.size() > 2) {
    phone.write_file(path, unescaped(line.rest(2)));
  } else if (fs::is_directory(phone.path(path))) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(phone.path(path))) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      out << name << "\n";
    }
  } else if (const auto content = phone.read_file(path); content.has_value()) {
    out << visible(*content) << "\n";
  } else {
    refuse("no such file: " + path);
  }
}

void folder(Handset& phone, const Line& line, std::ostream&) {
  fs::create_directories(phone.path(absolute(line[1])));
}

void link(Handset& phone, const Line& line, std::ostream&) {
  fs::create_symlink(line[2], phone.path(absolute(line[1])));
}

void make_special(const Handset& phone, const Line& line, mode_t kind) {
  if (mknod(phone.path(absolute(line[1])).c_str(), kind | 0666, 0) != 0) {
    refuse(strerror(errno));
  }
}

void fifo(Handset& phone, const Line& line, std::ostream&) {
  make_special(phone, line, S_IFIFO);
}

void socket_file(Handset& phone, const Line& line, std::ostream&) {
  make_special(phone, line, S_IFSOCK);
}

void cut(Handset& phone, const Line& line, std::ostream&) {
  fs::resize_file(phone.path(absolute(line[1])), number<uint64_t>(line[2]));
}

// Bytes of a partition's image, or of any file.
void bytes(Handset& phone, const Line& line, std::ostream& out) {
  const fs::path image = phone.path(absolute(line[1]));
  if (!fs::exists(image)) {
    refuse("no such file: " + line[1]);
  }
  const auto offset = number<uint64_t>(line[2]);
  if (line[3] == "=") {
    write_partition(image, offset, unescaped(line.rest(4)));
  } else {
    out << visible(read_partition(image, offset, number<uint32_t>(line[3]))) << "\n";
  }
}

void record(Handset& phone, const Line& line, std::ostream&) {
  const fs::path image = phone.path("/dev/block/by-name/norvareserve1");
  const std::string value = line.size() > 2 ? line[2] : "";
  if (line[1] == "pcba") {
    put_pcba_record(image, value);
  } else if (line[1] == "download") {
    put_download_marks(image, value.empty() ? "" : "download start",
                       value == "over" ? "download over" : "");
  } else {
    refuse("pcba and download are the records that can be put");
  }
}

void property(Handset& phone, const Line& line, std::ostream& out) {
  if (line.size() > 2) {
    phone.set_property(line[1], line.rest(2));
  } else {
    out << phone.property(line[1]).value_or("(not set)") << "\n";
  }
}

// ---- what fails

const std::map<std::string, int> kFailingCalls = {
    {"open", SYS_openat},     {"read", SYS_read},          {"write", SYS_write},
    {"seek", SYS_lseek},      {"sync", SYS_fsync},         {"datasync", SYS_fdatasync},
    {"pread", SYS_pread64},   {"truncate", SYS_ftruncate}, {"access", SYS_faccessat},
    {"unlink", SYS_unlinkat}, {"mkdir", SYS_mkdirat},      {"chmod", SYS_fchmodat},
    {"chown", SYS_fchownat},  {"rename", SYS_renameat},
};

// Which calls, counted from now: "2" the second, "1-3" the first three, nothing all.
Faults::Which which_calls(const Line& line, size_t place) {
  Faults::Which which;
  if (line.size() > place) {
    const std::string& text = line[place];
    const size_t dash = text.find('-');
    which.first = number<int>(text.substr(0, dash));
    which.last = dash == std::string::npos ? which.first : number<int>(text.substr(dash + 1));
    if (which.first < 1 || which.last < which.first) {
      refuse("calls are counted from 1: " + text);
    }
  }
  return which;
}

void fail(Handset& phone, const Line& line, std::ostream&) {
  static const std::map<std::string, int> kNoPaths = {
      {"thread", SYS_clone3}, {"process", SYS_clone3}, {"socket", SYS_shutdown}};
  if (const auto other = kNoPaths.find(line[1]); other != kNoPaths.end()) {
    phone.fail(line[1], other->second, error_number(line[2]));
    return;
  }
  if (line.size() < 4) {
    refuse("which error? EIO, ENOSPC, ... or works");
  }
  const std::string& path = absolute(line[1]);
  const int error = error_number(line[3]);
  const int call = choice(kFailingCalls, line[2]);
  if (is_node(path) && !phone.nodes.value(path).has_value()) {
    refuse("no such node: " + path);
  }
  const std::map<int, Nodes::Operation> operations = {{SYS_openat, Nodes::Operation::kOpen},
                                                      {SYS_read, Nodes::Operation::kRead},
                                                      {SYS_write, Nodes::Operation::kWrite}};
  const auto operation = operations.find(call);
  if (is_node(path) && operation != operations.end() && line.size() == 4) {
    phone.nodes.fail(path, operation->second, error);
  }
  if (!is_node(path) || operation == operations.end() || line.size() > 4 || error == 0) {
    phone.fail(path, call, error, which_calls(line, 4));
  }
}

void shorten(Handset& phone, const Line& line, std::ostream&) {
  const std::map<std::string, int> calls = {{"read", SYS_read}, {"write", SYS_write}};
  phone.shorten(absolute(line[1]), choice(calls, line[2]), number<size_t>(line[3]),
                which_calls(line, 4));
}

// ---- devices

Handset::Key key_named(Handset& phone, const std::string& name) {
  const std::optional<Handset::Key> key = phone.key(name);
  if (!key.has_value()) {
    refuse("power, volup and voldown are the keys: " + name);
  }
  return *key;
}

// The power key is one of the phone's wakeup sources, whoever listens to it.
void wake_by(Handset& phone, const InputDevice* device) {
  if (device == &phone.power_key) {
    phone.power.wakeup_event();
  }
}

void keys(Handset& phone, const Line& line, std::ostream& out) {
  bool waiting = false;
  for (size_t i = 1; i < line.size(); ++i) {
    const Handset::Key key = key_named(phone, line[i]);
    waiting = waiting || !key.device->listening();
    key.device->press(key.code);
    wake_by(phone, key.device);
  }
  out << (waiting ? "pressed as soon as AT+KEY listens\n" : "");
}

void press(Handset& phone, const Line& line, std::ostream& out) {
  for (size_t i = 1; i < line.size(); ++i) {
    const Handset::Key key = key_named(phone, line[i]);
    if (key.device->held(key.code)) {
      out << line[i] << " is held already\n";
    } else if (key.device->listening()) {
      key.device->press(key.code);
    } else {
      out << line[i] << " is lost: nobody listens\n";
    }
    wake_by(phone, key.device);
  }
}

void hold(Handset& phone, const Line& line, std::ostream&) {
  const Handset::Key key = key_named(phone, line[1]);
  key.device->hold(key.code);
}

void let_go(Handset& phone, const Line& line, std::ostream&) {
  const Handset::Key key = key_named(phone, line[1]);
  key.device->let_go(key.code);
}

InputDevice& input_device(Handset& phone, const std::string& name) {
  const std::map<std::string, InputDevice*> devices = {
      {"event0", &phone.volume_keys}, {"event1", &phone.power_key}, {"event2", &phone.pointer}};
  return *choice(devices, name);
}

void event(Handset& phone, const Line& line, std::ostream&) {
  InputDevice& device = input_device(phone, line[1]);
  phone.open_devices();  // who has closed its device no longer listens
  if (line[2] == "raw") {
    device.send_raw(unescaped(line.rest(3)));
  } else {
    device.send(number<uint16_t>(line[2]), number<int32_t>(line[3]));
  }
  wake_by(phone, &device);
}

void fail_input(Handset& phone, const Line& line, std::ostream&) {
  InputDevice& device = input_device(phone, line[1]);
  if (choice(std::map<std::string, bool>{{"types", true}, {"epoll", false}}, line[2])) {
    device.fail_types(ENOTTY);
  } else {
    device.fail_epoll();
  }
}

void controls(Handset& phone, const Line& line, std::ostream&) {
  phone.sound.describe(unescaped(line.rest(1)));
}

void mixer(Handset& phone, const Line& line, std::ostream& out) {
  const std::string control = phone.sound.show(line.rest(1));
  if (control.empty()) {
    refuse("no such control: " + line.rest(1));
  }
  out << control << "\n";
}

void set_mixer(Handset& phone, const Line& line, std::ostream&) {
  if (!phone.sound.set(line.rest(2), line[1])) {
    refuse("no such control or item: " + line.rest(2) + " = " + line[1]);
  }
}

void fail_mixer(Handset& phone, const Line& line, std::ostream&) {
  const std::map<std::string, SoundCard::Access> accesses = {{"read", SoundCard::Access::kRead},
                                                             {"write", SoundCard::Access::kWrite}};
  const std::string control = line.rest(3);
  if (phone.sound.show(control).empty()) {
    refuse("no such control: " + control);
  }
  phone.sound.fail(control, choice(accesses, line[1]), error_number(line[2]));
}

// The codec's detector measures when its second setting is written.
void crack(Handset& phone, const Line& line, std::ostream&) {
  const std::string enable = "DIE_CRK_DET_EN = " + line[2];
  const std::string interrupt = "DIE_CRK_DET_INT1 = " + line[3];
  phone.sound.on_write("DIE_CRK_DET_INT1", [&phone, value = line[1], enable, interrupt] {
    const bool here = phone.sound.show("DIE_CRK_DET_EN") == enable &&
                      phone.sound.show("DIE_CRK_DET_INT1") == interrupt;
    phone.sound.set("DIE_CRK_DET_OUT", here ? value : "0");
  });
}

CameraSensor& camera(Handset& phone, const std::string& text) {
  const int camera = number<int>(text);
  if (camera < 0 || camera >= Cameras::kSensors) {
    refuse("the cameras are 0 to 5");
  }
  return phone.cameras.sensor(camera);
}

void cameras(Handset& phone, const Line& line, std::ostream& out) {
  if (line.size() > 1) {
    camera(phone, line[1]).set_id(number<int>(line.size() > 2 ? line[2] : ""));
    return;
  }
  const size_t media = phone.open_devices("media");  // what is closed by now is not counted
  std::string on;
  std::string open;
  for (int i = 0; i < Cameras::kSensors; ++i) {
    const CameraSensor& sensor = phone.cameras.sensor(i);
    const std::string name = " " + std::to_string(i);
    on += sensor.powered() ? name : "";
    for (int times = 0; times < sensor.opened(); ++times) {
      open += name;
    }
  }
  out << "on:" << on << "; open:" << open << "; open media devices: " << media << "\n";
}

void media(Handset& phone, const Line& line, std::ostream&) {
  MediaDevice& device =
      *choice(std::map<std::string, MediaDevice*>{{"0", &phone.cameras.video},
                                                  {"1", &phone.cameras.request_manager}},
              line[1]);
  if (line[2] == "model") {
    device.set_model(line[3]);
  } else if (line[2] == "fail") {
    device.fail(error_number(line[3]));
  } else {
    refuse("model and fail are what can be set");
  }
}

void fail_camera(Handset& phone, const Line& line, std::ostream&) {
  const std::map<std::string, uint32_t> requests = {{"up", CameraSensor::kPowerUp},
                                                    {"down", CameraSensor::kPowerDown},
                                                    {"control", CameraSensor::kControl}};
  camera(phone, line[1]).fail(choice(requests, line[2]), error_number(line[3]));
}

void remove_device(Handset& phone, const Line& line, std::ostream&) {
  if (!fs::exists(phone.path(absolute(line[1])))) {
    refuse("no such device: " + line[1]);
  }
  phone.remove_device(line[1]);
}

void fail_display(Handset& phone, const Line& line, std::ostream&) {
  static const std::map<std::string, uint32_t> kRequests = {
      {"resources", DRM_IOCTL_MODE_GETRESOURCES},
      {"buffer", DRM_IOCTL_MODE_CREATE_DUMB},
      {"framebuffer", DRM_IOCTL_MODE_ADDFB2},
      {"map", DRM_IOCTL_MODE_MAP_DUMB},
      {"blob", DRM_IOCTL_MODE_CREATEPROPBLOB},
      {"commit", DRM_IOCTL_MODE_ATOMIC},
      {"remove", DRM_IOCTL_MODE_RMFB},
      {"close", DRM_IOCTL_GEM_CLOSE}};
  phone.display.fail(choice(kRequests, line[1]), error_number(line[2]),
                     which_calls(line, 3).first - 1);
}

void panel(Handset& phone, const Line& line, std::ostream& out) {
  const Picture picture = phone.display.picture();
  if (!picture.write_png(line[1])) {
    refuse("cannot write " + line[1]);
  }
  out << picture.width << " x " << picture.height << " pixels in " << line[1] << "\n";
}

void card(Handset& phone, const Line& line, std::ostream&) {
  if (line[1] == "none") {
    phone.card.insert(std::nullopt);
  } else if (line.size() == 4) {
    phone.card.insert(MemoryCard::Size{.block_size = number<uint64_t>(line[1]),
                                       .blocks = number<uint64_t>(line[2]),
                                       .free_blocks = number<uint64_t>(line[3])});
  } else {
    refuse("none, or a block's size, the blocks and the free ones");
  }
}

void module(Handset& phone, const Line& line, std::ostream&) {
  if (line[2] == "loaded") {
    phone.modules.set_loaded(line[1], true);
  } else if (line[2] == "unloaded") {
    phone.modules.set_loaded(line[1], false);
  } else {
    phone.modules.fail(line[1], EAGAIN, number<int>(line[2]));
  }
}

void party(Handset& phone, const Line& line, std::ostream&) {
  phone.tone_party.set_answering(
      choice(std::map<std::string, bool>{{"on", true}, {"off", false}}, line[1]));
}

// ---- sensors

// The rest of a line as numbers.
template <typename Number>
std::vector<Number> numbers(const Line& line, size_t first) {
  std::vector<Number> all;
  for (size_t i = first; i < line.size(); ++i) {
    all.push_back(number<Number>(line[i]));
  }
  return all;
}

void sensor(Handset& phone, const Line& line, std::ostream& out) {
  if (line.size() == 1) {
    for (const SensorHub::Sensor& sensor : phone.sensors.sensors()) {
      out << sensor.name << " (" << sensor.data_type << ")";
      for (const float value : sensor.values) {
        out << " " << value;
      }
      out << "\n";
    }
    return;
  }
  if (line.size() == 3 && line[2] == "removed") {
    phone.sensors.remove_sensor(line[1]);
    return;
  }
  if (!phone.sensors.set_values(line[1], numbers<float>(line, 2))) {
    refuse("no such sensor: " + line[1]);
  }
}

void set_sensor(Handset& phone, const Line& line, std::ostream&) {
  SensorHub::Sensor sensor = {.name = line[1], .data_type = line[2]};
  if (line[3] == "-") {
    sensor.hardware_id.reset();
  } else {
    sensor.hardware_id = number<int64_t>(line[3]);
  }
  sensor.event = line[4] == "-" ? 0 : number<uint32_t>(line[4]);
  sensor.values = numbers<float>(line, 5);
  phone.sensors.set_sensor(sensor);
}

void sample_period(Handset& phone, const Line& line, std::ostream&) {
  phone.sensors.set_sample_period(std::chrono::milliseconds(number<int>(line[1])));
}

void extra_events(Handset& phone, const Line& line, std::ostream&) {
  phone.sensors.set_extra_events(numbers<uint32_t>(line, 1));
}

void greeting(Handset& phone, const Line& line, std::ostream&) {
  phone.hub_service.set_greeting(unescaped(line.rest(1)));
}

void late_sensor(Handset& phone, const Line& line, std::ostream&) {
  if (!phone.sensors.set_late(line[1], std::chrono::milliseconds(number<int>(line[2])))) {
    refuse("no such sensor: " + line[1]);
  }
}

void hub_lifetime(Handset& phone, const Line& line, std::ostream&) {
  phone.hub_service.set_lifetime(std::chrono::milliseconds(number<int>(line[1])));
}

void spoil_hub(Handset& phone, const Line& line, std::ostream&) {
  const std::map<std::string, HubService::Spoilt> kinds = {
      {"nothing", HubService::Spoilt::kNothing},
      {"responses", HubService::Spoilt::kResponses},
      {"heads", HubService::Spoilt::kHeads}};
  phone.hub_service.set_spoilt(choice(kinds, line[1]));
}

void hub(Handset& phone, const Line& line, std::ostream&) {
  struct State {
    SensorHub::State hub;
    HubService::State service;
  };
  using Hub = SensorHub::State;
  using Service = HubService::State;
  static const std::map<std::string, State> kStates = {
      {"healthy", {Hub::kHealthy, Service::kOpen}},
      {"silent", {Hub::kSilent, Service::kOpen}},
      {"garbage", {Hub::kGarbage, Service::kOpen}},
      {"refusing", {Hub::kHealthy, Service::kRefusing}},
      {"absent", {Hub::kHealthy, Service::kAbsent}}};
  if (std::isdigit(static_cast<unsigned char>(line[1][0])) != 0) {
    phone.hub_service.set_delay(std::chrono::milliseconds(number<int>(line[1])));
    return;
  }
  const State state = choice(kStates, line[1]);
  phone.sensors.set_state(state.hub);
  phone.hub_service.set_state(state.service);
}

// ---- power

void power(Handset& phone, const Line&, std::ostream& out) {
  const PowerInterfaces& power = phone.power;
  out << (power.asleep() ? "asleep" : "awake") << ", suspended " << power.suspends()
      << " times, alarm " << (power.alarm_pending() ? "pending" : "not pending") << ", wake locks:";
  for (const std::string& name : power.wake_locks()) {
    out << " " << name;
  }
  out << "\n";
}

void asleep(Handset& phone, const Line&, std::ostream&) {
  if (!phone.power.asleep()) {
    refuse("the phone does not sleep");
  }
}

void alarm(Handset& phone, const Line&, std::ostream&) {
  // A command just answered gets a moment to arm the alarm and to let the phone sleep.
  constexpr std::chrono::seconds kMoment(1);
  phone.power.wait_asleep(kMoment);
  if (!phone.power.fire_alarm(kMoment)) {
    refuse("no alarm is pending");
  }
}

void wake(Handset& phone, const Line&, std::ostream&) {
  phone.power.wakeup_event();
}

void wake_lock(Handset& phone, const Line& line, std::ostream&) {
  if (phone.power.asleep()) {
    refuse("the phone sleeps: no process of it runs");
  }
  const int error =
      choice(std::map<std::string, bool>{{"taken", true}, {"dropped", false}}, line[2])
          ? phone.power.store_wake_lock(line[1])
          : phone.power.store_wake_unlock(line[1]);
  if (error != 0) {
    refuse("no such wake lock: " + line[1]);
  }
}

// ---- looks, and the run

void journal(Handset& phone, const Line& line, std::ostream& out) {
  const std::string kind = line.size() > 1 && line[1] != "raw" ? line[1] + " " : "";
  std::vector<Journal::Entry> entries = phone.journal.take();
  if (kind.empty() && line.size() == 1) {
    entries = count_repeats(fold(entries, ""));
  }
  for (const Journal::Entry& entry : entries) {
    if (entry.text.starts_with(kind)) {
      out << shown(entry) << "\n";
    }
  }
}

void log(Handset& phone, const Line& line, std::ostream& out) {
  std::istringstream stream(phone.log());
  std::vector<std::string> lines;
  for (std::string text; std::getline(stream, text);) {
    if (!text.empty()) {  // most lines bring a line feed of their own
      lines.push_back(text);
    }
  }
  const size_t wanted = line.size() > 1 ? number<size_t>(line[1]) : 20;
  for (size_t i = lines.size() - std::min(wanted, lines.size()); i < lines.size(); ++i) {
    out << lines[i] << "\n";
  }
}

void wait(Handset& phone, const Line&, std::ostream& out) {
  for (const std::string& reply : phone.serial.take_replies()) {
    out << "< " << visible(reply) << "\n";
  }
}

void pause(Handset&, const Line&, std::ostream&) {}

void waits(Handset& phone, const Line& line, std::ostream&) {
  phone.clock.set_factor(number<double>(line[1]));
}

void tty(Handset& phone, const Line& line, std::ostream&) {
  const std::map<std::string, SerialLine::Tty> settings = {
      {"raw", SerialLine::Tty::kRaw},
      {"canonical", SerialLine::Tty::kCanonical},
      {"default", SerialLine::Tty::kDefault},
      {"uart", SerialLine::Tty::kUart}};
  constexpr int kUsualSpeed = 115200;
  const int speed = line.size() > 2 ? number<int>(line[2]) : kUsualSpeed;
  if (speed < 1) {
    refuse("no speed: " + line[2]);
  }
  phone.serial.set_tty(choice(settings, line[1]), speed);
}

void late(Handset& phone, const Line& line, std::ostream&) {
  phone.serial.set_late(std::chrono::milliseconds(number<uint16_t>(line[1])));
}

void torn(Handset& phone, const Line& line, std::ostream&) {
  const int pause = line.size() > 2 ? number<uint16_t>(line[2]) : 0;
  phone.serial.set_torn(number<uint16_t>(line[1]), std::chrono::milliseconds(pause));
}

void cut_replies(Handset& phone, const Line& line, std::ostream&) {
  phone.serial.cut_replies(line[1] == "works" ? -1 : number<uint16_t>(line[1]));
}

void where(Handset& phone, const Line&, std::ostream& out) {
  out << "serial line: " << phone.serial.desk_tty() << "\n"
      << "the phone's files: " << phone.path("/").string() << "\n";
}

void start(Handset& phone, const Line& line, std::ostream&) {
  Handset::StartOptions options;
  options.faults = true;
  const std::map<std::string, bool> words = {{"no-line", true}, {"no-wait", false}};
  for (size_t i = 1; i < line.size(); ++i) {
    if (choice(words, line[i])) {
      options.serial = "";
    }
    options.wait_ready = false;
  }
  phone.start(options);
}

void end_of_reboot(Handset& phone, const Line&, std::ostream&) {
  phone.nodes.restart();
  phone.serial.drop_unread();
  phone.start({.faults = true});
}

void broken(Handset& phone, const Line& line, std::ostream& out) {
  if (line.size() == 1) {
    print_broken_phones(out);
  } else {
    break_phone(&phone, line.rest(1));
  }
}

void end(Handset& phone, const Line&, std::ostream& out) {
  const auto status = phone.wait_exit(std::chrono::seconds(0));
  if (!status.has_value()) {
    refuse("the daemon runs on");
  }
  if (WIFSIGNALED(*status)) {
    out << "ended by SIG" << sigabbrev_np(WTERMSIG(*status)) << "\n";
  } else {
    out << "ended with status " << WEXITSTATUS(*status) << "\n";
  }
}

void help(Handset&, const Line&, std::ostream& out) {
  print_dot_commands(out);
}

void only_session(Handset&, const Line& line, std::ostream&) {
  refuse("not in a script: " + line[0]);
}

// ---- what is waited for

// A condition, asked again and again, and how long at most.
struct Wait {
  std::function<bool()> come;
  std::chrono::milliseconds limit;
};

constexpr std::chrono::seconds kPatience(20);

Wait for_reply(Handset& phone, const Line& line) {
  return {[&phone] { return phone.serial.wait_replies(1, std::chrono::seconds(0)); },
          std::chrono::seconds(number<uint16_t>(line[1]))};
}

Wait for_time(Handset&, const Line& line) {
  return {[] { return false; }, std::chrono::milliseconds(number<uint32_t>(line[1]))};
}

Wait for_sleep(Handset& phone, const Line&) {
  return {[&phone] { return phone.power.asleep(); }, kPatience};
}

Wait for_end(Handset& phone, const Line&) {
  return {[&phone] { return phone.wait_exit(std::chrono::seconds(0)).has_value(); }, kPatience};
}

// The phone goes down at once and stays so for a while.
Wait for_reboot(Handset& phone, const Line& line) {
  phone.stop();
  return {[] { return false; }, std::chrono::milliseconds(number<uint16_t>(line[1]))};
}

struct DotCommand {
  const char* name;
  const char* arguments;
  const char* meaning;
  size_t least_words;
  void (*run)(Handset&, const Line&, std::ostream&);
  Wait (*wait)(Handset&, const Line&) = nullptr;  // before run
};

// Values take the escapes \n, \r, \t, \\, \xHH, and \{512*k} for 512 times "k".
const DotCommand kDotCommands[] = {
    {".help", "", "this list", 1, help},
    {".commands", "[WORD]",
     "the phone's commands, all or those that have to do with this (not in a script)", 1,
     only_session},
    {".explain", "", "what the last replies mean (not in a script)", 1, only_session},
    {".node", "PATH [VALUE]", "show a kernel node, or set it (a line feed is added)", 2, node},
    {".nodebytes", "PATH BYTES", "set a kernel node to exactly these bytes", 2, node_bytes},
    {".remove", "PATH", "take a node, a file or a folder away", 2, remove},
    {".fail", "PATH CALL ERROR|works [N]",
     "make open, read, write, seek, sync, datasync, pread, truncate, access, unlink, mkdir, chmod, "
     "chown or rename (to PATH) fail; only the Nth from now, or N-M",
     3, fail},
    {".fail", "thread|process|socket ERROR|works", "make no new one; let no socket be shut down", 3,
     fail},
    {".short", "PATH read|write BYTES [N]",
     "let a read or write move that many bytes at most, until .fail says that it works", 4,
     shorten},
    {".file", "PATH [TEXT]", "show a file or folder of the phone, or make the file", 2, file},
    {".folder", "PATH", "make a folder", 2, folder},
    {".link", "PATH TARGET", "make a symbolic link", 3, link},
    {".fifo", "PATH", "make a FIFO", 2, fifo},
    {".socket", "PATH", "make a socket that nobody listens at", 2, socket_file},
    {".cut", "PATH SIZE", "make a file or partition that long", 3, cut},
    {".bytes", "PATH OFFSET SIZE | PATH OFFSET = BYTES", "show or set bytes of a partition", 4,
     bytes},
    {".record", "pcba [NUMBER] | download [start|over]", "put a record on the reserve partition", 2,
     record},
    {".prop", "NAME [VALUE]", "show or set a system property", 2, property},
    {".key", "power|volup|voldown ...", "press keys, now or as soon as AT+KEY listens", 2, keys},
    {".press", "power|volup|voldown ...",
     "press keys now, as a hand does: lost when nobody listens", 2, press},
    {".hold", "power|volup|voldown", "press a key and keep it down, until it is let go", 2, hold},
    {".letgo", "power|volup|voldown", "let go of a key that is held", 2, let_go},
    {".event", "event0|1|2 CODE VALUE | event0|1|2 raw BYTES",
     "an input device reports a key's event, or these bytes", 4, event},
    {".eventfail", "event0|1|2 types|epoll",
     "an input device does not tell its types, or is refused by epoll", 3, fail_input},
    {".controls", "LINE\\nLINE...", "give the sound card these controls (dev/snd/controls)", 2,
     controls},
    {".mixer", "CONTROL", "a mixer control's values", 2, mixer},
    {".mixerset", "VALUE CONTROL", "set a control's first value: a number or an item", 3,
     set_mixer},
    {".mixerfail", "read|write ERROR|works CONTROL", "make reads or writes of a control fail", 4,
     fail_mixer},
    {".crack", "VALUE ENABLE INTERRUPT",
     "what the die-crack detector measures at these two settings", 4, crack},
    {".camerafail", "NUMBER up|down|control ERROR|works", "make a camera's request fail", 4,
     fail_camera},
    {".displayfail", "resources|buffer|framebuffer|map|blob|commit|remove|close ERROR [N]",
     "make the next request of the display fail, or the Nth from now", 3, fail_display},
    {".camera", "[NUMBER ID]", "the cameras that are on and open, or set the id of one", 1,
     cameras},
    {".media", "0|1 model NAME | 0|1 fail ERROR|works",
     "a media device's name (the request manager's is cam-req-mgr-devnode)", 4, media},
    {".unplug", "PATH", "take a device away", 2, remove_device},
    {".card", "none | BLOCKSIZE BLOCKS FREE", "take the memory card out, or put one in", 2, card},
    {".module", "NAME loaded|unloaded|TIMES",
     "a kernel module's state, or how many unloads it is busy for", 3, module},
    {".party", "on|off", "whether \"cmd_off\" of the test tone is answered with \"cmd_finish\"", 2,
     party},
    {".sensor", "[NAME VALUE...|removed]", "the sensors, or what one of them measures", 1, sensor},
    {".sensorset", "NAME TYPE ATTRIBUTE19|- EVENT|- VALUE...",
     "put a sensor behind the hub; EVENT is the message id of its samples", 5, set_sensor},
    {".hub", "healthy|silent|garbage|refusing|absent|MS",
     "how the sensor hub is, or how long each of its answers takes", 2, hub},
    {".hublate", "SENSOR MS",
     "a lookup finds the sensor that much after its first answer, with a second one", 3,
     late_sensor},
    {".hubleave", "MS", "the hub hangs up on each client that long after it has come; 0 never", 2,
     hub_lifetime},
    {".hubspoil", "nothing|responses|heads",
     "responses come without an outcome, or packets with a wrong length in their heads", 2,
     spoil_hub},
    {".hubperiod", "MS", "the time between samples, 0 for what is asked for", 2, sample_period},
    {".hubevents", "[ID...]", "events without payload that come when a sensor is enabled", 1,
     extra_events},
    {".hubgreeting", "[BYTES]", "a report that each client of the hub is sent first", 1, greeting},
    {".panel", "FILE.png", "what the panel shows, as a picture", 2, panel},
    {".power", "", "asleep or awake, the alarm, the wake locks", 1, power},
    {".asleep", "", "wait until the phone sleeps", 1, asleep, for_sleep},
    {".alarm", "", "let the RTC's alarm wake the phone now", 1, alarm},
    {".wake", "", "wake the phone by an event from outside (the power key does so, too)", 1, wake},
    {".wakelock", "NAME taken|dropped",
     "what another process does with a wake lock while the phone is awake", 3, wake_lock},
    {".journal", "[KIND|raw|on|off]",
     "what the daemon has done since the last look, or with each command (console)", 1, journal},
    {".log", "[LINES]", "the end of the daemon's log", 1, log},
    {".wait", "SECONDS", "wait for a reply that comes after its command, that long at most", 2,
     wait, for_reply},
    {".pause", "MS", "wait, as a script between commands", 2, pause, for_time},
    {".waits", "FACTOR", "what part of its time each wait takes: 1 all, 0 none", 2, waits},
    {".tty", "raw|canonical|default|uart [BITS/S]",
     "the settings of the phone's tty: raw is the first; uart tears what is sent", 2, tty},
    {".late", "MS", "replies reach a program on the line that much later", 2, late},
    {".torn", "BYTES [MS]",
     "replies reach it in parts of so many bytes, 0 for whole, with a pause after each", 2, torn},
    {".cutreplies", "BYTES|works", "the line takes so many bytes of each reply and no more", 2,
     cut_replies},
    {".broken", "[NAME|DIR]", "break the phone in a way of the list, or of a folder", 1, broken},
    {".reboot", "MS",
     "the phone restarts and is away that long; nodes that it wrote are as before, files stay", 2,
     end_of_reboot, for_reboot},
    {".line", "", "where another serial program attaches", 1, where},
    {".start", "[no-line] [no-wait]",
     "start the daemon, anew if it runs; without a serial line, without waiting for it", 1, start},
    {".end", "", "wait for the daemon's end", 1, end, for_end},
};

}  // namespace

static Line split(const std::string& text) {
  std::istringstream stream(text);
  return {{std::istream_iterator<std::string>(stream), {}}, text};
}

// Null when there is none of that name.
static const DotCommand* command_of(const Line& line) {
  const auto* command = std::find_if(std::begin(kDotCommands), std::end(kDotCommands),
                                     [&](const DotCommand& c) { return line[0] == c.name; });
  return command == std::end(kDotCommands) ? nullptr : command;
}

// A command without arguments takes none.
static bool fits(const DotCommand& command, const Line& line) {
  return line.size() >= command.least_words && (*command.arguments != '\0' || line.size() == 1);
}

std::function<bool()> dot_command_wait(Handset* phone, const std::string& text) {
  const Line line = split(text);
  const DotCommand* command = command_of(line);
  if (command == nullptr || command->wait == nullptr || !fits(*command, line)) {
    return [] { return true; };
  }
  try {
    const Wait wait = command->wait(*phone, line);
    return [wait, until = std::chrono::steady_clock::now() + wait.limit] {
      return wait.come() || std::chrono::steady_clock::now() >= until;
    };
  } catch (const std::invalid_argument&) {
    return [] { return true; };  // finish_dot_command says why
  }
}

bool finish_dot_command(Handset* phone, const std::string& text, std::ostream& out) {
  const Line line = split(text);
  const DotCommand* command = command_of(line);
  if (command == nullptr) {
    out << "no such command: " << line[0] << "; .help lists them\n";
    return false;
  }
  if (!fits(*command, line)) {
    out << "usage: " << command->name << (*command->arguments != '\0' ? " " : "")
        << command->arguments << "\n";
    return false;
  }
  try {
    if (command->wait != nullptr) {
      command->wait(*phone, line);  // refuses what is no number
    }
    command->run(*phone, line, out);
  } catch (const std::exception& error) {
    out << error.what() << "\n";
    return false;
  }
  return true;
}

bool run_dot_command(Handset* phone, const std::string& line, std::ostream& out) {
  const std::function<bool()> over = dot_command_wait(phone, line);
  while (!over()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return finish_dot_command(phone, line, out);
}

std::vector<std::string> dot_command_names() {
  std::vector<std::string> names;
  for (const DotCommand& command : kDotCommands) {
    names.emplace_back(command.name);
  }
  return names;
}

void print_dot_commands(std::ostream& out) {
  out << "A line is sent to the phone as it is, with \\n behind it: AT+EDFT=6,1\n";
  for (const DotCommand& command : kDotCommands) {
    std::string usage = std::string(command.name) + " " + command.arguments;
    usage.resize(std::max<size_t>(usage.size(), 40), ' ');
    out << "  " << usage << " " << command.meaning << "\n";
  }
}

std::string unescaped(std::string_view text) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      bytes += text[i];
      continue;
    }
    const std::string_view after = text.substr(i + 1);
    static const std::map<char, char> kLetters = {
        {'n', '\n'}, {'r', '\r'}, {'t', '\t'}, {'\\', '\\'}};
    unsigned value = 0;
    size_t star = 0;
    if (after.starts_with("{") && (star = after.find('*')) < after.find('}') &&
        after.find('}') != std::string_view::npos) {
      const size_t close = after.find('}');
      const std::string part = unescaped(after.substr(star + 1, close - star - 1));
      for (auto times = number<size_t>(std::string(after.substr(1, star - 1))); times > 0;
           --times) {
        bytes += part;
      }
      i += close + 1;
    } else if (after.size() >= 3 && after[0] == 'x' &&
               std::from_chars(&after[1], &after[1] + 2, value, 16).ptr == &after[1] + 2) {
      bytes += static_cast<char>(value);
      i += 3;
    } else if (!after.empty() && kLetters.count(after[0]) != 0) {
      bytes += kLetters.at(after[0]);
      ++i;
    } else {
      throw std::invalid_argument("no escape: " + std::string(text.substr(i, 4)));
    }
  }
  return bytes;
}

std::string sent_bytes(const std::string& line) {
  if (line.starts_with(">> ")) {
    return unescaped(std::string_view(line).substr(3));
  }
  return (line.starts_with("> ") ? line.substr(2) : line) + "\n";
}

}  // namespace handset
