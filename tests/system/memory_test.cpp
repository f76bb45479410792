// Allocations that fail while a command runs: the daemon answers, lives on and keeps its records.

#include <functional>

#include "tests/system/station.h"

using Replies = std::vector<std::string>;

static const std::string kFile = "/mnt/vendor/persist/engineermode/config/aging.cfg";

static long let_fail(Handset& phone, long number) {
  return std::stol(phone.command("AT^WITH_ARGS_MEMORY:" + std::to_string(number)).at(0));
}

// Lets the first allocation of the command fail, the second, and so on, each once (1), or each with
// all that follow (-1). Returns how many there were.
static long fail_each(
    Handset& phone, const std::string& command, int sign,
    const std::function<void(const Replies&)>& judge = [](const Replies&) {}) {
  for (long number = 1;; ++number) {
    SCOPED_TRACE(command + " without allocation " + std::to_string(number));
    let_fail(phone, sign * number);
    const Replies replies = phone.command(command);
    EXPECT_FALSE(replies.empty());
    judge(replies);
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
}

TEST(Memory, WhatWasNotDoneIsNoSuccess) {
  const std::string before = "{\"OTHER\":\"kept\"}";
  Handset phone({.daemon = FTM_MEMORY_PROBE});
  phone.write_file(kFile, before);
  phone.start();
  for (const int sign : {-1, 1}) {
    EXPECT_GT(fail_each(phone, "AT^WITH_ARGS_UAC:ITEM=VALUE", sign,
                        [&](const Replies& replies) {
                          const std::string now = phone.read_file(kFile).value_or("");
                          EXPECT_EQ(replies.at(0) == "OK\r\n", now != before);
                          EXPECT_NE(now.find("kept"), std::string::npos);
                          phone.write_file(kFile, before);
                        }),
              10);
    EXPECT_GT(fail_each(phone, "AT^WITH_ARGS_QAC:OTHER", sign,
                        [](const Replies& replies) {
                          EXPECT_TRUE(replies == Replies({"ERROR\n"}) ||
                                      replies == Replies({"OK\r\n", "other=kept\n"}));
                        }),
              10);
  }
}
