// The three hardware keys: for about five seconds after the command a thread listens on the input
// devices while the operator presses power, volume up and volume down; the row reports which it
// saw.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/input.h>
#include <pthread.h>
#include <stdint.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>

#include "core/at.h"
#include "core/bounded.h"
#include "core/log.h"
#include "core/unique.h"

#define TAG "[FTM-KEY]"

static const char kInputFolder[] = "/dev/input";
static constexpr int kMaxDevices = 16;
static constexpr int kMaxWaits = 7;
static constexpr useconds_t kWaitUs = 700 * 1000;

// Bits of the event types that a device reports (linux/input-event-codes.h).
static constexpr uint64_t kWatchedTypes = 1U << EV_KEY | 1U << EV_REL | 1U << EV_SW;
static constexpr uint64_t kPointerTypes = 1U << EV_REL | 1U << EV_ABS;

// Runs when a device can be read, with its descriptor, the epoll event bits and its slot's data.
using EvCallback = int (*)(int fd, uint32_t events, void* data);

struct EvDevice {
  UniqueFd fd;
  EvCallback callback;
  void* data;
};

// Set by the listening thread, cleared and read by the command worker.
static std::atomic<uint8_t> power_seen{0};
static std::atomic<uint8_t> volume_up_seen{0};
static std::atomic<uint8_t> volume_down_seen{0};

// Made by the worker before it starts the listening thread and closed after that has ended.
static UniqueFd epoll_fd;
static UniqueFd stop_event;  // readable: the listening thread is to end
static EvDevice ev_devices[kMaxDevices];
static int ev_count = 0;

static bool all_keys_seen() {
  return power_seen != 0 && volume_up_seen != 0 && volume_down_seen != 0;
}

// A mouse-like device, which reports relative and absolute axes at once, is not watched.
static bool is_watched(int fd) {
  uint64_t types = 0;
  return ioctl(fd, EVIOCGBIT(0, sizeof(types)), &types) >= 0 && (types & kWatchedTypes) != 0 &&
         (types & kPointerTypes) != kPointerTypes;
}

static bool watch(int fd, void* slot) {
  epoll_event event = {};
  event.events = EPOLLIN | EPOLLWAKEUP;
  event.data.ptr = slot;
  return epoll_ctl(epoll_fd.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

// Opens the input devices and registers those that report keys, 16 at most. Returns 0, or -1 when
// there is no epoll set, it has no way to end, or devices were there but none could be added to it.
static int ev_init(EvCallback callback, void* data) {
  epoll_fd.reset(epoll_create1(EPOLL_CLOEXEC));
  if (!epoll_fd.ok()) {
    return -1;
  }
  stop_event.reset(eventfd(0, EFD_CLOEXEC));
  if (!stop_event.ok() || !watch(stop_event.get(), nullptr)) {
    epoll_fd.reset();  // nobody could end the listening thread: its wait fails at once
    return -1;
  }

  bool add_failed = false;
  const UniqueDir folder(opendir(kInputFolder));
  while (folder != nullptr && ev_count < kMaxDevices) {
    const dirent* entry = readdir(folder.get());
    if (entry == nullptr) {
      break;
    }
    if (strncmp(entry->d_name, "event", strlen("event")) != 0) {
      continue;
    }
    UniqueFd fd(openat(dirfd(folder.get()), entry->d_name, O_RDONLY | O_CLOEXEC));
    if (!fd.ok() || !is_watched(fd.get())) {
      continue;
    }
    EvDevice& device = ev_devices[ev_count];
    if (!watch(fd.get(), &device)) {
      add_failed = true;
      continue;
    }
    device = {std::move(fd), callback, data};
    ++ev_count;
  }
  if (add_failed && ev_count == 0) {
    epoll_fd.reset();
    return -1;
  }
  return 0;
}

static void ev_exit() {
  while (ev_count > 0) {
    ev_devices[--ev_count].fd.reset();
  }
  epoll_fd.reset();
  stop_event.reset();
}

static_assert(sizeof(input_event) == 24, "the kernel's layout");

// A press and a release count alike: only the code is looked at.
static int input_callback(int fd, uint32_t events, void* /*data*/) {
  input_event event;
  if ((events & EPOLLIN) == 0 ||
      read(fd, &event, sizeof(event)) != static_cast<ssize_t>(sizeof(event))) {
    return -1;
  }
  if (event.type == EV_SYN) {
    return 0;
  }
  switch (event.code) {
    case KEY_VOLUMEDOWN:
      volume_down_seen = 1;
      FTM_LOGD(TAG "%s key_vol_down_down=%d\n", __func__, 1);
      break;
    case KEY_VOLUMEUP:
      volume_up_seen = 1;
      FTM_LOGD(TAG "%s key_vol_up_down=%d\n", __func__, 1);
      break;
    case KEY_POWER:
      power_seen = 1;
      FTM_LOGD(TAG "%s key_power_down =%d\n", __func__, 1);
      break;
    default:
      break;
  }
  return 0;
}

// Ends when all three keys were seen, when the wait fails, or when the worker ends the wait.
static void* input_thread(void*) {
  at_send_result("wait input event in 5s\n");
  while (!all_keys_seen()) {
    epoll_event events[kMaxDevices + 1];
    const int ready = epoll_wait(epoll_fd.get(), events, ev_count + 1, -1);
    if (ready < 0 && errno != EINTR) {
      break;
    }
    for (int i = 0; i < ready; ++i) {
      const auto* device = static_cast<const EvDevice*>(events[i].data.ptr);
      if (device == nullptr) {
        return nullptr;
      }
      device->callback(device->fd.get(), events[i].events, device->data);
    }
  }
  return nullptr;
}

static int at_volume_power_key_test(const char*) {
  power_seen = 0;
  volume_up_seen = 0;
  volume_down_seen = 0;
  at_send_result("AT_KEY test is start\n");
  ev_init(input_callback, nullptr);
  pthread_t listener;
  const bool listening = pthread_create(&listener, nullptr, input_thread, nullptr) == 0;
  for (int waits = 0; waits < kMaxWaits && !all_keys_seen(); ++waits) {
    usleep(kWaitUs);
  }
  // The thread is ended, and joined, before its descriptors are closed: closing an epoll set does
  // not wake who waits on it, and a number that is closed could be another file's when it is used.
  if (listening) {
    eventfd_write(stop_event.get(), 1);
    pthread_join(listener, nullptr);
  }
  ev_exit();

  char reply[128] = {};
  bounded_format(reply, sizeof(reply), "POWER_KEY:%d, VOL+:%d, VOL-:%d, \n", power_seen.load(),
                 volume_up_seen.load(), volume_down_seen.load());
  at_send_result(reply);
  at_send_result(all_keys_seen() ? "OK\r\n" : "ERROR\n");
  at_send_result("AT_KEY test is end\n");
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "volume_power_key_test",
     .command = "AT+KEY",
     .handler = at_volume_power_key_test},
};

FTM_PLAIN_MODULE(volume_power_key, 4, TAG, rows)
