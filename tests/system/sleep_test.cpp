// The sleep commands: what the phone's power interfaces see, and the two snapshots on the reserve
// partition.

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>

#include "tests/system/station.h"

namespace fs = std::filesystem;
using Replies = std::vector<std::string>;
using Operation = Nodes::Operation;

static const std::string kAdmin = "/mnt/vendor/norvareserve/ftm_admin";
static const std::string kBefore = kAdmin + "/ftm_before_sleep_info";
static const std::string kFailed = kAdmin + "/ftm_sleep_fail_info";
static const std::string kRegmap = "/sys/kernel/debug/regmap/spmi0-00/";
static const std::string kAlarm = "/sys/class/rtc/rtc0/wakealarm";
static const std::string kState = "/sys/power/state";

// Node and output file of each power state.
static const std::map<std::string, std::string> kPowerStates = {
    {"/sys/power/soc_sleep/stats", "d-rpmh-stats.txt"},
    {"/sys/power/rpmh_stats/master_stats", "d-rpmh-master_stats.txt"},
    {"/proc/power/clk_enabled_list", "d-clk_enable_list.txt"},
    {"/proc/wakeup_sources", "d-wakeup_sources.txt"},
    {"/proc/gpio/gpio", "d-gpio.txt"},
};

static const std::vector<Nodes::Write> kEnableWrites = {{kRegmap + "address", "0x2846"},
                                                        {kRegmap + "count", "1"},
                                                        {kRegmap + "data", "0"},
                                                        {"/sys/power/wake_unlock", "1\n"}};

using Files = std::map<std::string, std::string>;

static Files folder(const Handset& phone, const std::string& path) {
  Files files;
  std::error_code none;
  for (const fs::directory_entry& entry : fs::directory_iterator(phone.path(path), none)) {
    const std::string name = entry.path().filename().string();
    files[name] = phone.read_file(path + "/" + name).value_or("");
  }
  return files;
}

// What a snapshot holds, with the given file of each IPC log.
static Files expected(const Handset& phone, const std::vector<std::string>& ipc_logs,
                      const std::string& ipc_file) {
  Files files;
  for (const std::string& name : ipc_logs) {
    files["ipc_logging_" + name + ".txt"] =
        phone.read_file("/d/ipc_logging/" + name + "/" + ipc_file).value_or("");
  }
  for (const auto& [node, output] : kPowerStates) {
    if (const auto value = phone.nodes.value(node); value.has_value()) {
      files[output] = *value;
    }
  }
  files["qrtr-lookup.txt"] =
      "  Service Version Instance Node  Port\n"
      "       14       1        0    5    17 Registry\n"
      "      400       1        0    5    11 Sensor client service\n";
  return files;
}

// The copies run on in the background: what has been right once may be written anew a moment later.
static void expect_files(const Handset& phone, const std::string& path, const Files& files) {
  if (!eventually([&] { return folder(phone, path) == files; })) {
    EXPECT_EQ(folder(phone, path), files);
  }
}

static bool logged(const Handset& phone, const std::string& text, size_t from = 0) {
  return phone.log().find(text, from) != std::string::npos;
}

static const std::vector<std::string> kIpcLogs = {"adsp_glink", "cdsp_smem", "qrtr_0"};

// A phone whose engine cannot be set up and whose alarm cannot be set: each AT+ESLP=1 is a first
// one, and takes the first snapshot only.
static void keep_engine_off(Handset& phone) {
  phone.nodes.fail(kState, Operation::kOpen, EACCES);
  phone.nodes.fail(kAlarm, Operation::kOpen, EACCES);
}

TEST(Sleep, TheWholeCycleTwice) {
  Handset phone;
  phone.start();
  EXPECT_EQ(phone.nodes.take_writes().front(), (Nodes::Write{"/sys/power/wake_lock", "1\n"}));
  EXPECT_EQ(phone.power.wake_locks(), std::set<std::string>{"1"});
  for (int cycle = 0; cycle < 2; ++cycle) {
    const size_t log_before = phone.log().size();
    phone.nodes.set("/proc/gpio/gpio", "gpio state of cycle " + std::to_string(cycle) + "\n");
    phone.command("AT+ESLP=0");
    EXPECT_EQ(phone.command("AT+ESLP=1"), Replies{"OK\r\n"});
    ASSERT_TRUE(phone.power.wait_asleep());
    EXPECT_EQ(phone.power.wake_locks(), std::set<std::string>{});
    EXPECT_EQ(phone.power.suspends(), cycle);
    expect_files(phone, kBefore, expected(phone, kIpcLogs, "log"));
    EXPECT_EQ(fs::exists(phone.path(kFailed + "/d-gpio.txt")), cycle > 0);

    phone.nodes.set("/proc/gpio/gpio", "after cycle " + std::to_string(cycle) + "\n");
    ASSERT_TRUE(phone.power.fire_alarm());
    expect_files(phone, kFailed, expected(phone, kIpcLogs, "log_cont"));
    EXPECT_EQ(folder(phone, kBefore).at("d-gpio.txt"),
              "gpio state of cycle " + std::to_string(cycle) + "\n");
    EXPECT_EQ(phone.power.suspends(), cycle + 1);
    EXPECT_FALSE(phone.power.asleep());
    const std::string log = phone.log();
    size_t from = log_before;
    for (const char* line :
         {"time_val is +120\n", "ftm_sleep_fail_info_save_func,ret = 0,value = \n",
          "ftm_sleep_info_save_func: device sleep fail, AP wakeup\n",
          "autosuspend_wakeup_count_disable done\n", ": shell_cmd is cat /d/ipc_logging/"}) {
      const size_t at = log.find(line, from);
      ASSERT_NE(at, std::string::npos) << line;
      from = at;
    }
  }
}

TEST(Sleep, TheAlarmFiresInThePhonesTime) {
  Handset phone({.time_factor = 0.01});
  phone.start();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(phone.command("AT+ESLP=1"), Replies{"OK\r\n"});
  expect_files(phone, kFailed, expected(phone, kIpcLogs, "log_cont"));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1200));
  EXPECT_GE(phone.power.suspends(), 1);
}

TEST(Sleep, ClosesThePanelWaitsWritesAnswersAndThenCaptures) {
  Handset phone;
  std::atomic<bool> watching = false;
  std::mutex mutex;
  std::vector<std::string> seen;
  const auto see = [&](const std::string& what) {
    const std::lock_guard lock(mutex);
    if (watching) {
      seen.push_back(what + (phone.display.objects().framebuffers > 0 ? ", panel open" : "") +
                     ", replies " + std::to_string(phone.serial.replies().size()));
    }
  };
  phone.clock.on_wait([&](std::chrono::microseconds wait) {
    if (wait == std::chrono::milliseconds(10)) {
      see("wait");
    }
  });
  for (const std::string& node : {kRegmap + "address", kRegmap + "count", kRegmap + "data"}) {
    phone.nodes.on_write(node, [=](const std::string&) {
      see(node);
      return 0;
    });
  }
  phone.nodes.on_write("/sys/power/wake_unlock", [&](const std::string&) {
    see("unlock");
    return 0;
  });
  std::atomic<bool> captured = false;
  phone.nodes.on_read("/proc/gpio/gpio", [&] {
    if (!captured.exchange(true)) {
      see("capture");
    }
    return "";
  });
  keep_engine_off(phone);
  phone.start();
  phone.command("AT+EDFT=0,5");
  EXPECT_GT(phone.display.objects().framebuffers, 0U);
  phone.serial.take_replies();
  watching = true;
  const int reads = phone.serial.reads();
  phone.serial.send("AT+ESLP=1");
  EXPECT_TRUE(eventually([&] { return captured.load(); }));
  ASSERT_TRUE(phone.serial.wait_reads(reads + 1, std::chrono::seconds(20)));
  EXPECT_EQ(phone.serial.replies(), Replies{"OK\r\n"});
  EXPECT_EQ(seen,
            (std::vector<std::string>{"wait, replies 0", kRegmap + "address, replies 0",
                                      kRegmap + "count, replies 0", kRegmap + "data, replies 0",
                                      "unlock, replies 0", "capture, replies 1"}));
  EXPECT_EQ(phone.open_devices("drm-card"), 0U);

  // The flag is cleared: the panel is not closed again, and a light opens it anew.
  const int commits = phone.display.commits();
  phone.command("AT+ESLP=1");
  EXPECT_EQ(phone.display.commits(), commits);
  phone.command("AT+EDFT=0,5");
  EXPECT_GT(phone.display.objects().framebuffers, 0U);
}

TEST(Sleep, ASecondEnableRepeatsOnlyTheHandler) {
  Handset phone;
  phone.start();
  phone.command("AT+ESLP=1");
  ASSERT_TRUE(phone.power.wait_asleep());
  ASSERT_TRUE(eventually([&] { return phone.power.alarm_pending(); }));
  const size_t log_before = phone.log().size();
  expect_exchange(
      phone,
      {"AT+ESLP=1", {"OK\r\n"}, kEnableWrites, {10}, {"[FTM-POWER]power_set_can_sleep success\n"}});
  EXPECT_FALSE(logged(phone, "shell_cmd", log_before));
  EXPECT_FALSE(logged(phone, "time_val", log_before));
}

TEST(Sleep, DisableHoldsThePhoneAwakeWhileTheEngineStaysEnabled) {
  Handset phone;
  phone.start();
  phone.command("AT+ESLP=1");
  ASSERT_TRUE(phone.power.wait_asleep());
  const size_t log_before = phone.log().size();
  EXPECT_EQ(phone.command("AT+ESLP=0"), Replies{"OK\r\n"});
  EXPECT_TRUE(logged(phone, "[FTM-POWER]at_sleep_disable\n", log_before));
  EXPECT_TRUE(logged(phone, "[FTM-POWER]power_set_cannot_sleep success\n", log_before));
  EXPECT_TRUE(eventually([&] { return phone.power.suspends() == 1; }));
  EXPECT_TRUE(eventually([&] { return phone.power.alarm_pending(); }));  // the watcher has begun
  phone.nodes.take_writes();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(phone.power.asleep());
  EXPECT_EQ(phone.nodes.take_writes(), std::vector<Nodes::Write>{});
  // The watcher asks again and again, without a wait of its own.
  EXPECT_TRUE(eventually(
      [&] { return times(phone.log(), "ftm_sleep_fail_info_save_func,ret = 11,value = ") > 3; }));

  EXPECT_EQ(phone.command("AT+ESLP=1"), Replies{"OK\r\n"});
  EXPECT_TRUE(phone.power.wait_asleep());
  EXPECT_FALSE(logged(phone, "shell_cmd", log_before));
  EXPECT_FALSE(logged(phone, "autosuspend_wakeup_count_", log_before));
}

// A copy that still runs in the background may put a file back.
static void remove_folder(const fs::path& folder) {
  EXPECT_TRUE(eventually([&] {
    std::error_code again;
    fs::remove_all(folder, again);
    return !again && !fs::exists(folder);
  }));
}

TEST(Sleep, MissingNodesAreLoggedAndSkipped) {
  Handset phone;
  keep_engine_off(phone);
  phone.start();
  for (const auto& [node, output] : kPowerStates) {
    SCOPED_TRACE(node);
    remove_folder(phone.path(kBefore));
    const std::string value = *phone.nodes.value(node);
    phone.nodes.remove(node);
    expect_exchange(
        phone,
        {"AT+ESLP=1", {"OK\r\n"}, kEnableWrites, {10}, {"power state: " + node + " not exist\n"}});
    expect_files(phone, kBefore, expected(phone, kIpcLogs, "log"));
    phone.nodes.set(node, value);
    phone.command("AT+ESLP=0");
  }
  for (size_t i = 0; i < kEnableWrites.size(); ++i) {
    SCOPED_TRACE(kEnableWrites[i].path);
    phone.nodes.fail(kEnableWrites[i].path, Operation::kOpen, ENOENT);
    std::vector<Nodes::Write> others = kEnableWrites;
    others.erase(others.begin() + static_cast<ptrdiff_t>(i));
    const std::string line = i < 3 ? "file open failed\n" : "power_set_can_sleep failed\n";
    expect_exchange(phone, {"AT+ESLP=1", {"OK\r\n"}, others, {10}, {"[FTM-POWER]" + line}});
    phone.nodes.fail(kEnableWrites[i].path, Operation::kOpen, 0);
    phone.command("AT+ESLP=0");
  }
  fs::remove_all(phone.path("/d/ipc_logging"));
  remove_folder(phone.path(kBefore));
  phone.command("AT+ESLP=1");
  expect_files(phone, kBefore, expected(phone, {}, "log"));
  EXPECT_TRUE(logged(phone, "fail to open file sys/class/rtc/rtc0/wakealarm\n"));
  EXPECT_FALSE(logged(phone, "device sleep fail"));

  phone.nodes.fail("/sys/power/wake_lock", Operation::kWrite, EIO);
  expect_exchange(
      phone, {"AT+ESLP=0", {"OK\r\n"}, {}, {}, {"[FTM-POWER]power_set_cannot_sleep failed\n"}});
}

TEST(Sleep, CapturesTheFoldersOfTheFourPrefixes) {
  Handset phone;
  keep_engine_off(phone);
  const std::string ipc = "/d/ipc_logging/";
  const std::string fits(100, 'x');
  const std::string too_long(200, 'x');
  for (const std::string& name :
       {std::string("adsp"), std::string("esoc-mdm0"), "qrtr_" + fits, std::string("qrtr"),
        std::string("xadsp"), std::string("adsp;touch owned;"), std::string("adsp $(reboot)"),
        std::string("adsp_\xc3\xa4"), "cdsp" + too_long}) {
    phone.write_file(ipc + name + "/log", "log of " + name + "\n");
  }
  phone.write_file(ipc + "adsp_file", "no folder");
  fs::create_directory_symlink("adsp", phone.path(ipc + "adsp_link"));
  fs::create_directory(phone.path(ipc + "cdsp_empty"));
  phone.start();
  phone.command("AT+ESLP=1");
  std::vector<std::string> names = kIpcLogs;
  names.insert(names.end(), {"adsp", "esoc-mdm0", "qrtr_" + fits, "cdsp_empty"});
  expect_files(phone, kBefore, expected(phone, names, "log"));
  EXPECT_FALSE(fs::exists(phone.path("/owned")));
}

TEST(Sleep, MakesItsFoldersWithOwnerAndMode) {
  Handset phone;
  phone.start();
  phone.command("AT+ESLP=1");
  ASSERT_TRUE(eventually([&] { return phone.power.alarm_pending(); }));
  for (const auto& [path, priority] : {std::pair(kBefore, 'E'), std::pair(kFailed, 'I')}) {
    struct stat status = {};
    ASSERT_EQ(stat(phone.path(path).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0770U);
    if (geteuid() == 0) {
      EXPECT_EQ(status.st_uid, 0U);
      EXPECT_EQ(status.st_gid, 1000U);
    }
    const std::string log = phone.log();
    const size_t at = log.find("Log Directory created successfully, path is " + path + " \n");
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(log[log.rfind('\n', at) + 6], priority);  // "ftmd E ..."
  }
}

TEST(Sleep, TriesThreeTimesToMakeAFolderAndTakesOneThatAppears) {
  struct Case {
    int appears_at;  // try while whose wait the folder comes; 0 for never
    std::vector<int> waits;
  };
  for (const Case& c :
       {Case{0, {10, 1000, 1000, 1000}}, Case{1, {10, 1000}}, Case{2, {10, 1000, 1000}}}) {
    SCOPED_TRACE(c.appears_at);
    Handset phone;
    keep_engine_off(phone);
    fs::remove(phone.path(kAdmin));
    std::atomic<int> tries = 0;
    phone.clock.on_wait([&](std::chrono::microseconds wait) {
      if (wait == std::chrono::seconds(1) && ++tries == c.appears_at) {
        fs::create_directories(phone.path(kBefore));
      }
    });
    phone.start();
    phone.clock.take_waits();
    EXPECT_EQ(phone.command("AT+ESLP=1"), Replies{"OK\r\n"});
    std::vector<int> waits = waits_ms(phone);
    ASSERT_GE(waits.size(), c.waits.size());
    waits.resize(c.waits.size());  // what comes behind them is the second folder's
    EXPECT_EQ(waits, c.waits);
    EXPECT_EQ(times(phone.log(), "Wait for " + kBefore + " is ready\n"), c.waits.size() - 1);
    EXPECT_FALSE(logged(phone, "created successfully, path is " + kBefore));
    EXPECT_TRUE(logged(
        phone, ": shell_cmd is /vendor/bin/qrtr-lookup > " + kBefore + "/qrtr-lookup.txt& \n"));
    expect_files(phone, kBefore, c.appears_at == 0 ? Files{} : expected(phone, kIpcLogs, "log"));
  }
}

TEST(Sleep, LeavesNothingOpenAndNoProcessBehind) {
  constexpr int kCycles = 5;
  Handset phone;
  phone.start();
  size_t open_first = 0;
  for (int i = 0; i < kCycles; ++i) {
    const size_t log_before = phone.log().size();
    phone.command("AT+ESLP=1");
    ASSERT_TRUE(phone.power.wait_asleep());
    ASSERT_TRUE(phone.power.fire_alarm());
    const std::string last = "qrtr-lookup > " + kFailed;
    ASSERT_TRUE(eventually([&] { return logged(phone, last, log_before); }));
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
