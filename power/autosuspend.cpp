// The front over an operations table; see autosuspend.h.

#include "power/autosuspend.h"

#include <pthread.h>

#include <atomic>

#include "power/autosuspend_ops.h"
#include "power/log.h"

static std::atomic<const AutosuspendOps*> autosuspend_ops = nullptr;
static std::atomic<bool> autosuspend_enabled = false;

static int autosuspend_init() {
  if (autosuspend_ops != nullptr) {
    return 0;
  }
  autosuspend_ops = autosuspend_wakeup_count_init();
  if (autosuspend_ops == nullptr) {
    SUSPEND_LOGE("failed to initialize autosuspend");
    return -1;
  }
  return 0;
}

// Detached: nobody waits for the watcher, and it ends by itself.
static void start_watcher(void* (*body)(void*)) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t watcher;
  pthread_create(&watcher, &attributes, body, nullptr);
  pthread_attr_destroy(&attributes);
}

int autosuspend_enable(void (*before_sleep)(), void* (*watcher)(void*)) {
  if (const int result = autosuspend_init(); result != 0) {
    return result;
  }
  if (autosuspend_enabled) {
    return 0;
  }
  before_sleep();
  start_watcher(watcher);
  const int result = autosuspend_ops.load()->enable();
  if (result == 0) {
    autosuspend_enabled = true;
  }
  return result;
}

int autosuspend_disable() {
  if (const int result = autosuspend_init(); result != 0) {
    return result;
  }
  if (!autosuspend_enabled) {
    return 0;
  }
  const int result = autosuspend_ops.load()->disable();
  if (result == 0) {
    autosuspend_enabled = false;
  }
  return result;
}
