// Starting the stage and listening to it; see stage_process.h.

#include "handset/links/stage_process.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <vector>

namespace handset {

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

static std::runtime_error system_error(const std::string& what, int error) {
  return std::runtime_error(what + ": " + strerror(error));
}

StageProcess::StageProcess(const Files& files, StageTraps traps) {
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) != 0) {
    throw system_error("cannot make a socket", errno);
  }
  std::vector<std::string> arguments = {files.stage.string(),
                                        files.root.string(),
                                        files.tty,
                                        files.daemon.string(),
                                        std::to_string(static_cast<int>(traps)),
                                        files.preload};
  std::vector<std::string> variables = environment();

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  const int flags = O_WRONLY | O_CREAT | O_APPEND;
  posix_spawn_file_actions_addopen(&actions, 1, files.output.c_str(), flags, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, files.log.c_str(), flags, 0644);
  posix_spawn_file_actions_adddup2(&actions, sockets[1], kStageSocket);
  // What the desk's program does with signals is no matter of the phone.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t signals;
  sigfillset(&signals);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  const int error = posix_spawn(&pid_, files.stage.c_str(), &actions, &attributes,
                                pointers(&arguments).data(), pointers(&variables).data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  close(sockets[1]);
  if (error != 0) {
    close(sockets[0]);
    throw system_error("cannot start the stage", error);
  }
  socket_ = sockets[0];
}

StageProcess::~StageProcess() {
  close(socket_);
}

bool StageProcess::wait_built(const std::function<void(int fd)>& serve_fuse,
                              const std::function<void(int fd)>& serve_traps) {
  for (;;) {
    char body[512];
    iovec vector = {body, sizeof(body)};
    char control[CMSG_SPACE(sizeof(int))];
    msghdr message = {};
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t size = recvmsg(socket_, &message, MSG_CMSG_CLOEXEC);
    if (size < 1) {
      return false;
    }
    int fd = -1;
    if (const cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr) {
      memcpy(&fd, CMSG_DATA(header), sizeof(fd));
    }
    switch (static_cast<StageMessage>(body[0])) {
      case StageMessage::kFuse:
        serve_fuse(fd);
        break;
      case StageMessage::kTraps:
        serve_traps(fd);
        return true;
      case StageMessage::kUntrapped:
        return true;
      case StageMessage::kFailed:
        throw std::runtime_error(std::string(body + 1, static_cast<size_t>(size) - 1));
    }
  }
}

}  // namespace handset
