// Trapped calls as journal entries; see call_recorder.h.

#include "handset/links/call_recorder.h"

#include <fcntl.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

#include "handset/links/call_form.h"
#include "handset/visible.h"

namespace handset {

namespace fs = std::filesystem;

static const char kSerialTty[] = "/dev/ttyMSM0";
static const char kProperties[] = "/dev/__properties__/";
static const char kProgram[] = "ftmd";

static bool begins(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

static bool is_node(const std::string& path) {
  return begins(path, "/sys/") || begins(path, "/proc/");
}

// A file that the phone has, and no property, memory or pipe.
static bool is_file(const std::string& path) {
  return begins(path, "/") && !begins(path, "/memfd:") && !begins(path, kProperties) &&
         path.find(" (deleted)") == std::string::npos;
}

static std::string number(uint64_t value, const char* format) {
  char text[32];
  snprintf(text, sizeof(text), format, static_cast<unsigned long long>(value));
  return text;
}

void CallRecorder::begin(pid_t daemon, const fs::path& root) {
  daemon_ = daemon;
  root_ = root;
  starting_ = 0;
  journal_->begin(daemon);
}

bool CallRecorder::is_daemon(pid_t thread) const {
  const std::string task = "/proc/" + std::to_string(daemon_) + "/task/" + std::to_string(thread);
  return access(task.c_str(), F_OK) == 0;
}

static std::string bytes_at(const TrappedCall& call, uint64_t address, size_t size) {
  std::string bytes(size, '\0');
  return call.read(address, bytes.data(), size) ? bytes : "";
}

// A path as the call names it, empty when the caller has ended meanwhile; the daemon works in "/".
static std::string path_at(const TrappedCall& call, uint64_t address, int folder = AT_FDCWD) {
  const std::string named = call.text(address);
  if (named.empty() || named[0] == '/') {
    return fs::path(named).lexically_normal().string();
  }
  return fs::path((folder == AT_FDCWD ? "" : call.link(folder)) + "/" + named)
      .lexically_normal()
      .string();
}

std::string CallRecorder::written(const TrappedCall& call) const {
  const std::string file = call.link(call.descriptor());
  const std::string bytes = bytes_at(call, call.arguments[1], call.arguments[2]);
  // A program's standard output may be a node: echo 1 > /sys/...
  if (call.descriptor() == STDOUT_FILENO && !is_node(file)) {
    return "print " + visible(bytes);
  }
  if (call.descriptor() == STDERR_FILENO || !is_file(file)) {
    return "";
  }
  return file == kSerialTty ? "< " + visible(bytes) : "write " + file + " " + visible(bytes);
}

std::string CallRecorder::written_parts(const TrappedCall& call) const {
  std::vector<iovec> parts(std::min<uint64_t>(call.arguments[2], 16));
  std::string bytes;
  if (call.read(call.arguments[1], parts.data(), parts.size() * sizeof(iovec))) {
    for (const iovec& part : parts) {
      bytes += bytes_at(call, reinterpret_cast<uint64_t>(part.iov_base), part.iov_len);
    }
  }
  if (call.descriptor() == STDERR_FILENO) {
    return log_entry(bytes, kProgram);
  }
  const std::string file = call.link(call.descriptor());
  return is_file(file) ? "write " + file + " " + visible(bytes) : "";
}

std::string CallRecorder::opened(const TrappedCall& call) const {
  const std::string path = path_at(call, call.arguments[1], call.descriptor());
  const auto flags = static_cast<int>(call.arguments[2]);
  const bool reads = (flags & O_ACCMODE) == O_RDONLY;
  if (!is_file(path) || is_node(path) || path == "/dev/urandom" || path == "/dev/zero") {
    return "";
  }
  if ((flags & O_CREAT) != 0 && !fs::exists(root_ / fs::path(path).relative_path())) {
    return "create " + path + " " + number(call.arguments[3] & 07777, "%04llo");
  }
  if ((flags & O_TRUNC) != 0) {
    return "truncate " + path;
  }
  if (reads && !begins(path, "/dev/")) {
    return "";
  }
  const bool writes_only = (flags & O_ACCMODE) == O_WRONLY;
  return "open " + path + (reads ? " read-only" : writes_only ? " write-only" : " read-write");
}

std::string CallRecorder::read_from(const TrappedCall& call) const {
  const std::string file = call.link(call.descriptor());
  return begins(file, "/dev/block/") ? "read " + file + " " + number(call.arguments[2], "%llu")
                                     : "";
}

std::string CallRecorder::sought(const TrappedCall& call) const {
  const std::string file = call.link(call.descriptor());
  // The place in a file of text is the C library's business.
  if (!begins(file, "/dev/block/")) {
    return "";
  }
  static const char* const kFrom[] = {"", " from here", " from the end"};
  return "seek " + file + " " + number(call.arguments[1], "0x%llx") +
         kFrom[std::min<uint64_t>(call.arguments[2], 2)];
}

std::string CallRecorder::synced(const TrappedCall& call) const {
  const std::string file = call.link(call.descriptor());
  return is_file(file) ? "fsync " + file : "";
}

std::string CallRecorder::cut(const TrappedCall& call) const {
  const std::string file = call.link(call.descriptor());
  return is_file(file) ? "truncate " + file + " to " + number(call.arguments[1], "%llu") : "";
}

std::string CallRecorder::removed(const TrappedCall& call) const {
  const std::string path = path_at(call, call.arguments[1], call.descriptor());
  if ((call.arguments[2] & AT_REMOVEDIR) != 0) {
    return "rmdir " + path;
  }
  return is_file(path) ? "remove " + path : "";
}

std::string CallRecorder::folder_made(const TrappedCall& call) const {
  return "mkdir " + path_at(call, call.arguments[1], call.descriptor()) + " " +
         number(call.arguments[2] & 07777, "%04llo");
}

// A property is written aside and renamed.
std::string CallRecorder::renamed(const TrappedCall& call) const {
  const std::string from = path_at(call, call.arguments[1], call.descriptor());
  const std::string to = path_at(call, call.arguments[3], call.descriptor(2));
  if (!begins(to, kProperties)) {
    return "rename " + from + " " + to;
  }
  std::ifstream stream(root_ / fs::path(from).relative_path(), std::ios::binary);
  const std::string value{std::istreambuf_iterator<char>(stream), {}};
  return "property " + to.substr(strlen(kProperties)) + " = " + visible(value);
}

std::string CallRecorder::mode_changed(const TrappedCall& call) const {
  return "chmod " + path_at(call, call.arguments[1], call.descriptor()) + " " +
         number(call.arguments[2] & 07777, "%04llo");
}

std::string CallRecorder::open_mode_changed(const TrappedCall& call) const {
  const std::string file = call.link(call.descriptor());
  return is_file(file) ? "chmod " + file + " " + number(call.arguments[1] & 07777, "%04llo") : "";
}

std::string CallRecorder::owner_changed(const TrappedCall& call) const {
  return "chown " + path_at(call, call.arguments[1], call.descriptor()) + " " +
         std::to_string(static_cast<int>(call.arguments[2])) + ":" +
         std::to_string(static_cast<int>(call.arguments[3]));
}

std::string CallRecorder::waited(const TrappedCall& call) const {
  timespec asked = {};
  call.read(call.arguments[2], &asked, sizeof(asked));
  std::ostringstream text;
  text << "wait "
       << static_cast<double>(asked.tv_sec) * 1000 + static_cast<double>(asked.tv_nsec) / 1e6
       << " ms";
  return text.str();
}

std::string CallRecorder::all_synced(const TrappedCall&) const {
  return "sync";
}

const CallRecorder::Call CallRecorder::kCalls[] = {
    {SYS_write, &CallRecorder::written},
    {SYS_writev, &CallRecorder::written_parts},
    {SYS_pwrite64, &CallRecorder::written},
    {SYS_openat, &CallRecorder::opened},
    {SYS_read, &CallRecorder::read_from},
    {SYS_lseek, &CallRecorder::sought},
    {SYS_fsync, &CallRecorder::synced},
    {SYS_fdatasync, &CallRecorder::synced},
    {SYS_ftruncate, &CallRecorder::cut},
    {SYS_unlinkat, &CallRecorder::removed},
    {SYS_mkdirat, &CallRecorder::folder_made},
    {SYS_renameat, &CallRecorder::renamed},
    {SYS_fchmod, &CallRecorder::open_mode_changed},
    {SYS_fchmodat, &CallRecorder::mode_changed},
    {SYS_fchownat, &CallRecorder::owner_changed},
    {SYS_clock_nanosleep, &CallRecorder::waited},
    {SYS_sync, &CallRecorder::all_synced},
};

// What a call came to, where the handset and not the kernel answered it.
static std::string outcome(const TrappedCall& call, const Answer& answer) {
  const bool moves_bytes = call.number == SYS_read || call.number == SYS_write;
  if (answer.kind != Answer::Kind::kResult || (answer.value == 0 && !moves_bytes)) {
    return "";
  }
  const char* name = answer.value < 0 ? strerrorname_np(static_cast<int>(-answer.value)) : nullptr;
  return " = " + (name != nullptr ? std::string(name) : std::to_string(answer.value));
}

void CallRecorder::record(const TrappedCall& call, const Answer& answer) {
  if (call.number == SYS_execve) {
    record_program(call);
    return;
  }
  if (!is_daemon(call.thread)) {
    // Of what the programs do only their writes of nodes are the phone's business.
    const std::string text = call.number == SYS_write ? written(call) : "";
    if (begins(text, "write /sys/") || begins(text, "write /proc/")) {
      journal_->add_program(text);
    }
    return;
  }
  if (call.number == SYS_clone || call.number == SYS_clone3) {
    note_clone(call, answer);
    return;
  }
  for (const Call& known : kCalls) {
    if (known.number == call.number) {
      if (const std::string text = (this->*known.text)(call); !text.empty()) {
        journal_->add(call.thread, text + outcome(call, answer));
      }
      return;
    }
  }
}

void CallRecorder::note_clone(const TrappedCall& call, const Answer& answer) {
  const bool is_thread = makes_thread(call);
  if (is_thread || answer.kind == Answer::Kind::kResult) {
    journal_->add(call.thread, (is_thread ? "thread" : "process") + outcome(call, answer));
  } else {
    starting_ = call.thread;
  }
}

static std::vector<std::string> texts_at(const TrappedCall& call, uint64_t address) {
  std::vector<std::string> texts;
  uint64_t text = 0;
  while (texts.size() < 64 && call.read(address + 8 * texts.size(), &text, sizeof(text)) &&
         text != 0) {
    texts.push_back(call.text(text));
  }
  return texts;
}

static pid_t parent(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (begins(line, "PPid:")) {
      return static_cast<pid_t>(std::stol(line.substr(5)));
    }
  }
  return 0;
}

// The daemon starts shells; what counts of their programs are the phone's own.
void CallRecorder::record_program(const TrappedCall& call) {
  const std::string file = call.text(call.arguments[0]);
  const std::vector<std::string> words = texts_at(call, call.arguments[1]);
  if (parent(call.thread) == daemon_ && starting_ != 0) {
    const bool shell = words.size() > 2 && words[1] == "-c";
    journal_->add(starting_, "run " + visible(shell ? words.back() : file));
    starting_ = 0;
  } else if (!fs::exists(root_ / fs::path(file).relative_path())) {
    // A shell tries every folder of its path.
  } else if (begins(file, "/vendor/bin/") || begins(file, "/system/bin/") ||
             begins(file, "/odm/bin/")) {
    std::string line = fs::path(file).filename().string();
    for (size_t i = 1; i < words.size(); ++i) {
      line += " " + visible(words[i]);
    }
    if (line != "ftmd") {
      journal_->add_program(line);
    }
  }
}

}  // namespace handset
