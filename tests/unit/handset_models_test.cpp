// The handset's models by themselves: what they answer to bytes, texts and names, without a daemon.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "handset/models/clock.h"
#include "handset/models/kernel_modules.h"
#include "handset/models/memory_card.h"
#include "handset/models/power_interfaces.h"
#include "handset/models/sensor_hub.h"
#include "handset/models/tone_party.h"
#include "tests/unit/hub_bytes.h"

using namespace handset;
using std::chrono::milliseconds;

// ---- sensor hub: messages written by hand, a tag byte before each value

struct Suid {
  uint64_t low;
  uint64_t high;
};

static constexpr Suid kLookup = {0xABABABABABABABAB, 0xABABABABABABABAB};

static Suid suid_of(size_t place) {
  return {0x1100 + place, 0x5E45084855B00000};
}

static std::string request(const Suid& suid, uint32_t msg_id, const std::string& payload) {
  return sized('\x0a', suid_bytes(suid.low, suid.high)) + "\x15" + little_endian(msg_id, 4) +
         sized('\x1a', {'\x08', '\x01', '\x10', '\x00'}) + sized('\x22', sized('\x12', payload));
}

// The message of one event, its time 0.
static std::string event(const Suid& suid, uint32_t msg_id, const std::string& payload) {
  return sized('\x0a', suid_bytes(suid.low, suid.high)) + event_bytes(msg_id, 0, payload);
}

static std::string without_time(std::string message) {
  constexpr size_t kTime = 28;
  return message.size() < kTime + 8 ? message : message.replace(kTime, 8, little_endian(0, 8));
}

static const std::string kTenHertz = "\x0d" + little_endian(0x41200000, 4);

static void fill(SensorHub* hub) {
  hub->set_sensor({.name = "accel", .data_type = "accel", .values = {1, 2}});
  hub->set_sensor({.name = "gyro", .data_type = "gyro", .hardware_id = {}, .event = 0});
  hub->set_sensor({.name = "accel_2", .data_type = "accel"});
}

TEST(SensorHub, LooksUpTheSensorsOfADataType) {
  SensorHub hub;
  fill(&hub);
  struct Case {
    std::string data_type;
    bool default_only;
    std::vector<size_t> found;  // places of sensors
  };
  for (const Case& c : {Case{"accel", false, {0, 2}}, Case{"accel", true, {0}},
                        Case{"gyro", true, {1}}, Case{"smell", false, {}}}) {
    SCOPED_TRACE(c.data_type);
    const std::string asked = sized('\x0a', c.data_type) + "\x18" + (c.default_only ? '\1' : '\0');
    const auto reply = hub.answer(request(kLookup, 512, asked));
    std::string told = sized('\x0a', c.data_type);
    for (const size_t place : c.found) {
      const Suid suid = suid_of(place);
      told += sized('\x12', suid_bytes(suid.low, suid.high));
    }
    ASSERT_TRUE(reply.has_value() && reply->events.size() == 1);
    EXPECT_EQ(without_time(reply->events[0]), event(kLookup, 768, told));
    EXPECT_FALSE(reply->stream.has_value());
    EXPECT_TRUE(hub.answer(request(kLookup, 1, asked))->events.empty());
  }
}

TEST(SensorHub, StreamsASensorThatIsEnabled) {
  SensorHub hub;
  fill(&hub);
  hub.set_extra_events({130});
  auto reply = hub.answer(request(suid_of(0), 513, kTenHertz));
  ASSERT_TRUE(reply.has_value() && reply->stream.has_value());
  ASSERT_EQ(reply->events.size(), 2U);
  EXPECT_NE(reply->events[0].find(sized('\x1a', kTenHertz)), std::string::npos);  // the echo
  EXPECT_EQ(without_time(reply->events[1]), event(suid_of(0), 130, ""));
  EXPECT_EQ(reply->stream->sensor, "accel");
  EXPECT_EQ(std::chrono::round<milliseconds>(reply->stream->period), milliseconds(100));
  const std::string values = little_endian(0x3f800000, 4) + little_endian(0x40000000, 4);
  EXPECT_EQ(without_time(hub.sample("accel").value_or("")),
            event(suid_of(0), 1025, sized('\x0a', values) + "\x10\x03"));

  hub.set_sample_period(milliseconds(3));
  EXPECT_EQ(hub.answer(request(suid_of(0), 513, kTenHertz))->stream->period, milliseconds(3));
  // One that gives no samples, and a rate of 0.
  EXPECT_FALSE(hub.answer(request(suid_of(1), 513, kTenHertz))->stream.has_value());
  EXPECT_TRUE(hub.answer(request(suid_of(0), 513, "\x0d" + little_endian(0, 4)))->events.empty());
  hub.remove_sensor("accel");
  EXPECT_FALSE(hub.sample("accel").has_value());
}

TEST(SensorHub, HasNoEventForWhatItDoesNotKnow) {
  SensorHub hub;
  fill(&hub);
  const Suid other = {suid_of(0).low, 1};
  for (const auto& [suid, msg_id] :
       {std::pair(suid_of(3), 1U), std::pair(other, 513U), std::pair(suid_of(0), 77U)}) {
    const auto reply = hub.answer(request(suid, msg_id, ""));
    ASSERT_TRUE(reply.has_value());
    EXPECT_TRUE(reply->events.empty() && !reply->stream.has_value()) << msg_id;
  }
  const std::string whole = request(suid_of(0), 1, "");
  for (size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(hub.answer(whole.substr(0, size)).has_value()) << size;
  }
  EXPECT_NE(hub.answer(whole)->events.at(0).find("accel"), std::string::npos);
  hub.set_state(SensorHub::State::kSilent);
  EXPECT_FALSE(hub.answer(whole).has_value());
}

// ---- power

struct PowerStep {
  int (PowerInterfaces::*store)(const std::string& text);
  std::string text;
  int result;
};

static void expect_steps(PowerInterfaces& power, const std::vector<PowerStep>& steps) {
  for (size_t i = 0; i < steps.size(); ++i) {
    EXPECT_EQ((power.*steps[i].store)(steps[i].text), steps[i].result) << i << steps[i].text;
  }
}

TEST(PowerInterfaces, LetNothingSleepWhileAnEventIsInProgressOrUnseen) {
  using Power = PowerInterfaces;
  PowerInterfaces power(0, [] { return true; });
  expect_steps(power, {{&Power::store_wake_unlock, "lock", -EINVAL},
                       {&Power::store_wake_lock, " \n", -EINVAL},
                       {&Power::store_wake_lock, "lock 100\n", 0},
                       {&Power::store_wakeup_count, "0", -EINVAL},
                       {&Power::store_state, "mem", -EINTR},  // nobody has asked for the events
                       {&Power::store_wake_lock, "b", 0}});
  EXPECT_EQ(power.show_wake_locks(), "b lock\n");
  expect_steps(power, {{&Power::store_wake_unlock, "b\n", 0},
                       {&Power::store_wake_unlock, "b\n", 0},  // known, though no longer held
                       {&Power::store_wakeup_count, "1", -EINVAL},
                       {&Power::store_wake_unlock, "lock", 0},
                       {&Power::store_wakeup_count, "1", -EINVAL},  // the lock's end has moved it
                       {&Power::store_wakeup_count, "2\n", 0}});
  EXPECT_EQ(power.show_wake_locks(), "\n");
  power.wakeup_event();
  expect_steps(power, {{&Power::store_state, "disk", -EINVAL},
                       {&Power::store_state, "mem\n", -EBUSY},
                       {&Power::store_state, "mem\n", -EINTR}});  // the count is asked once
  EXPECT_EQ(power.show_wakeup_count(), "3\n");
  expect_steps(power, {{&Power::store_wakeup_count, "3", 0},
                       {&Power::store_wake_lock, "b", 0},
                       {&Power::store_state, "mem", -EBUSY},
                       {&Power::store_wake_unlock, "b", 0},
                       {&Power::store_wakeup_count, "4", 0}});
  power.wakeup_event();
  expect_steps(power, {{&Power::store_wakeup_count, "4", -EINVAL},  // takes the accepted one back
                       {&Power::store_state, "mem", -EINTR}});
  EXPECT_EQ(power.suspends(), 0);
  expect_steps(power, {{&Power::store_alarm, "+7", 0},
                       {&Power::store_alarm, "+8", -EBUSY},
                       {&Power::store_alarm, "soon", -EINVAL}});
  EXPECT_TRUE(power.alarm_pending());
  expect_steps(power, {{&Power::store_alarm, "0\n", 0},
                       {&Power::store_alarm, std::to_string(time(nullptr) + 100), 0}});
  EXPECT_TRUE(power.alarm_pending());
  expect_steps(power, {{&Power::store_alarm, "7", 0}});  // over
  EXPECT_EQ(power.show_alarm(), "");
}

TEST(PowerInterfaces, SleepUntilSomethingWakesThem) {
  PowerInterfaces power(1, [] { return false; });
  std::string told;
  power.on_sleep = [&](bool asleep) { told += asleep ? "asleep " : "awake "; };
  const std::vector<std::pair<std::string, std::function<void()>>> wakes = {
      {"event", [&] { power.wakeup_event(); }},
      {"alarm", [&] { EXPECT_TRUE(power.store_alarm("+9") == 0 && power.fire_alarm()); }},
      {"event, not a wake lock",
       [&] {
         EXPECT_EQ(power.store_wake_lock("lock"), 0);
         std::this_thread::sleep_for(milliseconds(20));
         EXPECT_TRUE(power.asleep());
         power.wakeup_event();
         power.wait_awake();
       }},
  };
  int suspends = 0;
  for (const auto& [name, wake] : wakes) {
    SCOPED_TRACE(name);
    int result = 1;
    std::thread sleeper([&] { result = power.store_state("mem"); });
    EXPECT_TRUE(power.wait_asleep());
    wake();
    sleeper.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(power.suspends(), ++suspends);
  }
  EXPECT_EQ(power.store_wake_unlock("lock"), 0);
  power.set_suspend_time(milliseconds(5));
  EXPECT_EQ(power.store_state("mem"), 0);
  EXPECT_EQ(told, "asleep awake asleep awake asleep awake asleep awake ");
}

// ---- the others

TEST(KernelModules, AnswerLoadsAndUnloads) {
  KernelModules modules;
  const std::string image("license=GPL\0name=wlan\0depends=", 30);
  EXPECT_EQ(modules.load("no module", ""), -ENOEXEC);
  EXPECT_EQ(modules.unload("wlan", 0), -ENOENT);
  EXPECT_EQ(modules.load(image, "con_mode=5"), 0);
  EXPECT_EQ(modules.load(image, ""), -EEXIST);
  modules.fail("wlan", EAGAIN, 2);
  for (const int result : {-EAGAIN, -EAGAIN, 0, -ENOENT}) {
    EXPECT_EQ(modules.loaded("wlan"), result != -ENOENT);
    EXPECT_EQ(modules.unload("wlan", 04000), result);
  }
  // One needs the other: loaded behind it, unloaded before it.
  const std::string needy("name=needy\0depends=low,wlan\0", 28);
  EXPECT_EQ(modules.load(needy, ""), -ENOENT);
  modules.set_loaded("low", true);
  modules.set_loaded("wlan", true);
  EXPECT_EQ(modules.load(needy, ""), 0);
  EXPECT_EQ(modules.unload("wlan", 0), -EAGAIN);
  EXPECT_EQ(modules.unload("needy", 0), 0);
  EXPECT_EQ(modules.unload("wlan", 0), 0);

  const KernelModules::Call load = {.what = "load", .name = "wlan", .parameters = "con_mode=5"};
  const KernelModules::Call unload = {.what = "unload", .name = "wlan", .flags = 04000};
  ASSERT_EQ(modules.calls().size(), 13U);
  EXPECT_EQ(modules.calls()[2], load);
  EXPECT_EQ(modules.calls()[7], unload);
}

TEST(Clock, ShortensWaitsAndTellsTheRest) {
  Clock clock(0.25);
  std::chrono::nanoseconds skipped{0};
  clock.on_skip = [&](std::chrono::nanoseconds time) {
    skipped = time;
    return [] { return true; };
  };
  const Clock::Wait wait = clock.wait(milliseconds(100));
  EXPECT_EQ(wait.time, milliseconds(25));
  EXPECT_TRUE(wait.ready != nullptr && skipped == milliseconds(75));
  EXPECT_TRUE(clock.wait(milliseconds(0)).ready == nullptr);
  EXPECT_EQ(clock.take_waits(), std::vector<std::chrono::microseconds>({milliseconds(100), {}}));
}

TEST(MemoryCard, IsMissedWhenItIsOut) {
  MemoryCard card;
  card.insert(MemoryCard::Size{.block_size = 512, .blocks = 40, .free_blocks = 4});
  struct statfs status;
  ASSERT_EQ(card.status(&status), 0);
  EXPECT_TRUE(status.f_bsize == 512 && status.f_blocks == 40 && status.f_bfree == 4 &&
              status.f_bavail == 2);
  card.insert(std::nullopt);
  EXPECT_EQ(card.status(&status), -ENOENT);
}

// ---- the test tone's other party

class TonePartyTest : public testing::Test {
 protected:
  ~TonePartyTest() override {
    std::filesystem::remove_all(folder_);
  }

  void set(const std::string& session) const {
    std::ofstream(folder_ + "/.test") << session;
    std::filesystem::rename(folder_ + "/.test", kSession);
  }
  std::string session() const {
    std::ifstream stream(kSession);
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  bool becomes(const std::string& wanted) const {
    for (int i = 0; i < 4000 && session() != wanted; ++i) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    return session() == wanted;
  }

  std::string template_ = testing::TempDir() + "party.XXXXXX";
  const std::string folder_ = mkdtemp(template_.data());
  const std::string kSession = folder_ + "/vendor.norva.mm.ftm_spk";
};

TEST_F(TonePartyTest, AnswersOnlyOffAndOnlyWhileItShall) {
  ToneParty party;
  party.set_answering(false);
  party.attend(folder_);
  set("cmd_off");
  party.set_answering(true);
  EXPECT_TRUE(becomes("cmd_finish"));
  for (int i = 0; i < 200; ++i) {
    set("cmd_off");
    party.set_answering(true);
    ASSERT_TRUE(becomes("cmd_finish"));
  }
  set("cmd_on");
  party.set_answering(false);
  set("cmd_off");
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_EQ(session(), "cmd_off");
}

// Its answer is held up in a full pipe while the next session begins.
TEST_F(TonePartyTest, DoesNotEndTheNextSession) {
  const std::string aside = folder_ + "/.party";
  ASSERT_EQ(mkfifo(aside.c_str(), 0600), 0);
  const int pipe = open(aside.c_str(), O_RDWR | O_NONBLOCK);
  std::string bytes(4096, 'x');
  while (write(pipe, bytes.data(), bytes.size()) > 0) {
  }
  const int opens = inotify_init1(0);
  ASSERT_GE(inotify_add_watch(opens, aside.c_str(), IN_OPEN), 0);
  ToneParty party;
  party.attend(folder_);
  set("cmd_off");
  EXPECT_GT(read(opens, bytes.data(), bytes.size()), 0);
  set("cmd_on");
  while (read(pipe, bytes.data(), bytes.size()) > 0) {
  }
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_TRUE(std::filesystem::exists(aside));  // the answer is not given
  set("cmd_on");
  close(opens);
  close(pipe);
}
