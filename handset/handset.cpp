// The handset: its parts and the daemon's process; see handset.h. The trapped calls are answered in
// handset_calls.cpp.

#include "handset/handset.h"

#include <errno.h>
#include <linux/input-event-codes.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <utility>

#include "handset/class_nodes.h"
#include "handset/links/stage_process.h"
#include "handset/models/partitions.h"
#include "handset/phone_files.h"
#include "handset/root.h"

namespace handset {

namespace fs = std::filesystem;

static const char kSoundControls[] = "/dev/snd/controls";
static const char kFolderName[] = "ftm-handset.";  // then the process and a random part

static std::runtime_error system_error(const std::string& what) {
  return std::runtime_error(what + ": " + strerror(errno));
}

// Removes what handsets have left that were ended before they could: folders of this user's whose
// process is gone.
static void clear_ended_phones(const fs::path& folder) {
  std::error_code none;
  for (const auto& entry : fs::directory_iterator(folder, none)) {
    const std::string name = entry.path().filename().string();
    const int pid = name.starts_with(kFolderName) ? atoi(name.c_str() + strlen(kFolderName)) : 0;
    struct stat status;
    if (pid > 0 && kill(pid, 0) != 0 && errno == ESRCH &&
        lstat(entry.path().c_str(), &status) == 0 && status.st_uid == getuid()) {
      fs::remove_all(entry.path(), none);
    }
  }
}

Handset::Handset(const Options& options)
    : clock(options.time_factor),
      daemon_(options.daemon.empty() ? phone_file("ftmd") : options.daemon) {
  clear_ended_phones(fs::temp_directory_path());
  const std::string name = kFolderName + std::to_string(getpid()) + ".XXXXXX";
  std::string base = (fs::temp_directory_path() / name).string();
  if (mkdtemp(base.data()) == nullptr) {
    throw system_error("cannot make a folder for the phone");
  }
  base_ = base;
  log_ = options.log.empty() ? base_ / "log" : options.log;
  serve_power_nodes();
  serve_class_nodes(&nodes);
  lay_phone();
  plug_devices();
  tone_party.attend(path("/dev/__properties__"));
  hub_service.start(path("/dev/socket/qmi_sns_client"),
                    [this](const std::string& payload) { return on_hub_request(payload); });
  clock.on_skip = [this](std::chrono::nanoseconds time) { return hub_service.skip(time); };
  route_calls();
  // A sleeping phone: none of its processes gets on, and its line and nodes wait.
  power.on_sleep = [this](bool asleep) { serial.note_asleep(asleep); };
  supervisor_.hold_while([this] { return power.asleep(); });
  nodes.before_access([this] { power.wait_awake(); });
}

Handset::~Handset() {
  stop();
  std::error_code ignored;
  fs::remove_all(base_, ignored);
}

// The root, the healthy phone's profile, and what no profile describes.
void Handset::lay_phone() {
  lay_root(base_ / "root");
  lay_over(phone_file("profile"));
  // The reference checksums of the profile's own trees, made when the handset was built.
  fs::copy_file(phone_file("sysmd5.zip"), base_ / "root/system/sysmd5.zip",
                fs::copy_options::skip_existing);
  const fs::path reserve = path("/dev/block/by-name/norvareserve1");
  make_partition(reserve);
  put_pcba_record(reserve, "NV2401170042");
  put_download_marks(reserve, "download start", "download over");
  modules.set_loaded("cfg80211", true);
  modules.set_needs("wlan", {"cfg80211"});
}

void Handset::lay_over(const fs::path& profile) {
  lay_profile(profile, base_ / "root", &nodes);
  if (const fs::path file = profile / "sensors"; fs::exists(file)) {
    sensors.read_sensors(file);
  }
  if (fs::exists(profile / fs::path(kSoundControls).relative_path())) {
    sound.describe(read_file(kSoundControls).value_or(""));
  }
}

void Handset::plug_devices() {
  add_device("/dev/dri/card0", &display);
  add_device("/dev/snd/controlC0", &sound);
  add_device("/dev/media0", &cameras.video);
  add_device("/dev/media1", &cameras.request_manager);
  for (int i = 0; i < Cameras::kSensors; ++i) {
    add_device("/dev/v4l-subdev" + std::to_string(i), &cameras.sensor(i));
  }
  add_device("/dev/input/event0", &volume_keys);
  add_device("/dev/input/event1", &power_key);
  add_device("/dev/input/event2", &pointer);
}

void Handset::serve_power_nodes() {
  struct PowerNode {
    const char* path;
    std::string (PowerInterfaces::*show)();  // null: a read gives the node's value
    int (PowerInterfaces::*store)(const std::string& text);
  };
  static constexpr PowerNode kPowerNodes[] = {
      {"/sys/power/state", nullptr, &PowerInterfaces::store_state},
      {"/sys/power/wakeup_count", &PowerInterfaces::show_wakeup_count,
       &PowerInterfaces::store_wakeup_count},
      {"/sys/power/wake_lock", &PowerInterfaces::show_wake_locks,
       &PowerInterfaces::store_wake_lock},
      {"/sys/power/wake_unlock", nullptr, &PowerInterfaces::store_wake_unlock},
      {"/sys/class/rtc/rtc0/wakealarm", &PowerInterfaces::show_alarm,
       &PowerInterfaces::store_alarm},
  };
  nodes.set("/sys/power/state", "freeze mem\n");
  for (const PowerNode& node : kPowerNodes) {
    if (node.show != nullptr) {
      nodes.on_read(node.path, [this, show = node.show] { return (power.*show)(); });
    }
    nodes.on_write(node.path, [this, store = node.store](const std::string& text) {
      return (power.*store)(text);
    });
  }
}

std::optional<HubService::Reply> Handset::on_hub_request(const std::string& payload) {
  const std::optional<SensorHub::Reply> reply = sensors.answer(payload);
  if (!reply.has_value()) {
    return std::nullopt;
  }
  HubService::Reply sent = {.reports = reply->events};
  if (reply->stream.has_value()) {
    sent.stream = {.period = reply->stream->period, .next = [this, sensor = reply->stream->sensor] {
                     return sensors.sample(sensor);
                   }};
  } else if (reply->later.has_value()) {
    sent.stream = {.period = reply->later->delay,
                   .next = [event = std::optional(reply->later->event)]() mutable {
                     return std::exchange(event, std::nullopt);
                   }};
  }
  return sent;
}

fs::path Handset::path(const std::string& phone_path) const {
  return base_ / "root" / fs::path(phone_path).relative_path();
}

void Handset::write_file(const std::string& phone_path, const std::string& content) {
  fs::create_directories(path(phone_path).parent_path());
  std::ofstream(path(phone_path), std::ios::binary) << content;
}

static std::optional<std::string> read_whole(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) {
    return std::nullopt;
  }
  return std::string{std::istreambuf_iterator<char>(stream), {}};
}

std::optional<std::string> Handset::read_file(const std::string& phone_path) const {
  return read_whole(path(phone_path));
}

void Handset::set_property(const std::string& name, const std::string& value) {
  // Written aside and renamed, as the daemon's own property calls do it.
  const fs::path folder = path("/dev/__properties__");
  std::ofstream(folder / ".handset") << value;
  fs::rename(folder / ".handset", folder / name);
}

std::optional<std::string> Handset::property(const std::string& name) const {
  return read_file("/dev/__properties__/" + name);
}

// All are appended to: who writes goes on at the new end.
void Handset::cut_large_files() const {
  constexpr uintmax_t kMost = 64U << 20;
  for (const fs::path& file : {base_ / "log", base_ / "output"}) {
    std::error_code none;
    const uintmax_t size = fs::file_size(file, none);
    if (!none && size > kMost) {
      fs::resize_file(file, 0, none);
    }
  }
}

std::string Handset::log() const {
  return read_whole(log_).value_or("");
}

std::string Handset::output() const {
  return read_whole(base_ / "output").value_or("");
}

void Handset::add_device(const std::string& phone_path, Device* device) {
  devices_.add(phone_path, device);
  write_file(phone_path, "");  // for those who list the folder or look the file up
}

std::optional<Handset::Key> Handset::key(const std::string& name) {
  open_devices();  // who has closed its device no longer listens
  if (name == "power") {
    return Key{&power_key, KEY_POWER};
  }
  if (name == "volup") {
    return Key{&volume_keys, KEY_VOLUMEUP};
  }
  if (name == "voldown") {
    return Key{&volume_keys, KEY_VOLUMEDOWN};
  }
  return std::nullopt;
}

void Handset::remove_device(const std::string& phone_path) {
  devices_.remove(phone_path);
  fs::remove(path(phone_path));
}

void Handset::start(const StartOptions& options) {
  stop();
  const std::string tty = options.serial.value_or(serial.phone_tty());
  if (tty.empty()) {
    fs::remove(path(kSerialTty));
  } else {
    write_file(kSerialTty, "");  // the place of the bind
  }
  StageTraps traps = options.faults ? StageTraps::kCallsAndFaults : StageTraps::kCalls;
  if (options.every_call) {
    traps = StageTraps::kEveryCall;
  }
  if (!options.traps) {
    traps = StageTraps::kNone;
  }
  StageProcess stage({.stage = phone_file("handset_stage"),
                      .root = base_ / "root",
                      .tty = tty,
                      .daemon = daemon_,
                      .output = base_ / "output",
                      .log = options.log ? log_ : fs::path("/dev/null"),
                      .preload = options.preload},
                     traps);
  pid_ = stage.pid();
  status_.reset();
  devices_.set_daemon(pid_);
  serial.note_running(true);
  const int reads_before = serial.reads();
  try {
    const bool built =
        stage.wait_built([this](int fd) { nodes.serve(fd); },
                         [this](int fd) {
                           recorder_.begin(pid_, base_ / "root");
                           supervisor_.serve(fd, [this] { serial.note_running(false); });
                         });
    if (!built) {
      throw std::runtime_error("the stage ended early; its log ends:\n" + log());
    }
  } catch (...) {
    stop();
    throw;
  }
  if (options.wait_ready && options.traps &&
      !serial.wait_reads(reads_before + 1, std::chrono::seconds(60))) {
    throw std::runtime_error("the daemon did not come up; its log ends:\n" + log());
  }
}

void Handset::stop() {
  if (pid_ == 0) {
    return;
  }
  kill(-pid_, SIGKILL);
  if (!status_.has_value()) {
    kill(pid_, SIGKILL);  // the stage may not lead its group yet
    waitpid(pid_, nullptr, 0);
  }
  supervisor_.wait_ended();
  nodes.wait_unmounted();
  serial.note_running(false);
  devices_.close_all();
  pid_ = 0;
}

std::optional<int> Handset::wait_exit(std::chrono::seconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  for (;;) {
    int status = 0;
    if (pid_ == 0 || status_.has_value()) {
      return status_;
    }
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      status_ = status;
    } else if (std::chrono::steady_clock::now() >= end) {
      return std::nullopt;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
}

size_t Handset::open_devices(const std::string& kind) {
  return devices_.count_open(kind);
}

size_t Handset::open_descriptors() const {
  const fs::directory_iterator all("/proc/" + std::to_string(pid_) + "/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

std::vector<std::string> Handset::command(std::string_view line, std::chrono::seconds limit) {
  serial.take_replies();
  const int reads = serial.reads();
  serial.send(line);
  if (!serial.wait_reads(reads + 1, limit)) {
    throw std::runtime_error(std::string(power.asleep() ? "the phone sleeps" : "no answer") +
                             " at the end of: " + std::string(line) + "\nthe daemon's log ends:\n" +
                             log());
  }
  return serial.take_replies();
}

void Handset::fail(const std::string& phone_path, int call, int error, const Faults::Which& which) {
  faults_.fail(phone_path, call, error, which);
}

void Handset::shorten(const std::string& phone_path, int call, size_t most,
                      const Faults::Which& which) {
  faults_.shorten(phone_path, call, most, which);
}

}  // namespace handset
