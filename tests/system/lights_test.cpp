// LEDs, display backlight and key backlight.

#include <errno.h>

#include "tests/system/station.h"

static const std::string kMaximum = "/sys/class/backlight/panel0-backlight/max_brightness";
static const std::string kBacklight = "/sys/class/backlight/panel0-backlight/brightness";
static const std::string kKeys = "/sys/class/leds/button-backlight/brightness";

static std::vector<Nodes::Write> leds(const std::string& value) {
  return {{"/sys/class/leds/red/brightness", value},
          {"/sys/class/leds/green/brightness", value},
          {"/sys/class/leds/blue/brightness", value}};
}

TEST(Lights, StartWithEverythingDark) {
  Handset phone;
  phone.start();
  // All that a start writes: the modules of level 0 and 1, then the touch panel's at level 5.
  EXPECT_EQ(phone.nodes.take_writes(),
            (std::vector<Nodes::Write>{{"/sys/power/wake_lock", "1\n"},
                                       {"/sys/kernel/norva_display/esd_status", "0\n"},
                                       {kBacklight, "0\n"},
                                       {kBacklight, "0\n"},
                                       {kKeys, "0\n"},
                                       {"/sys/class/input/input0/suspend", "1\n"}}));
  const std::vector<std::chrono::microseconds> waits = phone.clock.take_waits();
  EXPECT_EQ(waits, std::vector<std::chrono::microseconds>(2, std::chrono::milliseconds(100)));
  EXPECT_GT(phone.display.commits(), 0);
  EXPECT_EQ(phone.open_devices("drm-card"), 0U);
}

TEST(Lights, AnswerEachRow) {
  Handset phone;
  phone.start();
  const std::string lit =
      "[FTM-LIGHTS]lcd_set_backlight ,FMT Backlight is 1019 bl_max_value is 2047\n";
  expect_exchanges(phone,
                   {{"AT+EDFT=9,1", {"OK\r\n"}, leds("1\n"), {}, {"breathing_light_open\n"}},
                    {"AT+EDFT=9,0", {"OK\r\n"}, leds("0\n"), {}, {"breathing_light_close\n"}},
                    {"AT+RGB", {"OK\r\n"}, leds("255\n"), {}, {"rgb lights open\n"}},
                    {"AT+RGB", {"OK\r\n"}, leds("0\n"), {}, {"rgb lights close\n"}},
                    {"AT+RGB", {"OK\r\n"}, leds("255\n"), {}, {"rgb lights open\n"}},
                    {"AT+EDFT=5,1", {"OK\r\n"}, {{kKeys, "255\n"}}},
                    {"AT+EDFT=5,0", {"OK\r\n"}, {{kKeys, "0\n"}}},
                    {"AT+EDFT=0,5", {"OK\r\n"}, {{kBacklight, "1019\n"}}, {100}, {lit}},
                    {"AT+EDFT=0,0", {"OK\r\n"}, {{kBacklight, "0\n"}}, {200}}});
}

TEST(Lights, TakeTheBacklightsMaximumWithinItsRange) {
  struct Case {
    const char* node;  // null: no node
    std::string level;
    std::string logged;
  };
  const auto refused = [](const std::string& value) {
    return "get_backlight_max_level , Max backlight:[" + value +
           "] is out of range, set to default:[255]\n";
  };
  const std::vector<Case> cases = {
      {"255", "127\n", ""},
      {"4095\n", "2039\n", ""},
      {"1", "0\n", ""},
      {"65535", "32639\n", ""},
      {"65536", "127\n", refused("65536")},
      {"700000", "127\n", refused("70000")},
      {"0", "127\n", refused("0")},
      {"-5", "127\n", refused("-5")},
      {"none", "127\n", refused("0")},
      {nullptr, "127\n", refused("0")},
  };
  Handset phone;
  phone.start();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.node == nullptr ? "no node" : c.node);
    c.node == nullptr ? phone.nodes.remove(kMaximum) : phone.nodes.set(kMaximum, c.node);
    expect_exchange(phone, {"AT+EDFT=0,5", {"OK\r\n"}, {{kBacklight, c.level}}, {100}, {c.logged}});
  }
}

TEST(Lights, AnswerOkWhateverTheNodesSay) {
  Handset phone;
  phone.start();
  for (const std::string& node :
       {kBacklight, kKeys, std::string("/sys/class/leds/red/brightness")}) {
    phone.nodes.fail(node, Nodes::Operation::kWrite, EIO);
  }
  phone.nodes.remove("/sys/class/leds/green/brightness");
  for (const char* row : {"AT+EDFT=9,1", "AT+EDFT=9,0", "AT+RGB", "AT+EDFT=0,5", "AT+EDFT=0,0",
                          "AT+EDFT=5,1", "AT+EDFT=5,0"}) {
    EXPECT_EQ(phone.command(row), std::vector<std::string>{"OK\r\n"}) << row;
  }
}
