// What one read of the line brings, and what a real tty makes of lines and replies.

#include "tests/system/station.h"

using Replies = std::vector<std::string>;

static const std::string kUndefined = "UNDEFINED COMMAND\n";

TEST(Serial, OneReadIsOneCommandOf576BytesAtMost) {
  Handset phone;
  phone.start();
  const int reads = phone.serial.reads();
  phone.serial.send("AT^OPEN_GPS" + std::string(576 - 11, 'x') + "AT^CLOSE_GPS");
  ASSERT_TRUE(phone.serial.wait_reads(reads + 2, std::chrono::seconds(20)));
  EXPECT_EQ(phone.serial.take_replies(), (Replies{"OK\r\n", "OK\r\n"}));
}

TEST(Serial, ReadsWhatTheSettingsOfTheTtyMakeOfALine) {
  using Tty = SerialLine::Tty;
  const struct {
    Tty tty;
    std::string sent;
    int reads;
    Replies replies;
    std::string received;
  } cases[] = {
      {Tty::kRaw, "AT^CLOSE_GPS\r\n", 1, {"OK\r\n"}, "OK\r\n"},
      {Tty::kCanonical, "AT^CLOSE_GPS\n", 1, {"OK\r\n"}, "OK\r\n"},
      {Tty::kCanonical, "AT^CLOSE_GPS\nAT^OPEN_GPS\n", 2, {"OK\r\n", "OK\r\n"}, "OK\r\nOK\r\n"},
      {Tty::kCanonical, "AT^CLOSE_GPS\r", 0, {}, ""},
      // Line ends are translated both ways, and all is echoed.
      {Tty::kDefault,
       "AT^CLOSE_GPS\r\n",
       2,
       {"OK\r\n", kUndefined},
       "AT^CLOSE_GPS\r\n\r\nOK\r\r\nUNDEFINED COMMAND\r\n"},
      {Tty::kUart, "AT^CLOSE_GPS\n", 2, {kUndefined, kUndefined}, kUndefined + kUndefined},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.sent));
    Handset phone;
    phone.serial.set_tty(c.tty,
                         100);  // bits per second: the parts stay apart on a busy machine, too
    phone.start();
    const int reads = phone.serial.reads();
    phone.serial.send(c.sent);
    EXPECT_EQ(phone.serial.wait_reads(reads + std::max(c.reads, 1),
                                      std::chrono::seconds(c.reads > 0 ? 10 : 1)),
              c.reads > 0);
    EXPECT_EQ(phone.serial.reads() - reads, c.reads);
    EXPECT_EQ(phone.serial.take_replies(), c.replies);
    EXPECT_TRUE(eventually([&] { return phone.serial.received().size() >= c.received.size(); }));
    EXPECT_EQ(phone.serial.received(), c.received);
  }
}
