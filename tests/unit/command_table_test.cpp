// What the console says of commands and replies, out of the project's own table.

#include "handset/console/command_table.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

using namespace handset;

static std::string explained(const Exchange& exchange, bool colours = false) {
  std::ostringstream out;
  CommandTable(FTM_COMMAND_TABLE).print_outcome(exchange, colours, out);
  return out.str();
}

TEST(CommandTable, SaysWhichOutcomeRepliesAre) {
  struct Case {
    Exchange exchange;
    std::string said;  // its beginning, and what else it holds
    std::string value = "";
  };
  const std::vector<Case> cases = {
      {{"at+eadc=1\n", {"OK\r\n", "+EADC: 3.85,25.30,0.00,-512.000,2.10"}},
       "pass, read: ",
       "  temperature 25.30 degrees C\n"},
      {{"AT+GSENSOR", {"x : 0.120000  \ny : -0.250000  \nz : 9.810000  \n", "OK\r\n"}},
       "pass, read: ",
       "  z 9.810000 m/s^2\n"},
      {{"AT+GSENSOR", {"x : -999.000000  \ny : -999.000000  \nz : -999.000000  \n", "OK\r\n"}},
       "fail, no_sample: "},
      {{"AT+GSENSOR", {"ERROR\n"}}, "fail, failed: ", "  what to do: "},
      {{"AT^GET_PRODUCT_INFO", {"OK\r\n", "A=1", "\n", "B=2", "\n"}},
       "pass, listed: ",
       "  entry A=1\n  entry B=2\n"},
      {{"AT^RESET_PRODUCT_INFO", {"ERROR\n", " UNLOCK FIRST"}}, "fail, locked: "},
      {{"AT+EADC=1", {"OK\r\n"}}, "not complete; what it may become:\npass, read: "},
      {{"AT+EADC=1", {"OK\r\n", "+EADC: 3.85"}}, "no outcome of AT+EADC=1\n"},
      {{"AT^WITH_ARGS_QAC", {"UNDEFINED COMMAND\n"}},
       "no command of the table: AT^WITH_ARGS_QAC\n"},
      {{"AT^NOPE\n", {"UNDEFINED COMMAND\n"}}, "no command of the table: AT^NOPE\\n\n"},
  };
  for (const Case& c : cases) {
    const std::string said = explained(c.exchange);
    EXPECT_EQ(said.substr(0, c.said.size()), c.said) << said;
    EXPECT_NE(said.find(c.value), std::string::npos) << said;
  }
  // What is told word by word goes before a field.
  EXPECT_EQ(explained({"AT^SN", {"OK\r\n", "SN: NULL\n"}}).find("pass, read"), std::string::npos);
  // A list of no entry is none.
  EXPECT_EQ(explained({"AT^GET_PRODUCT_INFO", {"OK\r\n"}}), "pass, empty: No entry is stored.\n");
  // Each expression of the table is one.
  for (const std::string& text : CommandTable(FTM_COMMAND_TABLE).texts()) {
    const std::string said = explained({text, {"", "", "", "", "unheard of"}});
    EXPECT_EQ(said, "no outcome of " + text.substr(0, text.find(':')) + "\n");
  }
  EXPECT_EQ(explained(cases[0].exchange, true).substr(0, 9), "\x1b[32mpass");
  EXPECT_EQ(explained(cases[3].exchange, true).substr(0, 9), "\x1b[31mfail");
}

TEST(CommandTable, FindsCommandsByWhatTheyAreFor) {
  const CommandTable table(FTM_COMMAND_TABLE);
  std::ostringstream out;
  EXPECT_TRUE(table.print_commands("battery Temp", out));
  EXPECT_EQ(out.str().substr(0, 10), "AT+EADC=1 ");
  EXPECT_FALSE(table.print_commands("coffee", out));
  EXPECT_EQ(table.texts().size(), 118U);
}

TEST(CommandTable, RefusesWhatIsNoTable) {
  EXPECT_THROW(CommandTable("/nowhere"), std::runtime_error);
  for (const std::string text : {"", "[]", "{\"commands\": 1}", "{"}) {
    const std::string file = testing::TempDir() + "no_table.json";
    std::ofstream(file) << text;
    EXPECT_THROW(CommandTable{file}, std::runtime_error) << text;
  }
}
