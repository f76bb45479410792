// Calls the suspend engine as no real command does: its operations by themselves. Linked into a
// daemon of its own; takes the place of the sleep module.

#include <string.h>

#include <string>

#include "core/at.h"
#include "power/autosuspend_ops.h"

#define TAG "[FTM-PROBE]"

static const AutosuspendOps* ops() {
  return autosuspend_wakeup_count_init();
}

static int reply(int result) {
  at_send_result(std::to_string(result).c_str());
  return 0;
}

static int at_enable(const char*) {
  return reply(ops()->enable());
}

static int at_disable(const char*) {
  return reply(ops()->disable());
}

static int at_force(const char*) {
  return reply(ops()->force_suspend(1234));
}

static void first_callback(bool success) {
  FTM_LOGD(TAG "first callback: %d\n", success ? 1 : 0);
}

static void second_callback(bool) {
  FTM_LOGD(TAG "second callback\n");
}

static int at_callbacks(const char*) {
  ops()->set_wakeup_callback(first_callback);
  ops()->set_wakeup_callback(second_callback);
  return reply(0);
}

static AtCommand rows[] = {
    {.short_name = "enable", .command = "AT+ENABLE", .handler = at_enable},
    {.short_name = "disable", .command = "AT+DISABLE", .handler = at_disable},
    {.short_name = "force", .command = "AT+FORCE", .handler = at_force},
    {.short_name = "callbacks", .command = "AT+CALLBACKS", .handler = at_callbacks},
};

FTM_PLAIN_MODULE(sleep_enable, 0, TAG, rows)
