// The sleep-current test: while the daemon runs the phone is kept awake by a wake lock; the station
// drops it to let the phone suspend, and takes it again. What is captured for a failed sleep is in
// sleep_info.cpp.

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "core/at.h"
#include "core/file_utils.h"
#include "core/log.h"
#include "core/unique.h"
#include "display/panel.h"
#include "modules/sleep/sleep_info.h"
#include "power/autosuspend.h"

#define TAG "[FTM-POWER]"

static const char kWakeLock[] = "/sys/power/wake_lock";
static const char kWakeUnlock[] = "/sys/power/wake_unlock";
static constexpr useconds_t kPanelSettleUs = 10 * 1000;

static void power_set_cannot_sleep() {
  if (file_write_int(kWakeLock, 1) < 0) {
    FTM_LOGE(TAG "power_set_cannot_sleep failed\n");
  } else {
    FTM_LOGD(TAG "power_set_cannot_sleep success\n");
  }
}

static void power_set_can_sleep() {
  if (file_write_int(kWakeUnlock, 1) < 0) {
    FTM_LOGE(TAG "power_set_can_sleep failed\n");
  } else {
    FTM_LOGD(TAG "power_set_can_sleep success\n");
  }
}

// Sets register 0x2846 of the power controller to 0, before each sleep.
static void clear_register() {
  struct RegmapWrite {
    const char* node;
    const char* text;
  };
  static const RegmapWrite kWrites[] = {
      {"/sys/kernel/debug/regmap/spmi0-00/address", "0x2846"},
      {"/sys/kernel/debug/regmap/spmi0-00/count", "1"},
      {"/sys/kernel/debug/regmap/spmi0-00/data", "0"},
  };
  for (const RegmapWrite& regmap : kWrites) {
    const UniqueFd fd(open(regmap.node, O_WRONLY | O_CLOEXEC));
    if (!fd.ok()) {
      FTM_LOGE(TAG "file open failed\n");
      continue;
    }
    // A write that the kernel refuses is skipped like a node that is missing.
    [[maybe_unused]] const ssize_t written = write(fd.get(), regmap.text, strlen(regmap.text));
  }
}

static int at_sleep_enable(const char*) {
  close_panel_if_open();
  usleep(kPanelSettleUs);
  clear_register();
  power_set_can_sleep();
  // Before anything else: the line goes quiet when the phone sleeps.
  at_send_result("OK\r\n");
  autosuspend_enable(ftm_before_sleep_info_save, ftm_sleep_fail_info_save_func);
  return 0;
}

static int at_sleep_disable(const char*) {
  FTM_LOGD(TAG "%s\n", __func__);
  // The engine stays enabled: the wake lock alone keeps the phone awake.
  power_set_cannot_sleep();
  at_send_result("OK\r\n");
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "sleep_enable", .command = "AT+ESLP=1", .handler = at_sleep_enable},
    {.short_name = "sleep_disable", .command = "AT+ESLP=0", .handler = at_sleep_disable},
};

static void at_sleep_enable_init() {
  FTM_LOGD(TAG "%s start\n", __func__);
  at_register_rows(rows);
  power_set_cannot_sleep();
  FTM_LOGD(TAG "%s end\n", __func__);
}

static void at_sleep_enable_exit() {
  FTM_LOGD(TAG "%s start\n", __func__);
  FTM_LOGD(TAG "%s end\n", __func__);
}

FTM_MODULE(sleep_enable, 0, TAG)
