// The handset: its parts and the daemon's process; see handset.h. The trapped calls are answered in
// handset_calls.cpp.

#include "handset/handset.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/input-event-codes.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include "handset/links/stage.h"
#include "handset/models/partitions.h"
#include "handset/root.h"

namespace handset {

namespace fs = std::filesystem;

static const char kSoundControls[] = "/dev/snd/controls";
static const char kProgramCalls[] = "/data/program_calls";

static std::runtime_error system_error(const std::string& what) {
  return std::runtime_error(what + ": " + strerror(errno));
}

Handset::Handset(const Options& options) : clock(options.time_factor), daemon_(options.daemon) {
  std::string base = (fs::temp_directory_path() / "handset.XXXXXX").string();
  if (mkdtemp(base.data()) == nullptr) {
    throw system_error("cannot make a folder for the phone");
  }
  base_ = base;
  serve_power_nodes();
  lay_phone(options.profile);
  plug_devices();
  tone_party.attend(path("/dev/__properties__"));
  hub_service.start(path("/dev/socket/qmi_sns_client"),
                    [this](const std::string& payload) { return on_hub_request(payload); });
  clock.on_skip = [this](std::chrono::nanoseconds time) { return hub_service.skip(time); };
  route_calls();
}

Handset::~Handset() {
  stop();
  std::error_code ignored;
  fs::remove_all(base_, ignored);
}

// The root, the healthy phone's profile, what is laid over it, and what no profile describes.
void Handset::lay_phone(const fs::path& profile) {
  lay_root(base_ / "root");
  fs::path sensors_file = fs::path(FTM_PROFILE) / "sensors";
  lay_profile(FTM_PROFILE, base_ / "root", &nodes);
  if (!profile.empty()) {
    lay_profile(profile, base_ / "root", &nodes);
    if (fs::exists(profile / "sensors")) {
      sensors_file = profile / "sensors";
    }
  }
  sensors.read_sensors(sensors_file);
  sound.describe(read_file(kSoundControls).value_or(""));
  // The reference checksums of the profile's own trees, made when the handset was built.
  fs::copy_file(FTM_SYSMD5, base_ / "root/system/sysmd5.zip", fs::copy_options::skip_existing);
  const fs::path reserve = path("/dev/block/by-name/norvareserve1");
  make_partition(reserve);
  put_pcba_record(reserve, "NV2401170042");
  put_download_marks(reserve, "download start", "download over");
  modules.set_loaded("cfg80211", true);
  modules.set_needs("wlan", {"cfg80211"});
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

std::string Handset::log() const {
  return read_whole(base_ / "log").value_or("");
}

std::string Handset::output() const {
  return read_whole(base_ / "output").value_or("");
}

std::vector<std::string> Handset::program_calls() const {
  std::ifstream stream(path(kProgramCalls));
  std::vector<std::string> calls;
  for (std::string line; std::getline(stream, line);) {
    calls.push_back(line);
  }
  return calls;
}

void Handset::add_device(const std::string& phone_path, Device* device) {
  devices_.add(phone_path, device);
  write_file(phone_path, "");  // for those who list the folder or look the file up
}

bool Handset::press_key(const std::string& name) {
  open_devices();  // who has closed its device no longer listens
  if (name == "power") {
    power_key.press(KEY_POWER);
  } else if (name == "volup") {
    volume_keys.press(KEY_VOLUMEUP);
  } else if (name == "voldown") {
    volume_keys.press(KEY_VOLUMEDOWN);
  } else {
    return false;
  }
  return true;
}

void Handset::remove_device(const std::string& phone_path) {
  devices_.remove(phone_path);
  fs::remove(path(phone_path));
}

// The daemon's environment: the stand-in programs come before the desk's own, and the sanitizers
// keep their settings.
static std::vector<std::string> environment() {
  std::vector<std::string> variables = {
      "PATH=/vendor/bin:/system/bin:/usr/sbin:/usr/bin:/sbin:/bin",
      "TZ=UTC0",  // the root has no zone file: without this each log line looks for one
  };
  // A report of any sanitizer ends the daemon, so that the next command fails on it.
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
    const char* value = getenv(name);
    variables.push_back(std::string(name) + "=halt_on_error=1:" + (value == nullptr ? "" : value));
  }
  return variables;
}

static std::vector<char*> pointers(std::vector<std::string>* texts) {
  std::vector<char*> all;
  for (std::string& text : *texts) {
    all.push_back(text.data());
  }
  all.push_back(nullptr);
  return all;
}

static StageTraps stage_traps(const Handset::StartOptions& options) {
  if (!options.traps) {
    return StageTraps::kNone;
  }
  if (!options.threads) {
    return StageTraps::kCallsAndThreads;
  }
  return options.faults ? StageTraps::kCallsAndFaults : StageTraps::kCalls;
}

void Handset::start(const StartOptions& options) {
  stop();
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) != 0) {
    throw system_error("cannot make a socket");
  }
  const int error = spawn_stage(options, sockets[1]);
  close(sockets[1]);
  if (error != 0) {
    close(sockets[0]);
    errno = error;
    throw system_error("cannot start the stage");
  }
  status_.reset();
  devices_.set_daemon(pid_);
  serial.note_running(true);
  const int reads_before = serial.reads();
  try {
    receive_stage(sockets[0]);
  } catch (...) {
    close(sockets[0]);
    stop();
    throw;
  }
  close(sockets[0]);
  if (options.wait_ready && options.traps &&
      !serial.wait_reads(reads_before + 1, std::chrono::seconds(60))) {
    throw std::runtime_error("the daemon did not come up; its log ends:\n" + log());
  }
}

// Starts the stage program with its end of the socket. 0, or an errno when there is no process.
int Handset::spawn_stage(const StartOptions& options, int socket) {
  const std::string tty = options.serial.value_or(serial.phone_tty());
  if (tty.empty()) {
    fs::remove(path(kSerialTty));
  } else {
    write_file(kSerialTty, "");  // the place of the bind
  }
  std::vector<std::string> arguments = {FTM_STAGE, (base_ / "root").string(), tty, daemon_.string(),
                                        std::to_string(static_cast<int>(stage_traps(options)))};
  std::vector<std::string> variables = environment();
  const std::string log = options.log ? (base_ / "log").string() : "/dev/null";

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, (base_ / "output").c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&actions, socket, kStageSocket);
  const int error = posix_spawn(&pid_, FTM_STAGE, &actions, nullptr, pointers(&arguments).data(),
                                pointers(&variables).data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    pid_ = 0;
  }
  return error;
}

// Takes the descriptors that the stage sends while it builds the root.
void Handset::receive_stage(int socket) {
  for (;;) {
    char body[512];
    iovec vector = {body, sizeof(body)};
    char control[CMSG_SPACE(sizeof(int))];
    msghdr message = {};
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t size = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    if (size < 1) {
      throw std::runtime_error("the stage ended early; its log ends:\n" + log());
    }
    int fd = -1;
    if (const cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr) {
      memcpy(&fd, CMSG_DATA(header), sizeof(fd));
    }
    switch (static_cast<StageMessage>(body[0])) {
      case StageMessage::kFuse:
        nodes.serve(fd);
        break;
      case StageMessage::kTraps:
        recorder_.begin(pid_, base_ / "root");
        supervisor_.serve(fd, [this] { serial.note_running(false); });
        return;
      case StageMessage::kUntrapped:
        return;
      case StageMessage::kFailed:
        throw std::runtime_error(std::string(body + 1, static_cast<size_t>(size) - 1));
    }
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
    throw std::runtime_error("no answer to the end of: " + std::string(line) +
                             "\nthe daemon's log ends:\n" + log());
  }
  return serial.take_replies();
}

void Handset::fail(const std::string& phone_path, int call, int error, int nth) {
  faults_.fail(phone_path, call, error, nth);
}

void Handset::shorten(const std::string& phone_path, int call, size_t most, int nth) {
  faults_.shorten(phone_path, call, most, nth);
}

}  // namespace handset
