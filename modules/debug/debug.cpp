// The kernel's console log level, and a crash on purpose for a memory dump.

#include "core/at.h"
#include "core/file_utils.h"
#include "core/log.h"

#define TAG "[FTM-DEBUG]"

static const char kPrintkNode[] = "/proc/sys/kernel/printk";
static const char kSysrqTrigger[] = "/proc/sysrq-trigger";
static constexpr uint32_t kEveryMessage = 8;
static constexpr uint32_t kNoMessage = 0;

static int set_console_level(const char* handler, uint32_t level) {
  FTM_LOGD(TAG "%s\n", handler);
  at_send_result("OK\r\n");
  file_write_int(kPrintkNode, level);
  return 0;
}

static int at_enable_kernel_print(const char*) {
  return set_console_level(__func__, kEveryMessage);
}

static int at_disable_kernel_print(const char*) {
  return set_console_level(__func__, kNoMessage);
}

static int at_trigger_ram_dump(const char*) {
  FTM_LOGE(TAG "%s\n", __func__);
  // The reply goes first: the phone does not come back from the write.
  at_send_result("OK\r\n");
  file_write_string(kSysrqTrigger, "c");
  return 0;
}

static AtCommand rows[] = {
    {.short_name = "enable_kernel_print",
     .command = "AT+PRINTK=0,1",
     .handler = at_enable_kernel_print},
    {.short_name = "disable_kernel_print",
     .command = "AT+PRINTK=0,0",
     .handler = at_disable_kernel_print},
    {.short_name = "trigger_ram_dump",
     .command = "AT+TRIGGER_DUMP=1",
     .handler = at_trigger_ram_dump},
};

FTM_PLAIN_MODULE(debug, 4, TAG, rows)
