// Noting the signals; see ending.h.

#include "handset/console/ending.h"

#include <errno.h>
#include <signal.h>
#include <sys/eventfd.h>

#include <atomic>

namespace handset {

static std::atomic<int> came = 0;
static int descriptor = -1;

static void note(int signal) {
  const int error = errno;
  came = signal;
  eventfd_write(descriptor, 1);
  errno = error;
}

void catch_endings() {
  descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  struct sigaction action = {};
  action.sa_handler = note;
  action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    sigaction(signal, &action, nullptr);
  }
}

int ending() {
  return came;
}

int ending_descriptor() {
  return descriptor;
}

}  // namespace handset
