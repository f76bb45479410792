// The engineer configuration: the commands on the line, and the JSON files they leave.

#include <errno.h>
#include <sys/syscall.h>

#include <filesystem>

#include "tests/system/station.h"

using Replies = std::vector<std::string>;

static const std::string kFolder = "/mnt/vendor/persist/engineermode/config/";
static const std::string kAging = kFolder + "aging.cfg";
static const Replies kOk = {"OK\r\n"};
static const Replies kError = {"ERROR\n"};
static const Replies kTooLong = {"ERROR\n", " INVALID CFG ITEM SIZE\n"};
static const std::string kUpdate = "AT^WITH_ARGS_UAC:";
static const std::string kQuery = "AT^WITH_ARGS_QAC:";

static Replies found(const std::string& reply) {
  return {"OK\r\n", reply};
}

// What another JSON reader makes of the file: its own text, members sorted, or "invalid".
static std::string read_elsewhere(Handset& phone, const std::string& path) {
  const std::string command =
      "python3 -c 'import json,sys; print(json.dumps(json.load(open(sys.argv[1])), "
      "sort_keys=True), end=\"\")' " +
      phone.path(path).string() + " 2>/dev/null || echo invalid";
  std::string text;
  FILE* output = popen(command.c_str(), "r");
  for (int c = getc(output); c != EOF; c = getc(output)) {
    text.push_back(static_cast<char>(c));
  }
  pclose(output);
  return text;
}

TEST(EngineerConfig, KeepsItemsPerFileInTheStyledLayout) {
  Handset phone;
  phone.start();
  struct Step {
    std::string line;
    Replies replies;
  };
  const std::string longest(127, 'L');
  const std::vector<Step> steps = {
      {"AT^REMOVE_AGING_CONFIG\r\n", kOk},
      {"AT^REMOVE_AGING_CONFIG\r\n", kOk},  // gone already
      {kQuery + "CYCLES\n", kError},
      {kUpdate + "CYCLES=5\n", kOk},
      {kUpdate + "cycles=10\n", kOk},
      {kQuery + "CYCLES\n", found("cycles=10\n")},
      {kUpdate + "A=B=C==\n", kOk},
      {kQuery + "A", found("a=b=c==\n")},
      {kUpdate + "=X\n", kOk},
      {kQuery + "\n", found("=x\n")},
      {kUpdate + "K=\n", kOk},
      {kQuery + "K\n", found("k=\n")},
      {kUpdate + "=\n", kOk},
      {kQuery, found("=\n")},
      {kUpdate + "CR=1\r\n", kOk},
      {kQuery + "CR\r\n", kError},  // the carriage return is part of the name asked for
      {kQuery + "CR\n", found("cr=1\r\n")},
      {kUpdate + "LF=1\n\n", kOk},
      {kQuery + "LF\n", found("lf=1\n\n")},
      {kUpdate + "U=[\xc3\x84`{\x01\"\\\n", kOk},
      {kQuery + "U\n", found("u=[\xc3\x84`{\x01\"\\\n")},
      {kUpdate + "K\n", {"ERROR\n", " INVALID CFG ITEM\n"}},
      {kUpdate + "Q=" + std::string(125, 'V'), kOk},
      {kUpdate + "Q=" + std::string(126, 'V'), kTooLong},
      {kUpdate + "Q=" + std::string(125, 'V') + "\n", kTooLong},
      {kQuery + "Q\n", found("q=" + std::string(125, 'v') + "\n")},
      {kQuery + longest, kError},
      {kQuery + longest + "L", kTooLong},
      {kUpdate + std::string(576 - kUpdate.size(), 'V'), kTooLong},
      {"AT^WITH_ARGS_QAC\n", {"UNDEFINED COMMAND\n"}},
      {"AT^WITH_ARGS_QTC:CYCLES\n", kError},  // the other file
      {"AT^WITH_ARGS_UTC:CYCLES=7\n", kOk},
      {"AT^WITH_ARGS_QTC:CYCLES\n", found("cycles=7\n")},
      {"AT^WITH_ARGS_QTC:STATION\n", found("station=a7\n")},
      {"AT^REMOVE_TEST_CONFIG\r\n", kOk},
      {"AT^WITH_ARGS_QTC:CYCLES\n", kError},
      {kQuery + "CYCLES\n", found("cycles=10\n")},
  };
  for (const Step& step : steps) {
    EXPECT_EQ(phone.command(step.line), step.replies) << step.line;
  }
  EXPECT_EQ(read_elsewhere(phone, kAging),
            R"({"": "", "A": "B=C==", "CR": "1\r", "CYCLES": "10", "K": "", "LF": "1\n", "Q": ")" +
                std::string(125, 'V') + R"(", "U": "[\u00c4`{\u0001\"\\"})");
  phone.command("AT^WITH_ARGS_UTC:B=2\n");
  phone.command("AT^WITH_ARGS_UTC:A=1\n");
  EXPECT_EQ(phone.read_file(kFolder + "test.cfg"), "{\n   \"A\" : \"1\",\n   \"B\" : \"2\"\n}\n");
}

TEST(EngineerConfig, ReadsWhatOtherToolsWrote) {
  const std::string name(126, 'N');
  const std::string deep = std::string(998, '[') + std::string(998, ']');
  struct Case {
    std::string content;
    std::string item;
    Replies query;
    std::string rewritten;  // by setting X, as another reader sees it; empty: not looked at
  };
  const std::string no_text = R"("B": true, "D": 1.5, "I": -7, "L": [1, {}], "N": null, )";
  const std::string all = "{" + no_text + R"("O": {"P": "Q"}, "S": "T"})";
  const std::string all_rewritten = "{" + no_text + R"("O": {"P": "Q"}, "S": "T", "X": "1"})";
  const auto value = [](size_t size) { return R"({"V":")" + std::string(size, 'v') + R"("})"; };
  const std::string cut = "v=" + std::string(128, 'v') + "\n";
  const std::vector<Case> cases = {
      {all, "S", found("s=t\n"), all_rewritten},
      {all, "D", kError, ""},
      {all, "I", kError, ""},
      {all, "L", kError, ""},
      {all, "N", kError, ""},
      {all, "O", kError, ""},
      {R"({"X":3,"x":"low"})", "X", kError, R"({"X": "1", "x": "low"})"},
      {R"({"X":{"Y":[1]}})", "X", kError, R"({"X": "1"})"},
      {"// [[\n{\"S\":/* { \" */\"//[\"}\r\n/* end */ // \xff", "S", found("s=//[\n"),
       R"({"S": "//[", "X": "1"})"},
      {value(127), "V", found("v=" + std::string(127, 'v') + "\n"), ""},
      {value(128), "V", found(cut), ""},
      {value(129), "V", found(cut), ""},
      {"{\"" + name + R"(":")" + std::string(127, 'v') + "\"}", name,
       found(std::string(126, 'n') + "=" + std::string(127, 'v') + "\n"), ""},
      {"{\"" + name + R"(":")" + std::string(128, 'v') + "\"}", name, kError, ""},
      {R"({"Z":"a\u0000b"})", "Z", found("z=a\n"), R"({"X": "1", "Z": "a\u0000b"})"},
      {R"({"S":"t","L":)" + deep + "}", "S", found("s=t\n"), ""},
  };
  Handset phone;
  phone.start();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.content.substr(0, 80));
    phone.write_file(kAging, c.content);
    // A name or value of the reply is folded, but the files here hold what the commands ask for.
    EXPECT_EQ(phone.command(kQuery + c.item), c.query);
    EXPECT_EQ(phone.read_file(kAging), c.content);
    if (!c.rewritten.empty()) {
      EXPECT_EQ(phone.command(kUpdate + "X=1"), kOk);
      EXPECT_EQ(read_elsewhere(phone, kAging), c.rewritten);
    }
  }
}

TEST(EngineerConfig, LeavesAFileThatItCannotParse) {
  const std::vector<std::string> contents = {
      "",
      " \n",
      "{\"S\":\"t\"",
      "{\"S\" \"t\"}",
      "{\"S\":1e9999}",
      "{\"S\":\"\\ud800\"}",
      "]",
      "[\"S\"]",
      "7",
      "\"S\"",
      std::string(10000, '['),
      "{\"S\":" + std::string(999, '[') + "1" + std::string(999, ']') + "}",
      std::string(100000, '{'),
      "/* {",
      "{\"S\":\"\\",
  };
  Handset phone;
  phone.start();
  for (const std::string& content : contents) {
    SCOPED_TRACE(content.substr(0, 80));
    phone.write_file(kAging, content);
    const std::string unread = "Failed to read configuration file aging.cfg\n";
    expect_exchange(
        phone, {kQuery + "S",
                kError,
                {},
                {},
                {"queryEngineerConfig " + unread, "[FTM-ENGINEER]read config item [S\r] fail\n"}});
    expect_exchange(phone, {kUpdate + "S=1", kError, {}, {}, {"updateEngineerConfig " + unread}});
    EXPECT_EQ(phone.read_file(kAging), content);
  }
}

TEST(EngineerConfig, WritesDocumentsBelow4096Bytes) {
  Handset phone;
  phone.start();
  // The styled text of {"F": fill, "X": "1"} is 30 bytes longer than the fill.
  const auto filled = [](size_t size) { return "{\"F\":\"" + std::string(size, 'f') + "\"}"; };
  phone.write_file(kAging, filled(4095 - 30));
  EXPECT_EQ(phone.command(kUpdate + "X=1"), kOk);
  EXPECT_EQ(phone.read_file(kAging)->size(), 4095U);
  phone.write_file(kAging, filled(4096 - 30));
  EXPECT_EQ(phone.command(kUpdate + "X=1"), kError);
  EXPECT_EQ(phone.read_file(kAging), filled(4096 - 30));
  EXPECT_NE(phone.log().find("updateEngineerConfig " + kAging + " length is [4096], out of range"),
            std::string::npos);
}

TEST(EngineerConfig, ReportsFilesThatCannotBeOpened) {
  Handset phone;
  phone.start({.faults = true});
  const std::string content = *phone.read_file(kAging);
  phone.fail(kAging, SYS_openat, EACCES);
  expect_exchanges(
      phone,
      {{kQuery + "CYCLES", kError, {}, {}, {"queryEngineerConfig fail to open " + kAging + "\n"}},
       {kUpdate + "CYCLES=1",
        kError,
        {},
        {},
        {"updateEngineerConfig fail to open-read " + kAging + "\n"}}});
  phone.fail(kAging, SYS_openat, 0);
  phone.fail(kAging, SYS_read, EIO);
  expect_exchanges(phone, {{kQuery + "CYCLES", kError}, {kUpdate + "CYCLES=1", kError}});
  phone.fail(kAging, SYS_read, 0);
  EXPECT_EQ(phone.read_file(kAging), content);

  EXPECT_EQ(phone.command("AT^REMOVE_AGING_CONFIG"), kOk);
  phone.fail(kAging, SYS_openat, EROFS);
  const std::string log_text =
      "updateEngineerConfig fail to open " + kAging + ", err=Read-only file system\n";
  expect_exchanges(
      phone,
      {{kQuery + "CYCLES", kError, {}, {}, {"queryEngineerConfig access " + kAging + " fail\n"}},
       {kUpdate + "CYCLES=1", kError, {}, {}, {log_text}}});
  EXPECT_FALSE(phone.read_file(kAging).has_value());
  phone.fail(kAging, SYS_openat, 0);

  // A folder in the file's place: nothing works, and it stays.
  std::filesystem::create_directory(phone.path(kAging));
  expect_exchanges(
      phone, {{kQuery + "CYCLES", kError},
              {kUpdate + "CYCLES=1", kError},
              {"AT^REMOVE_AGING_CONFIG", kError, {}, {}, {"removeEngineerConfig fail remove"}}});
  EXPECT_TRUE(std::filesystem::is_directory(phone.path(kAging)));
  std::filesystem::remove_all(phone.path(kFolder));
  expect_exchanges(phone, {{kUpdate + "CYCLES=1", kError}, {"AT^REMOVE_AGING_CONFIG", kOk}});
}
