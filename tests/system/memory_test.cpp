// Allocations that fail while a command runs: the daemon answers, lives on and keeps its records.

#include "tests/system/station.h"

static const std::string kFile = "/mnt/vendor/persist/engineermode/config/aging.cfg";

static long let_fail(Handset& phone, long number) {
  return std::stol(phone.command("AT^WITH_ARGS_MEMORY:" + std::to_string(number)).at(0));
}

// Lets the first allocation of the command fail, the second, and so on, each once (1), or each with
// all that follow (-1). Returns how many there were.
static long fail_each(Handset& phone, const std::string& command, int sign) {
  for (long number = 1;; ++number) {
    SCOPED_TRACE(command + " without allocation " + std::to_string(number));
    let_fail(phone, sign * number);
    EXPECT_FALSE(phone.command(command).empty());
    if (let_fail(phone, 1'000'000) > 0) {
      return number - 1;
    }
  }
}

TEST(Memory, NoFailedAllocationOfACommandEndsTheDaemon) {
  Handset phone({.daemon = FTM_MEMORY_PROBE});
  // Texts that no string holds without an allocation.
  phone.sensors.remove_sensor("mag");
  phone.sensors.set_sensor({.name = "a magnetometer of a long name", .data_type = "mag"});
  phone.power.store_wake_lock("other");  // a phone that sleeps answers nothing
  phone.start();
  // The first enabling of the suspend engine is one of those without any memory at all.
  for (const char* command : {"AT+EDFT=0,5", "AT+EDFT=0,0", "AT+MSENSOR", "AT+SAR", "AT+ESLP=1",
                              "AT^OPEN_WIFI", "AT^SECUREBOOT_STATUS_CHECK", "AT+LCDSN"}) {
    for (const int sign : {-1, 1}) {
      fail_each(phone, command, sign);
    }
  }
  phone.write_file(kFile, "{\"OTHER\":\"kept\"}");
  for (const char* command : {"AT^WITH_ARGS_UAC:ITEM=VALUE", "AT^WITH_ARGS_QAC:OTHER"}) {
    for (const int sign : {-1, 1}) {
      EXPECT_GT(fail_each(phone, command, sign), 10);
      EXPECT_EQ(phone.command("AT^WITH_ARGS_QAC:OTHER"),
                (std::vector<std::string>{"OK\r\n", "other=kept\n"}));
    }
  }
}
