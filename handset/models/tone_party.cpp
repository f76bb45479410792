// The tone session's other party; see tone_party.h.

#include "handset/models/tone_party.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace handset {

namespace fs = std::filesystem;

static const char kSession[] = "vendor.norva.mm.ftm_spk";

void ToneParty::attend(const fs::path& folder) {
  folder_ = folder;
  events_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  // A property is written aside and renamed.
  if (events_ < 0 || wake_ < 0 || inotify_add_watch(events_, folder.c_str(), IN_MOVED_TO) < 0) {
    throw std::runtime_error(std::string("this machine gives no inotify: ") + strerror(errno));
  }
  thread_ = std::thread([this] { watch(); });
}

ToneParty::~ToneParty() {
  if (thread_.joinable()) {
    ended_ = true;
    eventfd_write(wake_, 1);
    thread_.join();
  }
  for (const int fd : {events_, wake_}) {
    if (fd >= 0) {
      close(fd);
    }
  }
}

void ToneParty::set_answering(bool answering) {
  {
    const std::lock_guard lock(mutex_);
    answering_ = answering;
  }
  if (wake_ >= 0) {
    eventfd_write(wake_, 1);
  }
}

void ToneParty::watch() {
  while (!ended_) {
    look();
    pollfd waiting[] = {{events_, POLLIN, 0}, {wake_, POLLIN, 0}};
    poll(waiting, 2, -1);
    alignas(inotify_event) char buffer[4096];
    while (read(events_, buffer, sizeof(buffer)) > 0 || read(wake_, buffer, sizeof(buffer)) > 0) {
      // what has happened is seen by looking
    }
  }
}

std::string ToneParty::session() const {
  std::ifstream stream(folder_ / kSession);
  return {std::istreambuf_iterator<char>(stream), {}};
}

void ToneParty::look() {
  const std::lock_guard lock(mutex_);
  if (!answering_ || session() != "cmd_off") {
    return;
  }
  std::ofstream(folder_ / ".party") << "cmd_finish";
  // Looked at again: the daemon may have begun another session, which this answer would end.
  if (session() == "cmd_off") {
    std::error_code ignored;
    fs::rename(folder_ / ".party", folder_ / kSession, ignored);
  }
}

}  // namespace handset
