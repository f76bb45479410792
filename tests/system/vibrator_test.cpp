// The vibration motor and the haptic driver's leakage test.

#include <errno.h>

#include "tests/system/station.h"

static const char kDuration[] = "/sys/class/leds/vibrator/duration";
static const char kActivate[] = "/sys/class/leds/vibrator/activate";
static const char kLeakage[] = "/proc/aw8697_leakage";

static const std::vector<Nodes::Write> kStarted = {{kDuration, "5000\n"}, {kActivate, "1\n"}};
static const std::vector<Nodes::Write> kStopped = {{kDuration, "0\n"}, {kActivate, "0\n"}};

TEST(Vibrator, WritesTheNodesOnlyWhenTheMotorChanges) {
  Handset phone;
  phone.start();
  expect_exchanges(
      phone,
      {{"AT+EDFT=6,1",
        {"OK\r\n"},
        kStarted,
        {700},
        {"[FTM-VIBRATOR]vibrator status is set to:on\n"}},
       {"AT+EDFT=6,1", {"OK\r\n"}, {}, {700}, {"[FTM-VIBRATOR]vibrator status is already on\n"}},
       {"AT+EDFT=6,0",
        {"OK\r\n"},
        kStopped,
        {500},
        {"[FTM-VIBRATOR]vibrator status is set to:off\n"}},
       {"AT+EDFT=6,0", {"OK\r\n"}, {}, {500}, {"[FTM-VIBRATOR]vibrator status is already off\n"}}});
}

TEST(Vibrator, TakesItsFirstStateFromTheDurationNode) {
  struct Case {
    std::optional<std::string> node;
    std::string logged;
    std::vector<Nodes::Write> on;
    std::vector<Nodes::Write> off;
  };
  const std::vector<Nodes::Write> only_activate_on = {{kActivate, "1\n"}};
  const std::vector<Nodes::Write> only_activate_off = {{kActivate, "0\n"}};
  const std::vector<Case> cases = {
      {"0\n", "init status = 0\n\n", kStarted, kStopped},
      {"12345678", "init status = 12345\n", {}, kStopped},  // five bytes, of which the first counts
      {"\x7f", "set to:on\n", {}, kStopped},
      {"", "init status = \n", kStarted, kStopped},
      {std::nullopt, "init status = \n", only_activate_on, only_activate_off},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.node.value_or("no node"));
    Handset phone;
    if (c.node.has_value()) {
      phone.nodes.set(kDuration, *c.node);
    } else {
      phone.nodes.remove(kDuration);
    }
    phone.start();
    EXPECT_NE(phone.log().find(c.logged), std::string::npos);
    expect_exchange(phone, {"AT+EDFT=6,1", {"OK\r\n"}, c.on, {700}});
    expect_exchange(phone, {"AT+EDFT=6,0", {"OK\r\n"}, c.off, {500}});
  }
}

TEST(Vibrator, AnUnknownStateStopsAtTheFirstOff) {
  Handset phone;
  phone.nodes.fail(kDuration, Nodes::Operation::kRead, EIO);
  phone.nodes.fail(kDuration, Nodes::Operation::kOpen, EIO);
  phone.start();
  phone.nodes.fail(kDuration, Nodes::Operation::kOpen, 0);
  expect_exchange(phone, {"AT+EDFT=6,0", {"OK\r\n"}, kStopped, {500}});
}

TEST(Vibrator, MotorFailuresShowOnlyInTheLog) {
  Handset phone;
  phone.start();
  phone.nodes.fail(kDuration, Nodes::Operation::kWrite, EIO);
  phone.nodes.remove(kActivate);
  const std::vector<std::string> logged = {
      std::string("[FTM-UTILS]fail to write file ") + kDuration + "\n",
      std::string("[FTM-UTILS]fail to open file ") + kActivate + "\n"};
  expect_exchanges(phone, {{"AT+EDFT=6,1", {"OK\r\n"}, {}, {700}, logged},
                           {"AT+EDFT=6,1", {"OK\r\n"}, {}, {700}, {"already on"}}});
}

TEST(Vibrator, LeakageTestReportsAFailedWriteAtOnce) {
  Handset phone;
  phone.start();
  const std::string failed = "write AW8697_LEAKAGE__FILE fail\n";
  expect_exchanges(phone, {{"AT+AW8697_LEAKAGE_ON",
                            {"OK\r\n"},
                            {{kLeakage, "1"}},
                            {500},
                            {"at_aw8697_leakage_on, ret=0\n"}},
                           {"AT+AW8697_LEAKAGE_OFF",
                            {"OK\r\n"},
                            {{kLeakage, "0"}},
                            {500},
                            {"at_aw8697_leakage_off, ret=0\n"}}});
  phone.nodes.fail(kLeakage, Nodes::Operation::kWrite, EINVAL);
  expect_exchange(phone, {"AT+AW8697_LEAKAGE_ON", {"ERROR\n"}, {}, {}, {failed}});
  phone.nodes.remove(kLeakage);
  expect_exchange(phone, {"AT+AW8697_LEAKAGE_OFF", {"ERROR\n"}, {}, {}, {failed}});
}
