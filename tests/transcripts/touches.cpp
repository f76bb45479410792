// Trapped calls as touches; see touches.h. A call counts whatever comes of it: what fails on this
// phone is there on another.

#include "tests/transcripts/touches.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

using handset::Answer;
using handset::Handset;
using handset::TrappedCall;

static const char kProperties[] = "/dev/__properties__/";

// The path that the call names in the text at an address. A relative one begins at the folder of a
// descriptor, or where the caller works.
static std::string path_at(const TrappedCall& call, uint64_t address, int folder = AT_FDCWD) {
  const std::string named = call.text(address);
  if (named.empty() || named[0] == '/') {
    return fs::path(named).lexically_normal().string();
  }
  std::error_code ended;
  const fs::path start =
      folder == AT_FDCWD ? fs::read_symlink("/proc/" + std::to_string(call.thread) + "/cwd", ended)
                         : fs::path(call.link(folder));
  return (start / named).lexically_normal().string();
}

void TouchWatch::attach(Handset* phone) {
  phone_ = phone;
  phone->intercept([this](const TrappedCall& call) {
    if (!is_stand_in(call.thread)) {
      note(call);
    }
    return Answer::kernel();
  });
}

std::set<std::string> Touches::lines() const {
  const std::lock_guard lock(mutex_);
  return lines_;
}

void Touches::add(const std::string& how, const std::string& what) {
  const std::lock_guard lock(mutex_);
  if (!what.empty() && !what.starts_with(kProperties)) {  // the desk's place of properties
    lines_.insert(how + " " + what);
  }
}

static pid_t parent(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("PPid:")) {
      return static_cast<pid_t>(std::stol(line.substr(5)));
    }
  }
  return 0;
}

bool TouchWatch::is_stand_in(pid_t process) {
  if (process <= 1 || process == phone_->pid()) {
    return false;
  }
  const auto known = stand_ins_.find(process);
  if (known != stand_ins_.end()) {
    return known->second;
  }
  return stand_ins_[process] = is_stand_in(parent(process));
}

void TouchWatch::note_open(const TrappedCall& call) {
  const std::string path = path_at(call, call.arguments[1], call.descriptor());
  const auto flags = static_cast<int>(call.arguments[2]);
  if (path.starts_with(kProperties)) {
    const std::string name = path.substr(sizeof(kProperties) - 1);
    touches_->add("get", name.starts_with('.') ? "" : name);  // a dot: a value on its way
    return;
  }
  std::error_code none;
  if ((flags & O_DIRECTORY) != 0 || fs::is_directory(phone_->path(path), none)) {
    touches_->add("list", path);
    return;
  }
  if ((flags & O_ACCMODE) != O_WRONLY) {
    touches_->add("read", path);
  }
  if ((flags & O_ACCMODE) != O_RDONLY) {
    touches_->add("write", path);
  }
  if ((flags & O_CREAT) != 0) {
    touches_->add("create", path);
  }
}

// A property is written aside and renamed.
void TouchWatch::note_rename(const TrappedCall& call) {
  const std::string to = path_at(call, call.arguments[3], static_cast<int>(call.arguments[2]));
  if (to.starts_with(kProperties)) {
    touches_->add("set", to.substr(sizeof(kProperties) - 1));
  } else {
    touches_->add("rename", path_at(call, call.arguments[1], call.descriptor()));
    touches_->add("rename", to);
  }
}

// A shell tries every folder of its path: only programs that are there count.
void TouchWatch::note_program(const TrappedCall& call) {
  if (call.thread == phone_->pid()) {
    return;  // becomes the daemon
  }
  const std::string file = path_at(call, call.arguments[0]);
  std::error_code none;
  if (fs::exists(phone_->path(file), none)) {
    stand_ins_[call.thread] = true;
    touches_->add("run", file);
  } else if (fs::exists(file, none)) {
    touches_->add("run", file);
  }
}

void TouchWatch::note(const TrappedCall& call) {
  const auto named = [&](int index) { return path_at(call, call.arguments[index]); };
  const auto named_in_folder = [&] { return path_at(call, call.arguments[1], call.descriptor()); };
  switch (call.number) {
    case SYS_openat:
      return note_open(call);
    case SYS_unlinkat:
      return touches_->add((call.arguments[2] & AT_REMOVEDIR) != 0 ? "rmdir" : "remove",
                           named_in_folder());
    case SYS_faccessat:
      return touches_->add((call.arguments[2] & R_OK) != 0 ? "ask" : "look", named_in_folder());
    case SYS_mkdirat:
      return touches_->add("mkdir", named_in_folder());
    case SYS_renameat:
      return note_rename(call);
    case SYS_fchmodat:
      return touches_->add("chmod", named_in_folder());
    case SYS_fchownat:
      return touches_->add("chown", named_in_folder());
    case SYS_fchmod:
      return touches_->add("chmod", call.link(call.descriptor()));
    case SYS_statfs:
      return touches_->add("statfs", named(0));
    case SYS_ioctl:
      return touches_->add("control", phone_->device(call));
    case SYS_execve:
      return note_program(call);
    case SYS_init_module:
      return touches_->add("load", "module");
    case SYS_delete_module:
      return touches_->add("unload", "module");
    default:
      return;
  }
}
