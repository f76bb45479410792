// What of a sleep lies outside the daemon's own calls: the copies that run on in the background, a
// folder that another process makes, and what is left open in the end.

#include <errno.h>

#include <filesystem>
#include <fstream>

#include "tests/system/station.h"

namespace fs = std::filesystem;

static const std::string kBefore = "/mnt/vendor/norvareserve/ftm_admin/ftm_before_sleep_info";
static const std::string kFailed = "/mnt/vendor/norvareserve/ftm_admin/ftm_sleep_fail_info";

// Drops the test's wake lock once the alarm that is to wake the phone is armed.
static void let_sleep(Handset& phone) {
  ASSERT_TRUE(eventually([&] { return phone.power.alarm_pending(); }));
  phone.power.store_wake_unlock("test");
  ASSERT_TRUE(phone.power.wait_asleep());
}

TEST(Sleep, CopiesLogsNodesAndTheRouterLookUp) {
  Handset phone;
  phone.start();
  phone.power.store_wake_lock("test");  // the phone sleeps when this test wants it
  phone.command("AT+ESLP=1");
  const auto copied = [&](const std::string& folder, const std::string& ipc_log) {
    return phone.read_file(folder + "/ipc_logging_qrtr_0.txt") ==
               phone.read_file("/d/ipc_logging/qrtr_0/" + ipc_log) &&
           phone.read_file(folder + "/d-gpio.txt") == phone.nodes.value("/proc/gpio/gpio") &&
           times(phone.read_file(folder + "/qrtr-lookup.txt").value_or(""), "Registry") == 1;
  };
  EXPECT_TRUE(eventually([&] { return copied(kBefore, "log"); }));
  let_sleep(phone);
  phone.nodes.set("/proc/gpio/gpio", "after\n");
  ASSERT_TRUE(phone.power.fire_alarm());
  EXPECT_TRUE(eventually([&] { return copied(kFailed, "log_cont"); }));
}

TEST(Sleep, TakesAFolderThatAppearsWhileItWaits) {
  Handset phone;
  fs::remove(phone.path("/mnt/vendor/norvareserve/ftm_admin"));
  phone.clock.on_wait([&](std::chrono::microseconds wait) {
    if (wait == std::chrono::seconds(1)) {
      fs::create_directories(phone.path(kBefore));
    }
  });
  phone.start();
  phone.power.store_wake_lock("test");
  phone.command("AT+ESLP=1");
  EXPECT_EQ(times(phone.log(), "Wait for " + kBefore + " is ready\n"), 1U);
  EXPECT_EQ(times(phone.log(), "created successfully, path is " + kBefore), 0U);
}

TEST(Sleep, LeavesNothingOpenAndNoProcessBehind) {
  constexpr int kCycles = 5;
  Handset phone;
  phone.start();
  size_t open_first = 0;
  for (int i = 0; i < kCycles; ++i) {
    const size_t log_before = phone.log().size();
    phone.power.store_wake_lock("test");
    phone.command("AT+ESLP=1");
    let_sleep(phone);
    ASSERT_TRUE(phone.power.fire_alarm());
    const std::string last = "qrtr-lookup > " + kFailed;
    ASSERT_TRUE(
        eventually([&] { return phone.log().find(last, log_before) != std::string::npos; }));
    phone.command("AT+ESLP=0");
    if (i == 0) {
      open_first = phone.open_descriptors();
    }
  }
  EXPECT_EQ(phone.power.suspends(), kCycles);
  EXPECT_TRUE(eventually([&] { return phone.open_descriptors() == open_first; }));
  const auto children = [&] {
    std::string all;
    const std::string tasks = "/proc/" + std::to_string(phone.pid()) + "/task";
    for (const fs::directory_entry& task : fs::directory_iterator(tasks)) {
      std::ifstream stream(task.path() / "children");
      all += std::string{std::istreambuf_iterator<char>(stream), {}};
    }
    return all;
  };
  EXPECT_TRUE(eventually([&] { return children().empty(); })) << children();
}
