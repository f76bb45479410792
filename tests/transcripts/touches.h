// What the daemon, and the desk's shells that it starts, touch of their phone: a line for each
// file, device, property and program and what was done to it, as platform/android/check_policy.py
// reads them. What the phone's own programs do is not among them: they are stand-ins here.

#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>

#include "handset/handset.h"

// The lines of all phones of a run: "read /sys/class/leds/red/brightness", "set vendor.x.y", each
// once. The words:
//   look      asks whether it is there; ask: whether it can be read
//   read, write, create, remove, rename, chmod, chown
//   list, mkdir, rmdir
//   statfs    asks for the room of the file system at a folder
//   control   an ioctl on a device
//   run       a program
//   get, set  a property
//   load, unload  a kernel module
// Callable from any thread.
class Touches {
 public:
  void add(const std::string& how, const std::string& what);
  std::set<std::string> lines() const;

 private:
  mutable std::mutex mutex_;
  std::set<std::string> lines_;
};

// Looks on at one phone.
class TouchWatch {
 public:
  explicit TouchWatch(Touches* touches) : touches_(touches) {}

  // Before the phone starts, which must not outlive the watch.
  void attach(handset::Handset* phone);

 private:
  void note(const handset::TrappedCall& call);
  void note_open(const handset::TrappedCall& call);
  void note_rename(const handset::TrappedCall& call);
  void note_program(const handset::TrappedCall& call);
  bool is_stand_in(pid_t process);

  Touches* touches_;
  handset::Handset* phone_ = nullptr;
  std::map<pid_t, bool>
      stand_ins_;  // whether a process is one of the phone's own programs, or theirs
};
