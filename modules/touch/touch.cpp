// The touch panel's bus self-test. The panel itself stays suspended while the daemon runs.

#include <sys/stat.h>

#include "core/at.h"
#include "core/file_utils.h"
#include "core/log.h"

#define TAG "[FTM-TP]"

static const char kSuspendNode[] = "/sys/class/input/input0/suspend";
// Without a leading slash: the daemon's working directory is the root.
static const char kBusTestNode[] = "proc/touchpanel/i2c_device_test";

// What the node says is for the station to judge: any text at all counts as success.
static int at_test_tp(const char*) {
  char result[128 + 1] = {};
  const int count = file_read_string(kBusTestNode, result, sizeof(result) - 1);
  at_send_result(result);
  at_send_result(count < 1 ? "ERROR\n" : "OK\r\n");
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "tp_test", .command = "AT+TP", .handler = at_test_tp},
};

static void at_tp_test_init() {
  FTM_LOGD(TAG "%s start\n", __func__);
  at_register_rows(rows);
  chmod(kSuspendNode, S_IRUSR | S_IWUSR);
  file_write_int(kSuspendNode, 1);
  FTM_LOGD(TAG "%s end\n", __func__);
}

// The init function is the exit function too: shut-down suspends the panel again.
FTM_MODULE_EXIT_IS_INIT(tp_test, 5, TAG)
