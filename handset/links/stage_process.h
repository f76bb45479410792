// The handset's end of the stage: starts the program of stage.cpp, which becomes the daemon, and
// takes what it sends while it builds the root.

#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <string>

#include "handset/links/stage.h"

namespace handset {

class StageProcess {
 public:
  struct Files {
    std::filesystem::path stage;   // the program of stage.cpp
    std::filesystem::path root;    // the phone's
    std::string tty;               // what becomes /dev/ttyMSM0; none when empty
    std::filesystem::path daemon;  // what becomes /odm/bin/ftmd
    std::filesystem::path output;  // the daemon's standard output and standard error
    std::filesystem::path log;
    std::string preload;  // a library of the phone that the daemon is loaded with; empty for none
  };

  // Starts the stage. Throws std::runtime_error where there is no process.
  StageProcess(const Files& files, StageTraps traps);
  ~StageProcess();
  StageProcess(const StageProcess&) = delete;
  StageProcess& operator=(const StageProcess&) = delete;

  // The process that becomes the daemon, by exec. It leads a process group of its own.
  pid_t pid() const {
    return pid_;
  }

  // Waits until the root is built; serve_fuse is given the mount's descriptor, and serve_traps the
  // traps' when there are any. False when the stage has ended early. Throws std::runtime_error with
  // the stage's own words when it says what fails.
  bool wait_built(const std::function<void(int fd)>& serve_fuse,
                  const std::function<void(int fd)>& serve_traps);

 private:
  pid_t pid_ = 0;
  int socket_ = -1;
};

}  // namespace handset
