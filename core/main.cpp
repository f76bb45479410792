// The daemon's entry: open the line, init the modules, serve commands for ever.

#include <pthread.h>

#include "core/log.h"
#include "core/registry.h"
#include "core/serial.h"

#define TAG "[FTM-MAIN]"

static constexpr int kThreadAttempts = 10;

static bool start_worker(pthread_t* thread) {
  for (int attempt = 0; attempt < kThreadAttempts; ++attempt) {
    if (ftm_at_create_thread(thread) == 0) {
      return true;
    }
  }
  FTM_LOGE(TAG "try to create at thread %d times still failed\n", kThreadAttempts);
  return false;
}

int main() {
  FTM_LOGE(TAG "enter factory main\n");
  at_open_port();
  FTM_LOGD(TAG "start at current test\n");
  ftm_at_init();

  pthread_t thread;
  const bool started = start_worker(&thread);
  FTM_LOGE(TAG "watting ftm_at_thread finish\n");
  // A thread that was never created has no handle to join: the join counts as failed.
  if (!started || pthread_join(thread, nullptr) != 0) {
    FTM_LOGE(TAG "ftm_at_thread finish error\n");
  } else {
    FTM_LOGD(TAG "ftm_at_thread finish success\n");
  }

  ftm_at_deinit();
  FTM_LOGE(TAG "exit at current test\n");
  return 0;
}
