// What the key transcript cannot say: how many waits a quick operator costs, and what is left
// behind.

#include <linux/input-event-codes.h>
#include <sys/resource.h>

#include <filesystem>
#include <memory>

#include "tests/system/station.h"

// The daemon's threads besides those of its start.
static size_t threads(const Handset& phone) {
  const std::filesystem::directory_iterator all("/proc/" + std::to_string(phone.pid()) + "/task");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

TEST(Keys, AllThreeAtOnceTakeOneWaitAtMost) {
  Handset phone({.time_factor = 1});  // the listener gets its turn within the first wait
  phone.start();
  for (const char* key : {"power", "volup", "voldown"}) {
    phone.key(key)->device->press(phone.key(key)->code);
  }
  phone.clock.take_waits();
  EXPECT_EQ(phone.command("AT+KEY").at(3), "OK\r\n");
  EXPECT_LE(phone.clock.take_waits().size(), 1U);
}

TEST(Keys, ListensToKeysSwitchesAndWheelsButToNoPointer) {
  constexpr uint64_t kKey = InputDevice::kKey;
  constexpr uint64_t kRelative = InputDevice::kRelative;
  constexpr uint64_t kAbsolute = InputDevice::kAbsolute;
  constexpr uint64_t kSwitch = 1U << EV_SW;
  const std::pair<uint64_t, int> cases[] = {
      {kKey, 1},
      {kSwitch, 1},
      {kRelative, 1},
      {0, 0},
      {kAbsolute, 0},
      {kKey | kAbsolute, 1},
      {kKey | kRelative, 1},
      {kKey | kRelative | kAbsolute, 0},
  };
  for (const auto& [types, seen] : cases) {
    SCOPED_TRACE(types);
    InputDevice device(types | InputDevice::kSyn);
    Handset phone({.time_factor = 0.05});  // the listener gets its turn
    phone.add_device("/dev/input/event0", &device);
    phone.start();
    device.press(KEY_POWER);
    EXPECT_EQ(phone.command("AT+KEY").at(2),
              "POWER_KEY:" + std::to_string(seen) + ", VOL+:0, VOL-:0, \n");
  }
}

TEST(Keys, SixteenDevicesAreWatched) {
  Handset phone;
  std::vector<std::unique_ptr<InputDevice>> devices;
  for (int i = 0; i < 20; ++i) {
    devices.push_back(std::make_unique<InputDevice>(InputDevice::kKey));
    phone.add_device("/dev/input/event" + std::to_string(i), devices.back().get());
  }
  phone.start();
  phone.journal.take();
  phone.command("AT+KEY");
  size_t opened = 0;
  for (const Journal::Entry& entry : phone.journal.take()) {
    opened += entry.text.starts_with("open /dev/input/event") ? 1 : 0;
  }
  EXPECT_EQ(opened, 16U);
  EXPECT_EQ(phone.open_devices("socket"), 0U);
}

// With one descriptor free there is an epoll set, but nothing that could end its wait.
TEST(Keys, WithoutRoomForItsDescriptorsTheRowEndsAllTheSame) {
  Handset phone;
  phone.start();
  rlimit limit = {};
  prlimit(phone.pid(), RLIMIT_NOFILE, nullptr, &limit);
  limit.rlim_cur = phone.open_descriptors() + 1;
  ASSERT_EQ(prlimit(phone.pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
  phone.clock.take_waits();
  EXPECT_EQ(phone.command("AT+KEY").at(2), "POWER_KEY:0, VOL+:0, VOL-:0, \n");
  EXPECT_EQ(phone.clock.take_waits().size(), 7U);
}

TEST(Keys, TwentyTestsWithoutAKeyLeaveNothingBehind) {
  Handset phone;
  phone.volume_keys.fail_epoll();  // a device that cannot be watched is closed as well
  phone.start();
  const size_t descriptors = phone.open_descriptors();
  const size_t threads_before = threads(phone);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(phone.command("AT+KEY").size(), 5U);
  }
  EXPECT_EQ(phone.open_descriptors(), descriptors);
  EXPECT_EQ(threads(phone), threads_before);
}
