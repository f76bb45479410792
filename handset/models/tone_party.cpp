// The tone session's other party; see tone_party.h.

#include "handset/models/tone_party.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
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
  const int events = inotify_init1(IN_CLOEXEC);
  // A property is written aside and renamed.
  if (events < 0 || inotify_add_watch(events, folder.c_str(), IN_MOVED_TO) < 0 ||
      pipe2(stop_, O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("this machine gives no inotify: ") + strerror(errno));
  }
  thread_ = std::thread([this, events] { watch(events); });
}

ToneParty::~ToneParty() {
  if (thread_.joinable()) {
    close(stop_[1]);
    thread_.join();
    close(stop_[0]);
  }
}

void ToneParty::set_answering(bool answering) {
  answering_ = answering;
  look();
}

void ToneParty::watch(int events) {
  for (;;) {
    pollfd waiting[] = {{events, POLLIN, 0}, {stop_[0], POLLIN, 0}};
    if (poll(waiting, 2, -1) < 0 && errno != EINTR) {
      break;
    }
    if (waiting[1].revents != 0) {
      break;
    }
    alignas(inotify_event) char buffer[4096];
    if (waiting[0].revents != 0 && read(events, buffer, sizeof(buffer)) > 0) {
      look();
    }
  }
  close(events);
}

void ToneParty::look() const {
  std::ifstream stream(folder_ / kSession);
  const std::string session{std::istreambuf_iterator<char>(stream), {}};
  if (answering_ && session == "cmd_off") {
    std::ofstream(folder_ / ".party") << "cmd_finish";
    fs::rename(folder_ / ".party", folder_ / kSession);
  }
}

}  // namespace handset
