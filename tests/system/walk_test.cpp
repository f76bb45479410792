// Every command of the phone, as the demonstration walks them: each answers, in its success form.

#include <fstream>
#include <set>
#include <sstream>

#include "handset/console/dot_commands.h"
#include "tests/system/station.h"

// Whether the replies are those of a success: with an OK, or with what a row without one tells.
static bool is_success(const std::vector<std::string>& replies) {
  bool success = false;
  for (const std::string& reply : replies) {
    if (reply.find("ERROR") != std::string::npos || reply.find("FAIL") != std::string::npos ||
        reply == "UNDEFINED COMMAND\n") {
      return false;
    }
    success = success || reply == "OK\r\n" || reply == " DOWNLOAD:over\n" || reply == "RFCABLE:OK ";
  }
  return success;
}

TEST(Walk, EveryCommandOfAHealthyPhoneAnswers) {
  Handset phone({.time_factor = 0.01});
  phone.start();
  std::ifstream stream(FTM_DEMO);
  std::set<std::string> commands;
  for (std::string line; std::getline(stream, line);) {
    if (line.empty() || line[0] == '#') {
      continue;
    }
    if (line[0] == '.') {
      std::ostringstream printed;
      EXPECT_TRUE(run_dot_command(&phone, line, printed)) << printed.str();
      continue;
    }
    commands.insert(line);
    std::vector<std::string> replies = phone.command(line + "\n");
    // The tone's reply comes from its own thread.
    if (replies.empty() && phone.serial.wait_replies(1, std::chrono::seconds(20))) {
      replies = phone.serial.take_replies();
    }
    EXPECT_TRUE(is_success(replies)) << line << ": " << testing::PrintToString(replies);
  }
  EXPECT_EQ(commands.size(), 118U);
}
