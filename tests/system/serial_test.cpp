// The road of a command: serial line, matching, replies, start-up and shut-down.

#include <signal.h>
#include <sys/wait.h>

#include <array>
#include <memory>

#include "tests/system/station.h"

using Replies = std::vector<std::string>;

static const std::string kUndefined = "UNDEFINED COMMAND\n";

TEST(Serial, MatchesByPrefixOfTheUpperCasedLine) {
  Handset phone;
  phone.start();
  const std::vector<std::pair<std::string, Replies>> rows = {
      {"AT^OPEN_GPS\r\n", {"OK\r\n"}},
      {"at^open_gps", {"OK\r\n"}},  // no line end at all
      {"aT^oPeN_gPs_and_more\n", {"OK\r\n"}},
      {"AT^OPEN_GP\r\n", {kUndefined}},
      {" AT^OPEN_GPS\r\n", {kUndefined}},
      {"\r\n", {kUndefined}},
      {std::string("AT^OPEN_GPS\0AT+TP", 17), {"OK\r\n"}},
      {std::string("\0AT^OPEN_GPS", 12), {kUndefined}},
      {"AT^WITH_ARGS_NOTHING:1\r\n", {kUndefined}},
      {"\xff\xfe{|}~`@[\r\n", {kUndefined}},
  };
  for (const auto& [line, replies] : rows) {
    EXPECT_EQ(phone.command(line), replies) << line;
  }
  EXPECT_NE(phone.log().find("at_command_thread, buf : aT^oPeN_gPs_and_more\n"), std::string::npos);
  EXPECT_NE(phone.log().find("at_command_thread, upr : AT^OPEN_GPS_AND_MORE\n"), std::string::npos);
}

TEST(Serial, ArgumentLinesHandOverTheTextBehindTheFirstColon) {
  Handset phone({.daemon = FTM_PROBE});
  phone.start();
  const std::vector<std::pair<std::string, Replies>> rows = {
      {"at^with_args_show:abc\r\n", {"ABC\r\n"}},
      {"AT^WITH_ARGS_SHOWX:1", {"1"}},
      {"AT^WITH_ARGS_SHOW:a:b=c", {"A:B=C"}},
      {"AT^WITH_ARGS_SHOW:", {""}},
      {"AT^WITH_ARGS_SHOW", {kUndefined}},
      {"AT^WITH_ARGS_OTHER:1", {kUndefined}},
      {"AT+SHOW:1\r\n", {"(null)"}},  // no argument line: never an argument
      {"AT+REPLY=NULL\r\n", {"0"}},
      {"AT+REPLY=EMPTY\r\n", {"", "1"}},  // written, but nothing reaches the wire
  };
  for (const auto& [line, replies] : rows) {
    EXPECT_EQ(phone.command(line), replies) << line;
  }
  std::string wire;
  for (const auto& [line, replies] : rows) {
    for (const std::string& reply : replies) {
      wire += reply;
    }
  }
  // The relay is a moment behind the daemon's writes.
  for (int i = 0; i < 500 && phone.serial.received().size() < wire.size(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(phone.serial.received(), wire);
}

TEST(Serial, OneReadIsOneCommandOf576BytesAtMost) {
  Handset phone({.daemon = FTM_PROBE});
  phone.start();
  const std::string head = "AT^WITH_ARGS_SHOW:";
  const std::string longest(576 - head.size(), 'X');
  EXPECT_EQ(phone.command(head + longest), Replies{longest});

  // The 577th byte begins the next command.
  const int reads = phone.serial.reads();
  phone.serial.send(head + longest + "AT+SHOW");
  ASSERT_TRUE(phone.serial.wait_reads(reads + 2, std::chrono::seconds(20)));
  EXPECT_EQ(phone.serial.take_replies(), (Replies{longest, "(null)"}));

  // Nothing gathers a command that comes in two.
  EXPECT_EQ(phone.command("AT+S"), Replies{kUndefined});
  EXPECT_EQ(phone.command("HOW"), Replies{kUndefined});
}

TEST(Serial, AReplyOf8191BytesPassesAndOneOf8192EndsTheDaemon) {
  Handset phone({.daemon = FTM_PROBE});
  phone.start();
  EXPECT_EQ(phone.command("AT+REPLY=8191"), (Replies{std::string(8191, 'r'), "sent"}));
  phone.serial.send("AT+REPLY=8192");
  const std::optional<int> status = phone.wait_exit();
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGABRT) << *status;
  EXPECT_EQ(phone.serial.take_replies(), Replies{});
}

TEST(Serial, AShortWriteIsNeitherLoggedNorRetried) {
  Handset phone({.daemon = FTM_PROBE});
  phone.start();
  phone.serial.cut_replies(2);
  EXPECT_EQ(phone.command("AT^WITH_ARGS_SHOW:ABC"), Replies{"AB"});
  EXPECT_EQ(phone.log().find("send_result successful"), std::string::npos);
  phone.serial.cut_replies(-1);
  EXPECT_EQ(phone.command("AT^WITH_ARGS_SHOW:ABC"), Replies{"ABC"});
}

TEST(Serial, AnEmptyTableAnswersEveryLine) {
  Handset phone({.daemon = FTM_BARE});
  phone.start();
  EXPECT_EQ(phone.command("AT^OPEN_GPS\r\n"), Replies{kUndefined});
  EXPECT_EQ(phone.command("AT^WITH_ARGS_SHOW:1\r\n"), Replies{kUndefined});
}

// What a real tty does to lines by its settings.
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

TEST(Serial, ASerialProgramNobodyHereWroteGetsTheSameBytes) {
  Handset phone;
  phone.start();
  const std::string call = std::string("/usr/bin/python3 ") + FTM_SERIAL_CLIENT + " " +
                           phone.serial.desk_tty() +
                           " at+edft=6,1 AT+EADC=1 AT^CLOSE_WIFI AT^NOPE 2>&1";
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(call.c_str(), "r"), pclose);
  std::string output;
  std::array<char, 4096> part;
  for (size_t count = 0; (count = fread(part.data(), 1, part.size(), pipe.get())) > 0;) {
    output.append(part.data(), count);
  }
  EXPECT_EQ(output, R"(b'OK\r\n'
b'OK\r\n+EADC: 3.85,25.30,0.00,-512.000,2.10'
b'OK\r\nSTOP'
b'UNDEFINED COMMAND\n'
)");
}
