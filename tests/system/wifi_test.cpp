// The WLAN driver's way in and out of the kernel, and the calibration file.

#include <fcntl.h>

#include <filesystem>

#include "tests/system/station.h"

static const std::vector<int> kScanWaits = {50, 200, 200, 200, 200, 200, 100};
static const std::vector<std::string> kScans = {"ifconfig wlan0 up", "iw wlan0 scan",
                                                "iw wlan0 scan",     "iw wlan0 scan",
                                                "iw wlan0 scan",     "iw wlan0 scan"};
static const char kDriver[] = "/vendor/lib/modules/qca_cld3_wlan.ko";
static const KernelModules::Call kLoad = {.what = "load", .name = "wlan", .parameters = ""};

static KernelModules::Call unload(const std::string& name) {
  return {.what = "unload", .name = name, .flags = O_NONBLOCK | O_EXCL};
}

TEST(Wifi, OpenLoadsTheDriverAndScansWhateverComesOfIt) {
  Handset phone;
  phone.start();
  const std::vector<std::string> logged = {std::string("insmod for ") + kDriver + " \n",
                                           "set wlan0 up success\n", "iw wlan0 scan ok, count = 4",
                                           "iw wlan0 scan ok, count = 0",
                                           "[FTM-WIFI]wifi_schedule_scan: Stop\n"};
  expect_exchange(phone, {"AT^OPEN_WIFI", {"OK\r\n"}, {}, kScanWaits, logged});
  EXPECT_EQ(phone.modules.calls(), std::vector<KernelModules::Call>{kLoad});
  EXPECT_EQ(phone.program_calls(), kScans);

  // Loaded already, not a driver, an empty file, no file: the scans run all the same.
  expect_exchange(phone, {"AT^OPEN_WIFI", {"OK\r\n"}, {}, kScanWaits, logged});
  phone.write_file(kDriver, "no driver");
  expect_exchange(phone, {"AT^OPEN_WIFI", {"OK\r\n"}, {}, kScanWaits, logged});
  EXPECT_EQ(phone.modules.calls().size(), 3U);
  phone.write_file(kDriver, "");
  expect_exchange(phone, {"AT^OPEN_WIFI", {"OK\r\n"}, {}, kScanWaits, logged});
  std::filesystem::remove(phone.path(kDriver));
  expect_exchange(phone, {"AT^OPEN_WIFI", {"OK\r\n"}, {}, kScanWaits, logged});
  EXPECT_EQ(phone.modules.calls().size(), 3U);
  EXPECT_EQ(phone.program_calls().size(), 5 * kScans.size());
}

TEST(Wifi, CloseTriesABusyDriverTenTimesHalfASecondApart) {
  struct Case {
    int busy;
    size_t unloads;  // of wlan
    std::vector<int> waits;
    std::string logged;
  };
  const std::string again =
      "Unable to unload driver module \"wlan\": Resource temporarily unavailable\n";
  const std::vector<Case> cases = {
      {0, 1, {}, "at_close_wifi\n"},
      {3, 4, {500, 500, 500}, "at_close_wifi\n"},
      {9, 10, std::vector<int>(9, 500), "at_close_wifi\n"},
      {10, 10, std::vector<int>(10, 500), again},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.busy);
    Handset phone;
    phone.modules.set_loaded("wlan", true);
    phone.modules.fail("wlan", EAGAIN, c.busy);
    phone.start();
    expect_exchange(phone, {"AT^CLOSE_WIFI", {"OK\r\n", "STOP"}, {}, c.waits, {c.logged}});
    std::vector<KernelModules::Call> calls(c.unloads, unload("wlan"));
    calls.push_back(unload("cfg80211"));
    EXPECT_EQ(phone.modules.calls(), calls);
    EXPECT_FALSE(phone.modules.loaded("cfg80211"));
    EXPECT_EQ(phone.log().find("Unable to unload") != std::string::npos, c.busy == 10);
  }
}

TEST(Wifi, CloseWithoutTheDriverLogsBothFailures) {
  Handset phone;
  phone.modules.set_loaded("cfg80211", false);
  phone.start();
  expect_exchange(phone,
                  {"AT^CLOSE_WIFI",
                   {"OK\r\n", "STOP"},
                   {},
                   {},
                   {"Unable to unload driver module \"wlan\": No such file or directory\n",
                    "Unable to unload driver module \"cfg80211\": No such file or directory\n"}});
}

TEST(Wifi, CheckTakesACalibrationFileForAnError) {
  Handset phone;
  phone.start();
  expect_exchange(phone, {"AT^CHECK_WIFI", {"OK\r\n"}});
  phone.write_file("/mnt/vendor/persist/copy/bdwlan.bin", "");
  expect_exchange(phone, {"AT^CHECK_WIFI", {"ERROR\n"}});
}
