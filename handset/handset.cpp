// The handset: root, daemon process and the routing of trapped calls; see handset.h.

#include "handset/handset.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/input-event-codes.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <thread>

#include "handset/links/stage.h"
#include "handset/models/partitions.h"
#include "handset/profile.h"

namespace handset {

namespace fs = std::filesystem;

static const char kSerialTty[] = "/dev/ttyMSM0";
static const char kMemoryCard[] = "/mnt/sdcard";
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
  lay_root();
  lay_profile(FTM_PROFILE, base_ / "root", &nodes);
  if (!options.profile.empty()) {
    lay_profile(options.profile, base_ / "root", &nodes);
  }
  // The reference checksums of the profile's own trees, made when the handset was built.
  fs::copy_file(FTM_SYSMD5, base_ / "root/system/sysmd5.zip", fs::copy_options::skip_existing);
  make_partition(path("/dev/block/by-name/norvareserve1"));
  put_pcba_record(path("/dev/block/by-name/norvareserve1"), "NV2401170042");
  put_download_marks(path("/dev/block/by-name/norvareserve1"), "download start", "download over");
  insert_card(MemoryCard{.block_size = 32768, .blocks = 1941504, .free_blocks = 1931264});
  modules.set_loaded("cfg80211", true);
  add_device("/dev/dri/card0", &display);
  add_device("/dev/media0", &cameras.video);
  add_device("/dev/media1", &cameras.request_manager);
  for (int i = 0; i < Cameras::kSensors; ++i) {
    add_device("/dev/v4l-subdev" + std::to_string(i), &cameras.sensor(i));
  }
  add_device("/dev/input/event0", &volume_keys);
  add_device("/dev/input/event1", &power_key);
  add_device("/dev/input/event2", &pointer);
  sound.describe(read_file(kSoundControls).value_or(""));
  add_device("/dev/snd/controlC0", &sound);
  session_party.attend(path("/dev/__properties__"));
  const fs::path own_sensors = options.profile / "sensors";
  sensors.start(!options.profile.empty() && fs::exists(own_sensors)
                    ? own_sensors
                    : fs::path(FTM_PROFILE) / "sensors",
                path("/dev/socket/qmi_sns_client"));
  clock.on_skip = [this](std::chrono::nanoseconds time) { return sensors.skip(time); };

  supervisor_.observe(
      [this](const TrappedCall& call, const Answer& answer) { recorder_.record(call, answer); });
  supervisor_.handle(SYS_openat, [this](const TrappedCall& call) { return on_openat(call); });
  supervisor_.handle(SYS_ioctl, [this](const TrappedCall& call) { return on_ioctl(call); });
  supervisor_.handle(SYS_statfs, [this](const TrappedCall& call) { return on_statfs(call); });
  for (const int call : kFaultCalls) {
    supervisor_.handle(call, [this](const TrappedCall& call) {
      return Answer::fault(fault(call.link(call.descriptor()), call.number));
    });
  }
  supervisor_.handle(SYS_clone3, [this](const TrappedCall& call) { return on_clone3(call); });
  supervisor_.handle(SYS_read, [this](const TrappedCall& call) { return on_read(call); });
  supervisor_.handle(SYS_write, [this](const TrappedCall& call) { return on_write(call); });
  supervisor_.handle(SYS_sendto, [this](const TrappedCall& call) { return on_sendto(call); });
  supervisor_.handle(SYS_clock_nanosleep,
                     [this](const TrappedCall& call) { return clock.clock_nanosleep(call); });
  supervisor_.handle(SYS_sync, [this](const TrappedCall& call) { return power.sync(call); });
  supervisor_.handle(SYS_init_module,
                     [this](const TrappedCall& call) { return modules.init_module(call); });
  supervisor_.handle(SYS_finit_module,
                     [this](const TrappedCall& call) { return modules.finit_module(call); });
  supervisor_.handle(SYS_delete_module,
                     [this](const TrappedCall& call) { return modules.delete_module(call); });
}

Handset::~Handset() {
  stop();
  std::error_code ignored;
  fs::remove_all(base_, ignored);
}

// What every phone has, whatever its profile says.
void Handset::lay_root() {
  const fs::path root = base_ / "root";
  for (const char* folder :
       {"dev/block/bootdevice/by-name", ".nodes", ".proc", "sys", "proc", "usr",
        "dev/__properties__", "dev/socket", "tmp", "odm/etc", "odm/bin", "persist/ftm_admin",
        "vendor/bin", "system", "mnt/vendor/norvareserve/ftm_admin", "data", "cache", "persist",
        "d"}) {
    fs::create_directories(root / folder);
  }
  for (const char* folder : {"bin", "sbin", "lib", "lib32", "lib64", "libx32"}) {
    const fs::path on_host = fs::path("/") / folder;
    if (fs::is_symlink(on_host)) {
      fs::copy_symlink(on_host, root / folder);
    } else if (fs::is_directory(on_host)) {
      fs::create_directory(root / folder);
    }
  }
  // The unit that shows the phone's storage to be UFS.
  std::ofstream(root / "dev/block/sda").flush();
  // Both names of the partitions' folder lead to the same images.
  fs::create_symlink("bootdevice/by-name", root / "dev/block/by-name");
  // Places for binds.
  for (const char* file :
       {"dev/null", "dev/zero", "dev/full", "dev/urandom", "dev/ttyMSM0", "odm/bin/ftmd"}) {
    std::ofstream(root / file).flush();
  }
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
  devices_[phone_path] = device;
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
  devices_.erase(phone_path);
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

void Handset::start(const StartOptions& options) {
  stop();
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) != 0) {
    throw system_error("cannot make a socket");
  }
  const std::string tty = options.serial.value_or(serial.phone_tty());
  if (tty.empty()) {
    fs::remove(path(kSerialTty));
  } else {
    write_file(kSerialTty, "");  // the place of the bind
  }
  const StageTraps traps = !options.traps     ? StageTraps::kNone
                           : !options.threads ? StageTraps::kCallsAndThreads
                           : options.faults   ? StageTraps::kCallsAndFaults
                                              : StageTraps::kCalls;
  std::vector<std::string> arguments = {FTM_STAGE, (base_ / "root").string(), tty, daemon_.string(),
                                        std::to_string(static_cast<int>(traps))};
  std::vector<std::string> variables = environment();

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, (base_ / "output").c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, options.log ? (base_ / "log").c_str() : "/dev/null",
                                   O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&actions, sockets[1], kStageSocket);
  const int error = posix_spawn(&pid_, FTM_STAGE, &actions, nullptr, pointers(&arguments).data(),
                                pointers(&variables).data());
  posix_spawn_file_actions_destroy(&actions);
  close(sockets[1]);
  if (error != 0) {
    pid_ = 0;
    close(sockets[0]);
    errno = error;
    throw system_error("cannot start the stage");
  }
  status_.reset();
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
  {
    const std::lock_guard lock(devices_mutex_);
    opened_.clear();
  }
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

void Handset::fail(const std::string& phone_path, int call, int error) {
  const std::lock_guard lock(faults_mutex_);
  if (error == 0) {
    faults_.erase({phone_path, call});
  } else {
    faults_[{phone_path, call}] = error;
  }
}

int Handset::fault(const std::string& file, int call) const {
  const std::lock_guard lock(faults_mutex_);
  const auto found = faults_.find({file, call});
  return found == faults_.end() ? 0 : found->second;
}

void Handset::insert_card(const std::optional<MemoryCard>& card) {
  const std::lock_guard lock(card_mutex_);
  card_ = card;
}

Answer Handset::on_statfs(const TrappedCall& call) {
  if (call.text(call.arguments[0]) != kMemoryCard) {
    return Answer::kernel();
  }
  const std::lock_guard lock(card_mutex_);
  if (!card_.has_value()) {
    return Answer::result(-ENOENT);
  }
  struct statfs status = {};
  status.f_type = 0x4d44;  // FAT
  status.f_bsize = static_cast<int64_t>(card_->block_size);
  status.f_blocks = card_->blocks;
  status.f_bfree = card_->free_blocks;
  status.f_bavail = card_->free_blocks;
  status.f_namelen = 255;
  return Answer::result(call.write(call.arguments[1], &status, sizeof(status)) ? 0 : -EFAULT);
}

Answer Handset::on_clone3(const TrappedCall& call) {
  uint64_t flags = 0;  // the first field of the caller's record
  call.read(call.arguments[0], &flags, sizeof(flags));
  return Answer::fault(fault((flags & CLONE_THREAD) != 0 ? "thread" : "process", SYS_clone3));
}

Answer Handset::on_openat(const TrappedCall& call) {
  std::string opened = call.text(call.arguments[1]);
  if (opened.empty()) {
    return Answer::kernel();
  }
  if (opened[0] != '/') {
    // The daemon works in "/"; a folder's descriptor names its place in the phone.
    const std::string folder = call.descriptor() == AT_FDCWD ? "" : call.link(call.descriptor());
    opened = folder + "/" + opened;
  }
  opened = fs::path(opened).lexically_normal().string();
  if (const int error = fault(opened, SYS_openat); error != 0) {
    return Answer::fault(error);
  }
  const auto device = devices_.find(opened);
  if (device == devices_.end()) {
    return Answer::kernel();
  }
  const std::lock_guard lock(devices_mutex_);
  close_devices_unheld();
  OpenedDevice answer = device->second->open(call, static_cast<int>(call.arguments[2]));
  if (answer.fd < 0) {
    return Answer::result(answer.fd);
  }
  const std::string link = "/proc/self/fd/" + std::to_string(answer.fd);
  char name[4096] = {};
  if (readlink(link.c_str(), name, sizeof(name) - 1) > 0 && answer.file != nullptr) {
    opened_[name] = std::move(answer.file);
    injecting_ = name;
  }
  return Answer::descriptor(answer.fd);
}

// A close is no trapped call: what the daemon no longer holds has been closed.
void Handset::close_devices_unheld() {
  std::set<std::string> held;
  std::error_code ended;
  for (fs::directory_iterator entry("/proc/" + std::to_string(pid_) + "/fd", ended), none;
       !ended && entry != none; entry.increment(ended)) {
    std::error_code closed;
    held.insert(fs::read_symlink(entry->path(), closed).string());
  }
  // The latest may be on its way to the daemon still.
  std::erase_if(opened_, [&](const auto& opened) {
    return held.count(opened.first) == 0 && opened.first != injecting_;
  });
}

size_t Handset::open_devices(const std::string& kind) {
  const std::lock_guard lock(devices_mutex_);
  close_devices_unheld();
  return static_cast<size_t>(std::count_if(opened_.begin(), opened_.end(), [&](const auto& opened) {
    return opened.first.find(kind) != std::string::npos;
  }));
}

Answer Handset::on_ioctl(const TrappedCall& call) {
  const std::lock_guard lock(devices_mutex_);
  injecting_.clear();
  const auto file = opened_.empty() ? opened_.end() : opened_.find(call.link(call.descriptor()));
  if (file == opened_.end()) {
    return Answer::kernel();
  }
  return Answer::result(
      file->second->ioctl(call, static_cast<uint32_t>(call.arguments[1]), call.arguments[2]));
}

Answer Handset::on_read(const TrappedCall& call) {
  const std::string file = call.link(call.descriptor());
  if (file == kSerialTty && call.arguments[2] == kSerialReadSize) {
    {
      const std::lock_guard lock(devices_mutex_);
      injecting_.clear();
    }
    journal.set_worker(call.thread);
    serial.note_read();
  }
  return Answer::fault(fault(file, SYS_read));
}

Answer Handset::on_write(const TrappedCall& call) {
  const std::string file = call.link(call.descriptor());
  if (file != kSerialTty) {
    return Answer::fault(fault(file, SYS_write));
  }
  std::string text(call.arguments[2], '\0');
  if (!call.read(call.arguments[1], text.data(), text.size())) {
    return Answer::kernel();
  }
  const size_t taken = serial.note_reply(text);
  if (taken == text.size()) {
    return Answer::kernel();
  }
  return Answer::result(static_cast<int64_t>(taken));
}

// The only socket that the daemon sends on is the sensor hub's.
Answer Handset::on_sendto(const TrappedCall& call) {
  std::string packet(std::min<uint64_t>(call.arguments[2], 4096), '\0');
  if (call.read(call.arguments[1], packet.data(), packet.size())) {
    if (const std::string request = sensors.describe(packet); !request.empty()) {
      call.note("hub " + request);
    }
  }
  return Answer::kernel();
}

}  // namespace handset
