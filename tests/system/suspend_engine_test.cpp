// The suspend engine's operations that no command calls, by a daemon with a module of its own.

#include <errno.h>

#include "tests/system/station.h"

using Replies = std::vector<std::string>;
using Operation = Nodes::Operation;

static const std::string kState = "/sys/power/state";
static const std::string kWakeupCount = "/sys/power/wakeup_count";

TEST(SuspendEngine, EachEnableAddsAPermissionAndEachDisableTakesOne) {
  Handset phone({.daemon = FTM_POWER_PROBE});
  phone.start();
  EXPECT_EQ(phone.command("AT+DISABLE"), Replies{"0"});
  EXPECT_EQ(phone.log().find("autosuspend_wakeup_count_disable done"), std::string::npos);

  ASSERT_EQ(phone.power.store_wake_lock("test"), 0);  // the phone sleeps when this test wants it
  EXPECT_EQ(phone.command("AT+ENABLE"), Replies{"0"});
  EXPECT_EQ(phone.command("AT+ENABLE"), Replies{"0"});
  EXPECT_EQ(phone.command("AT+DISABLE"), Replies{"0"});  // the second permission: no need to wait
  phone.power.store_wake_unlock("test");
  ASSERT_TRUE(phone.power.wait_asleep());

  // The last permission is back when the phone is awake.
  phone.serial.send("AT+DISABLE");
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(phone.serial.replies().size(), 0U);
  EXPECT_TRUE(eventually([&] {
    phone.power.wakeup_event();
    return !phone.serial.replies().empty();
  }));
  EXPECT_EQ(phone.serial.take_replies(), Replies{"0"});
  const int suspends = phone.power.suspends();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(phone.power.asleep());
  EXPECT_EQ(phone.power.suspends(), suspends);

  phone.serial.send("AT+ENABLE");
  EXPECT_TRUE(phone.power.wait_asleep());
}

TEST(SuspendEngine, TellsTheFirstCallbackTheOutcome) {
  Handset phone({.daemon = FTM_POWER_PROBE});
  phone.start();
  phone.command("AT+CALLBACKS");
  EXPECT_EQ(times(phone.log(), "duplicate wakeup callback applied, keeping original\n"), 1U);
  phone.nodes.fail(kWakeupCount, Operation::kWrite, EINVAL);
  phone.nodes.fail(kState, Operation::kWrite, EBUSY);
  phone.command("AT+ENABLE");
  // A refused count is no suspend: there is no outcome.
  EXPECT_TRUE(
      eventually([&] { return times(phone.log(), "error writing to " + kWakeupCount) >= 2; }));
  EXPECT_EQ(phone.log().find("first callback"), std::string::npos);
  phone.nodes.fail(kWakeupCount, Operation::kWrite, 0);
  EXPECT_TRUE(eventually(
      [&] { return phone.log().find("[FTM-PROBE]first callback: 0\n") != std::string::npos; }));
  EXPECT_EQ(phone.log().find("[FTM-PROBE]first callback: 1\n"), std::string::npos);
  phone.nodes.fail(kState, Operation::kWrite, 0);
  ASSERT_TRUE(phone.power.wait_asleep());
  phone.power.wakeup_event();
  ASSERT_TRUE(phone.power.wait_asleep());
  EXPECT_EQ(times(phone.log(), "[FTM-PROBE]first callback: 1\n"), 1U);
  EXPECT_EQ(phone.log().find("second callback"), std::string::npos);
}

TEST(SuspendEngine, ForcesASuspendWhateverTheCount) {
  Handset phone({.daemon = FTM_POWER_PROBE});
  phone.power.set_suspend_time(std::chrono::milliseconds(1000));
  phone.start();
  phone.nodes.fail(kState, Operation::kOpen, EACCES);
  expect_exchange(phone, "AT+FORCE", {"-1"},
                  {"force_suspend called with timeout: 1234\n",
                   "error opening /sys/power/state: Permission denied\n"});
  phone.nodes.fail(kState, Operation::kOpen, 0);
  const int reads = phone.serial.reads();
  phone.serial.send("AT+FORCE");
  EXPECT_TRUE(eventually([&] { return phone.serial.reads() > reads; }));
  EXPECT_EQ(phone.serial.take_replies(), Replies{"0"});
  EXPECT_EQ(phone.power.suspends(), 1);
  phone.nodes.fail(kState, Operation::kWrite, EBUSY);
  expect_exchange(phone, "AT+FORCE", {"-1"});
  EXPECT_EQ(times(phone.log(), "init_state_fd success\n"), 1U);  // opened once
}
