// The suspend engine by itself, on the phone's power interfaces.

#include <errno.h>
#include <sys/wait.h>

#include <atomic>

#include "tests/system/station.h"

using Replies = std::vector<std::string>;
using Operation = Nodes::Operation;

static const std::string kState = "/sys/power/state";
static const std::string kCount = "/sys/power/wakeup_count";

TEST(SuspendEngine, BacksOffWhileItFailsAndStartsAnewAfterOneSuccess) {
  struct Case {
    std::string name;
    std::function<void(Handset&, bool)> fail;  // begins or ends the failure
    std::string logged;
  };
  static std::atomic<bool> odd_count;
  const auto failure = [](const std::string& node, Operation operation) {
    return
        [=](Handset& phone, bool failing) { phone.nodes.fail(node, operation, failing ? EIO : 0); };
  };
  const std::vector<Case> cases = {
      {"state refused", failure(kState, Operation::kWrite), ""},
      {"count refused", failure(kCount, Operation::kWrite),
       "error writing to /sys/power/wakeup_count: Input/output error"},
      {"count unreadable", failure(kCount, Operation::kRead),
       "error reading from /sys/power/wakeup_count: Input/output error"},
      {"no way back to the count's start",
       [](Handset& phone, bool failing) { phone.fail(kCount, SYS_lseek, failing ? EIO : 0); },
       "error reading from /sys/power/wakeup_count: Input/output error"},
      {"count empty",
       [](Handset& phone, bool failing) {
         odd_count = failing;
         phone.nodes.on_read(kCount, [&phone] {
           return odd_count ? " \n" : std::to_string(phone.power.wakeup_count()) + "\n";
         });
       },
       "empty wakeup count"},
      {"count moved",
       [](Handset& phone, bool failing) {
         odd_count = failing;
         phone.nodes.on_read(kCount, [&phone] {
           const std::string count = std::to_string(phone.power.wakeup_count());
           if (odd_count) {
             phone.power.wakeup_event();
           }
           return count + "\n";
         });
       },
       "error writing to /sys/power/wakeup_count: Invalid argument"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Handset phone({.daemon = FTM_POWER_PROBE});
    phone.start({.faults = true});
    c.fail(phone, true);
    phone.clock.take_waits();
    EXPECT_EQ(phone.command("AT+ENABLE"), Replies{"0"});
    ASSERT_TRUE(eventually([&] { return phone.clock.waits().size() > 13; }));
    for (const Nodes::Write& write : phone.nodes.take_writes()) {
      EXPECT_NE(write.path, kState);
    }
    c.fail(phone, false);
    ASSERT_TRUE(phone.power.wait_asleep());
    phone.power.wakeup_event();
    ASSERT_TRUE(phone.power.wait_asleep());
    EXPECT_EQ(phone.power.suspends(), 1);

    std::vector<int> waits = waits_ms(phone);
    const std::vector<int> growing = {100,  200,   400,   800,   1600,  3200,
                                      6400, 12800, 25600, 51200, 60000, 60000};
    EXPECT_EQ(std::vector<int>(waits.begin(), waits.begin() + 12), growing);
    EXPECT_EQ(std::count(waits.begin() + 12, waits.end(), 60000),
              static_cast<ptrdiff_t>(waits.size()) - 13);
    EXPECT_EQ(waits.back(), 100);
    EXPECT_NE(phone.log().find(c.logged + "\n"), std::string::npos);
    EXPECT_EQ(phone.power.syncs() > 10, c.name.find("refused") != std::string::npos ||
                                            c.name.find("moved") != std::string::npos);
  }
}

TEST(SuspendEngine, WritesTheCountAsItWasReadAndThenSleeps) {
  Handset phone({.daemon = FTM_POWER_PROBE});
  phone.power.wakeup_event();
  phone.start();
  phone.nodes.take_writes();
  phone.command("AT+ENABLE");
  ASSERT_TRUE(phone.power.wait_asleep());
  EXPECT_EQ(phone.nodes.take_writes(), (std::vector<Nodes::Write>{{kCount, "1"}, {kState, "mem"}}));
  EXPECT_EQ(phone.power.syncs(), 1);
  const std::string log = phone.log();
  for (const std::string line :
       {"V autosuspend_wakeup_count_enable", "V init_state_fd success",
        "V autosuspend_init success", "V autosuspend_wakeup_count_enable done",
        "V read wakeup_count", "E sync", "E sync end", "V wait", "V write 1 to wakeup_count",
        "V write mem to /sys/power/state"}) {
    const size_t at = log.find(line.substr(1) + "\n");
    ASSERT_NE(at, std::string::npos) << line;
    EXPECT_EQ(log.substr(log.rfind('\n', at) + 1, 12), std::string("libsuspend ") + line[0])
        << line;
  }
}

TEST(SuspendEngine, EachEnableAddsAPermissionAndEachDisableTakesOne) {
  Handset phone({.daemon = FTM_POWER_PROBE});
  phone.start();
  EXPECT_EQ(phone.command("AT+DISABLE"), Replies{"0"});
  EXPECT_EQ(phone.log().find("autosuspend_wakeup_count_disable done"), std::string::npos);

  EXPECT_EQ(phone.command("AT+ENABLE"), Replies{"0"});
  EXPECT_EQ(phone.command("AT+ENABLE"), Replies{"0"});
  ASSERT_TRUE(phone.power.wait_asleep());
  EXPECT_EQ(phone.command("AT+DISABLE"), Replies{"0"});  // the second permission: no need to wait
  phone.power.wakeup_event();
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

  EXPECT_EQ(phone.command("AT+ENABLE"), Replies{"0"});
  EXPECT_TRUE(phone.power.wait_asleep());
}

TEST(SuspendEngine, TellsTheFirstCallbackTheOutcome) {
  Handset phone({.daemon = FTM_POWER_PROBE});
  phone.start();
  phone.command("AT+CALLBACKS");
  EXPECT_EQ(times(phone.log(), "duplicate wakeup callback applied, keeping original\n"), 1U);
  phone.nodes.fail(kState, Operation::kWrite, EBUSY);
  phone.command("AT+ENABLE");
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
  expect_exchange(phone, {"AT+FORCE",
                          {"-1"},
                          {},
                          {},
                          {"force_suspend called with timeout: 1234\n",
                           "error opening /sys/power/state: Permission denied\n"}});
  phone.nodes.fail(kState, Operation::kOpen, 0);
  expect_exchange(phone, {"AT+FORCE", {"0"}, {{kState, "mem"}}, {}, {"init_state_fd success\n"}});
  EXPECT_EQ(phone.power.suspends(), 1);
  phone.nodes.fail(kState, Operation::kWrite, EBUSY);
  expect_exchange(phone, {"AT+FORCE", {"-1"}});
  EXPECT_EQ(times(phone.log(), "init_state_fd success\n"), 1U);  // opened once
}

TEST(SuspendEngine, TriesInterruptedOpensAgain) {
  for (const std::string& node : {kState, kCount}) {
    SCOPED_TRACE(node);
    Handset phone({.daemon = FTM_POWER_PROBE});
    phone.start();
    phone.fail(node, SYS_openat, EINTR);
    phone.serial.send("AT+ENABLE");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(phone.serial.replies().size(), 0U);
    phone.fail(node, SYS_openat, 0);
    ASSERT_TRUE(phone.serial.wait_replies(1, std::chrono::seconds(20)));
    EXPECT_EQ(phone.serial.take_replies(), Replies{"0"});
    EXPECT_EQ(phone.log().find("error opening"), std::string::npos);
  }
}

TEST(SuspendEngine, TriesAFailedSetUpAgainAtTheNextEnable) {
  for (const std::string& node : {kState, kCount}) {
    SCOPED_TRACE(node);
    Handset phone({.daemon = FTM_POWER_PROBE});
    phone.start();
    phone.nodes.fail(node, Operation::kOpen, ENOENT);
    const size_t descriptors = phone.open_descriptors();
    for (int i = 0; i < 2; ++i) {
      expect_exchange(phone, {"AT+ENABLE",
                              {"-1"},
                              {},
                              {},
                              {"error opening " + node + ": No such file or directory\n",
                               "autosuspend_init failed\n"}});
    }
    EXPECT_LE(phone.open_descriptors(), descriptors + 1);  // the state file stays open
    phone.nodes.fail(node, Operation::kOpen, 0);
    EXPECT_EQ(phone.command("AT+ENABLE"), Replies{"0"});
    EXPECT_TRUE(phone.power.wait_asleep());
    EXPECT_EQ(times(phone.log(), "init_state_fd success\n"), 1U);
  }
}

TEST(SuspendEngine, SaysThatItsThreadCannotBeMade) {
  if (FTM_THREAD_SANITIZER) {
    GTEST_SKIP() << "the sanitizer's runtime needs a thread of its own";
  }
  Handset phone({.daemon = FTM_POWER_PROBE});
  phone.start({.threads = false, .wait_ready = false});
  ASSERT_TRUE(phone.wait_exit().has_value());
  EXPECT_NE(phone.log().find("error creating thread: Resource temporarily unavailable\n"),
            std::string::npos);
  EXPECT_NE(phone.log().find("[FTM-PROBE]enabled: -1\n"), std::string::npos);
}
