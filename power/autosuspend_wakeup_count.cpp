// The suspend engine: one thread that reads the kernel's wakeup count, writes it back and then
// writes the sleep state. The kernel refuses the count when an event has come in between, so no
// wakeup is slept through. One semaphore holds the thread back; see autosuspend_ops.h.

#define LOG_TAG "libsuspend"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>

#include "power/autosuspend_ops.h"

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
    PLOG(ERROR) << "error opening " << path;
  }
  return fd;
}

static bool write_text(int fd, const std::string& text) {
  return write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

static bool read_from_start(int fd, std::string* text) {
  return lseek(fd, 0, SEEK_SET) == 0 && android::base::ReadFdToString(fd, text);
}

static int init_state_fd() {
  if (state_fd >= 0) {
    return 0;
  }
  state_fd = open_node(kStatePath);
  if (state_fd < 0) {
    return -1;
  }
  LOG(VERBOSE) << "init_state_fd success";
  return 0;
}

// Holds the semaphore. True when the device slept and resumed.
static bool suspend_with(const std::string& wakeup_count) {
  LOG(VERBOSE) << "write " << wakeup_count << " to wakeup_count";
  if (!write_text(wakeup_count_fd, wakeup_count)) {
    PLOG(ERROR) << "error writing to " << kWakeupCountPath;
    return false;
  }
  LOG(VERBOSE) << "write " << kSleepState << " to " << kStatePath;
  const bool success = write_text(state_fd, kSleepState);
  if (void (*const callback)(bool) = wakeup_callback; callback != nullptr) {
    callback(success);
  }
  return success;
}

// One attempt. True when the device slept and resumed.
static bool try_suspend() {
  LOG(VERBOSE) << "read wakeup_count";
  std::string text;
  if (!read_from_start(wakeup_count_fd, &text)) {
    PLOG(ERROR) << "error reading from " << kWakeupCountPath;
    return false;
  }
  const std::string wakeup_count = android::base::Trim(text);
  if (wakeup_count.empty()) {
    LOG(ERROR) << "empty wakeup count";
    return false;
  }

  // Flushed before every attempt, and logged as errors: kept as it stands.
  LOG(ERROR) << "sync";
  sync();
  LOG(ERROR) << "sync end";

  LOG(VERBOSE) << "wait";
  if (sem_wait(&suspend_lockout) < 0) {
    PLOG(ERROR) << "error waiting on semaphore";
    return false;
  }
  const bool success = suspend_with(wakeup_count);
  LOG(VERBOSE) << "release sem";
  if (sem_post(&suspend_lockout) < 0) {
    PLOG(ERROR) << "error releasing semaphore";
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
    PLOG(ERROR) << "error creating suspend_lockout semaphore";
    return false;
  }
  pthread_t suspend_thread;
  const int error = pthread_create(&suspend_thread, nullptr, suspend_thread_func, nullptr);
  if (error != 0) {
    LOG(ERROR) << "error creating thread: " << strerror(error);
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
  LOG(VERBOSE) << "autosuspend_init success";
  return true;
}

static int autosuspend_wakeup_count_enable() {
  LOG(VERBOSE) << "autosuspend_wakeup_count_enable";
  if (!initialized) {
    if (!init_engine()) {
      LOG(ERROR) << "autosuspend_init failed";
      return -1;
    }
    initialized = true;
  }
  const int result = sem_post(&suspend_lockout);
  if (result < 0) {
    PLOG(ERROR) << "error changing semaphore";
  }
  LOG(VERBOSE) << "autosuspend_wakeup_count_enable done";
  return result;
}

static int autosuspend_wakeup_count_disable() {
  LOG(VERBOSE) << "autosuspend_wakeup_count_disable";
  if (!initialized) {
    return 0;
  }
  const int result = sem_wait(&suspend_lockout);
  if (result < 0) {
    PLOG(ERROR) << "error changing semaphore";
  }
  LOG(VERBOSE) << "autosuspend_wakeup_count_disable done";
  return result;
}

static int force_suspend(int timeout_ms) {
  LOG(VERBOSE) << "force_suspend called with timeout: " << timeout_ms;
  if (const int result = init_state_fd(); result < 0) {
    return result;
  }
  return write_text(state_fd, kSleepState) ? 0 : -1;
}

static void autosuspend_set_wakeup_callback(void (*callback)(bool)) {
  if (wakeup_callback != nullptr) {
    LOG(ERROR) << "duplicate wakeup callback applied, keeping original";
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
