// The key test: what the operator presses, and what is left behind when he does not.

#include <linux/input-event-codes.h>

#include <filesystem>
#include <memory>

#include "tests/system/station.h"

using Replies = std::vector<std::string>;

static Replies report(int power, int up, int down) {
  const bool all = power + up + down == 3;
  return {"AT_KEY test is start\n", "wait input event in 5s\n",
          "POWER_KEY:" + std::to_string(power) + ", VOL+:" + std::to_string(up) +
              ", VOL-:" + std::to_string(down) + ", \n",
          all ? "OK\r\n" : "ERROR\n", "AT_KEY test is end\n"};
}

static const std::vector<int> kAllWaits(7, 700);

// The daemon's threads besides those of its start.
static size_t threads(const Handset& phone) {
  const std::filesystem::directory_iterator all("/proc/" + std::to_string(phone.pid()) + "/task");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

TEST(Keys, EachKeySeenIsReported) {
  Handset phone({.time_factor = 0.02});
  phone.start();
  struct Case {
    std::vector<std::string> keys;
    Replies replies;
  };
  const std::vector<Case> cases = {
      {{"power"}, report(1, 0, 0)},   {{"volup"}, report(0, 1, 0)},
      {{"voldown"}, report(0, 0, 1)}, {{"voldown", "power"}, report(1, 0, 1)},
      {{}, report(0, 0, 0)},
  };
  for (const Case& c : cases) {
    for (const std::string& key : c.keys) {
      EXPECT_TRUE(phone.press_key(key));
    }
    expect_exchange(phone, {"AT+KEY", c.replies, {}, kAllWaits});
  }
  // All three at once: one wait at most.
  for (const char* key : {"power", "volup", "voldown"}) {
    phone.press_key(key);
  }
  phone.clock.take_waits();
  EXPECT_EQ(phone.command("AT+KEY"), report(1, 1, 1));
  EXPECT_LE(phone.clock.take_waits().size(), 1U);
}

TEST(Keys, AReleaseCountsAndAnotherKeyDoesNot) {
  Handset phone({.time_factor = 0.02});
  phone.start();
  phone.power_key.send(KEY_POWER, 0);
  phone.volume_keys.send(KEY_MUTE, 1);
  phone.volume_keys.send_raw("no whole event");
  phone.volume_keys.send(KEY_VOLUMEUP, 2);
  expect_exchange(phone, {"AT+KEY",
                          report(1, 1, 0),
                          {},
                          kAllWaits,
                          {"[FTM-KEY]input_callback key_power_down =1\n",
                           "[FTM-KEY]input_callback key_vol_up_down=1\n"}});
}

TEST(Keys, AreNotTakenFromAPointerNorFromRefusedDevices) {
  Handset phone({.time_factor = 0.02});
  phone.pointer.press(KEY_VOLUMEDOWN);
  phone.volume_keys.fail_types(25);
  phone.volume_keys.press(KEY_VOLUMEUP);
  phone.power_key.press(KEY_POWER);
  phone.start();
  expect_exchange(phone, {"AT+KEY", report(1, 0, 0), {}, kAllWaits});
  EXPECT_EQ(phone.open_devices("socket"), 0U);
}

TEST(Keys, WithoutAnyDeviceTheRowTakesItsTime) {
  Handset phone;
  for (const char* device : {"event0", "event1", "event2"}) {
    phone.remove_device(std::string("/dev/input/") + device);
  }
  phone.start();
  expect_exchange(phone, {"AT+KEY", report(0, 0, 0), {}, kAllWaits});
  std::filesystem::remove_all(phone.path("/dev/input"));
  expect_exchange(phone, {"AT+KEY", report(0, 0, 0), {}, kAllWaits});
}

TEST(Keys, SixteenDevicesAreWatchedAndThoseThatEpollRefusesAreClosed) {
  Handset phone({.time_factor = 0.02});
  std::vector<std::unique_ptr<InputDevice>> devices;
  for (int i = 0; i < 20; ++i) {
    devices.push_back(std::make_unique<InputDevice>(InputDevice::kKey));
    devices.back()->press(i % 2 == 0 ? KEY_POWER : KEY_VOLUMEUP);
    phone.add_device("/dev/input/event" + std::to_string(i), devices.back().get());
  }
  phone.start();
  phone.command("AT+KEY");
  EXPECT_EQ(phone.open_devices("socket"), 0U);

  Handset refused;
  refused.volume_keys.fail_epoll();
  refused.power_key.fail_epoll();
  refused.start();
  const size_t descriptors = refused.open_descriptors();
  expect_exchange(refused, {"AT+KEY", report(0, 0, 0), {}, kAllWaits});
  EXPECT_EQ(refused.open_descriptors(), descriptors);
}

TEST(Keys, TwentyTestsWithoutAKeyLeaveNothingBehind) {
  Handset phone;
  phone.start();
  const size_t descriptors = phone.open_descriptors();
  const size_t threads_before = threads(phone);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(phone.command("AT+KEY"), report(0, 0, 0));
  }
  EXPECT_EQ(phone.open_descriptors(), descriptors);
  EXPECT_EQ(threads(phone), threads_before);
}
