// Allocations that fail while a command runs: the daemon answers, lives on and keeps its records.

#include <functional>

#include "tests/faults/ordered_allocations.h"
#include "tests/system/station.h"

using Replies = std::vector<std::string>;

static const std::string kFile = "/mnt/vendor/persist/engineermode/config/aging.cfg";

// Lets the first allocation of the command fail, the second, and so on, each once, or each with all
// that follow. Returns how many there were.
static long fail_each(
    Handset& phone, const OrderedAllocations& allocations, const std::string& command,
    bool for_good, const std::function<void(const Replies&)>& judge = [](const Replies&) {}) {
  for (long number = 1;; ++number) {
    SCOPED_TRACE(command + " without allocation " + std::to_string(number));
    allocations->begin(number, for_good);
    const Replies replies = phone.command(command);
    allocations->counts = false;
    EXPECT_FALSE(replies.empty());
    judge(replies);
    if (!allocations->failed) {
      return number - 1;
    }
  }
}

TEST(Memory, NoFailedAllocationOfACommandEndsTheDaemon) {
  Handset phone;
  Handset::StartOptions options;
  const OrderedAllocations allocations = order_allocations(&phone, &options);
  // Texts that no string holds without an allocation.
  phone.sensors.remove_sensor("mag");
  phone.sensors.set_sensor({.name = "a magnetometer of a long name", .data_type = "mag"});
  phone.power.store_wake_lock("other");  // a phone that sleeps answers nothing
  phone.start(options);
  // The first enabling of the suspend engine is one of those without any memory at all.
  for (const char* command : {"AT+EDFT=0,5", "AT+EDFT=0,0", "AT+MSENSOR", "AT+SAR", "AT+ESLP=1",
                              "AT^OPEN_WIFI", "AT^SECUREBOOT_STATUS_CHECK", "AT+LCDSN"}) {
    for (const bool for_good : {true, false}) {
      fail_each(phone, allocations, command, for_good);
    }
  }
  for (const char* line :
       {"E [AT_SENSOR]malloc fail at step 1", "E [AT_SENSOR]malloc fail at step 2",
        "I/[AT_SENSOR] get_encoded_suid_req: ERROR ENCODE (none)",
        "I/[AT_SENSOR] send_qmi_req: Unable to allocate sns_client_resp_msg_v01",
        "E [FTM-SEC]ftm_sec_get_pcb_version: failed to malloc read buffer for "
        "/proc/norvaVersion/pcbVersion\\n",
        "E [FTM-SEC]ftm_sec_get_secureboot_stage: failed to malloc read buffer for "
        "/proc/norva_secure_common/secureType\\n"}) {
    EXPECT_GE(times_logged(phone, line), 1U) << line;
  }
}

TEST(Memory, WhatWasNotDoneIsNoSuccess) {
  const std::string before = "{\"OTHER\":\"kept\"}";
  Handset phone;
  Handset::StartOptions options;
  const OrderedAllocations allocations = order_allocations(&phone, &options);
  phone.write_file(kFile, before);
  phone.start(options);
  for (const bool for_good : {true, false}) {
    EXPECT_GT(fail_each(phone, allocations, "AT^WITH_ARGS_UAC:ITEM=VALUE", for_good,
                        [&](const Replies& replies) {
                          const std::string now = phone.read_file(kFile).value_or("");
                          EXPECT_EQ(replies.at(0) == "OK\r\n", now != before);
                          EXPECT_NE(now.find("kept"), std::string::npos);
                          phone.write_file(kFile, before);
                        }),
              10);
    EXPECT_GE(times_logged(phone, "D updateEngineerConfig failed: std::bad_alloc\\n"), 1U);
    EXPECT_GT(fail_each(phone, allocations, "AT^WITH_ARGS_QAC:OTHER", for_good,
                        [](const Replies& replies) {
                          EXPECT_TRUE(replies == Replies({"ERROR\n"}) ||
                                      replies == Replies({"OK\r\n", "other=kept\n"}));
                        }),
              10);
  }
}
