// The suspend engine: one thread that reads the kernel's wakeup count, writes it back and then
// writes the sleep state. The kernel refuses the count when an event has come in between, so no
// wakeup is slept through. One semaphore holds the thread back; see autosuspend_ops.h.

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string_view>

#include "power/autosuspend_ops.h"
#include "power/log.h"

static const char kStatePath[] = "/sys/power/state";
static const char kWakeupCountPath[] = "/sys/power/wakeup_count";
static const char kSleepState[] = "mem";

static constexpr useconds_t kBaseSleepUs = 100 * 1000;
static constexpr useconds_t kMaxSleepUs = 60 * 1000 * 1000;

// Both live as long as the process, once opened: the suspend thread never ends.
static int state_fd = -1;
static int wakeup_count_fd = -1;

// Taken by the suspend thread around each attempt: who takes it knows that none is in progress.
static sem_t suspend_lockout;

static std::atomic<bool> initialized = false;
static std::atomic<void (*)(bool)> wakeup_callback = nullptr;

static int open_node(const char* path) {
  const int fd = TEMP_FAILURE_RETRY(open(path, O_RDWR | O_CLOEXEC));
  if (fd < 0) {
    SUSPEND_PLOGE("error opening %s", path);
  }
  return fd;
}

static bool write_text(int fd, std::string_view text) {
  return write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// Reads the whole file, of which a page is the most that a node has. The bytes read, or -1.
static ssize_t read_from_start(int fd, char (&page)[4096]) {
  if (lseek(fd, 0, SEEK_SET) != 0) {
    return -1;
  }
  size_t filled = 0;
  while (filled < sizeof(page)) {
    const ssize_t count = TEMP_FAILURE_RETRY(read(fd, page + filled, sizeof(page) - filled));
    if (count < 0) {
      return -1;
    }
    if (count == 0) {
      break;
    }
    filled += static_cast<size_t>(count);
  }
  return static_cast<ssize_t>(filled);
}

// Without the white space around it.
static std::string_view trimmed(std::string_view text) {
  constexpr char kSpace[] = " \t\n\v\f\r";
  const size_t first = text.find_first_not_of(kSpace);
  return first == std::string_view::npos
             ? std::string_view()
             : text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

static int init_state_fd() {
  if (state_fd >= 0) {
    return 0;
  }
  state_fd = open_node(kStatePath);
  if (state_fd < 0) {
    return -1;
  }
  SUSPEND_LOGV("init_state_fd success");
  return 0;
}

// Holds the semaphore. True when the device slept and resumed.
static bool suspend_with(std::string_view wakeup_count) {
  SUSPEND_LOGV("write %.*s to wakeup_count", static_cast<int>(wakeup_count.size()),
               wakeup_count.data());
  if (!write_text(wakeup_count_fd, wakeup_count)) {
    SUSPEND_PLOGE("error writing to %s", kWakeupCountPath);
    return false;
  }
  SUSPEND_LOGV("write %s to %s", kSleepState, kStatePath);
  const bool success = write_text(state_fd, kSleepState);
  if (void (*const callback)(bool) = wakeup_callback; callback != nullptr) {
    callback(success);
  }
  return success;
}

// One attempt. True when the device slept and resumed.
static bool try_suspend() {
  SUSPEND_LOGV("read wakeup_count");
  char page[4096];
  const ssize_t size = read_from_start(wakeup_count_fd, page);
  if (size < 0) {
    SUSPEND_PLOGE("error reading from %s", kWakeupCountPath);
    return false;
  }
  const std::string_view wakeup_count = trimmed({page, static_cast<size_t>(size)});
  if (wakeup_count.empty()) {
    SUSPEND_LOGE("empty wakeup count");
    return false;
  }

  // Flushed before every attempt, and logged as errors: kept as it stands.
  SUSPEND_LOGE("sync");
  sync();
  SUSPEND_LOGE("sync end");

  SUSPEND_LOGV("wait");
  if (sem_wait(&suspend_lockout) < 0) {
    SUSPEND_PLOGE("error waiting on semaphore");
    return false;
  }
  const bool success = suspend_with(wakeup_count);
  SUSPEND_LOGV("release sem");
  if (sem_post(&suspend_lockout) < 0) {
    SUSPEND_PLOGE("error releasing semaphore");
  }
  return success;
}

static void* suspend_thread_func(void*) {
  useconds_t sleep_us = kBaseSleepUs;
  bool success = true;
  for (;;) {
    sleep_us = success ? kBaseSleepUs : std::min(sleep_us * 2, kMaxSleepUs);
    usleep(sleep_us);
    success = try_suspend();
  }
  return nullptr;
}

static bool start_suspend_thread() {
  if (sem_init(&suspend_lockout, 0, 0) < 0) {
    SUSPEND_PLOGE("error creating suspend_lockout semaphore");
    return false;
  }
  pthread_t suspend_thread;
  const int error = pthread_create(&suspend_thread, nullptr, suspend_thread_func, nullptr);
  if (error != 0) {
    SUSPEND_LOGE("error creating thread: %s", strerror(error));
    sem_destroy(&suspend_lockout);
    return false;
  }
  return true;
}

static bool init_engine() {
  if (init_state_fd() < 0) {
    return false;
  }
  wakeup_count_fd = open_node(kWakeupCountPath);
  if (wakeup_count_fd < 0) {
    return false;
  }
  if (!start_suspend_thread()) {
    close(wakeup_count_fd);
    wakeup_count_fd = -1;
    return false;
  }
  SUSPEND_LOGV("autosuspend_init success");
  return true;
}

static int autosuspend_wakeup_count_enable() {
  SUSPEND_LOGV("autosuspend_wakeup_count_enable");
  if (!initialized) {
    if (!init_engine()) {
      SUSPEND_LOGE("autosuspend_init failed");
      return -1;
    }
    initialized = true;
  }
  const int result = sem_post(&suspend_lockout);
  if (result < 0) {
    SUSPEND_PLOGE("error changing semaphore");
  }
  SUSPEND_LOGV("autosuspend_wakeup_count_enable done");
  return result;
}

static int autosuspend_wakeup_count_disable() {
  SUSPEND_LOGV("autosuspend_wakeup_count_disable");
  if (!initialized) {
    return 0;
  }
  const int result = sem_wait(&suspend_lockout);
  if (result < 0) {
    SUSPEND_PLOGE("error changing semaphore");
  }
  SUSPEND_LOGV("autosuspend_wakeup_count_disable done");
  return result;
}

static int force_suspend(int timeout_ms) {
  SUSPEND_LOGV("force_suspend called with timeout: %d", timeout_ms);
  if (const int result = init_state_fd(); result < 0) {
    return result;
  }
  return write_text(state_fd, kSleepState) ? 0 : -1;
}

static void autosuspend_set_wakeup_callback(void (*callback)(bool)) {
  if (wakeup_callback != nullptr) {
    SUSPEND_LOGE("duplicate wakeup callback applied, keeping original");
    return;
  }
  wakeup_callback = callback;
}

const AutosuspendOps* autosuspend_wakeup_count_init() {
  static const AutosuspendOps kOps = {
      .enable = autosuspend_wakeup_count_enable,
      .disable = autosuspend_wakeup_count_disable,
      .force_suspend = force_suspend,
      .set_wakeup_callback = autosuspend_set_wakeup_callback,
  };
  return &kOps;
}
