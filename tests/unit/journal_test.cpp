// The journal's texts, and how transcripts are compared with it.

#include "handset/journal.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/transcripts/transcript.h"

using handset::Journal;

static std::vector<Journal::Entry> journal(const std::vector<std::string>& lines) {
  std::vector<Journal::Entry> entries;
  for (const std::string& line : lines) {
    for (const ExpectedEntry& entry : parse_entry(line)) {
      entries.push_back({entry.stream, entry.text});
    }
  }
  return entries;
}

static std::vector<std::string> lines(const std::vector<Journal::Entry>& entries) {
  std::vector<std::string> all;
  for (const Journal::Entry& entry : entries) {
    all.push_back(shown(entry));
  }
  return all;
}

TEST(Journal, NamesThreadsByWhatTheyAre) {
  Journal journal;
  journal.begin(100);
  journal.add(100, "a");
  journal.add(102, "b");
  journal.add(101, "c");
  journal.set_worker(101);
  journal.add_program("iw");
  journal.add(103, "d");
  EXPECT_EQ(lines(journal.take()),
            (std::vector<std::string>{"main: a", "1: b", "c", "$ iw", "2: d"}));
  EXPECT_TRUE(journal.take().empty());
  // The kernel's numbers have begun again.
  journal.add(5, "e");
  journal.add(6, "f");
  EXPECT_EQ(lines(journal.take()), (std::vector<std::string>{"3: e", "4: f"}));
}

TEST(Journal, ReadsTheDesksLogLines) {
  const struct {
    const char* bytes;
    const char* entry;
  } cases[] = {
      {"ftmd D 11-24 21:38:03 14640 14646 [FTM-AT]x : OK\r\n\n", "D [FTM-AT]x : OK\\r\\n"},
      {"ftmd E 11-24 21:38:03     4     6 \n", "E "},
      {"audio_route W 11-24 21:38:03 14640 14646 a D b\n", "W/audio_route a D b"},
      {"==1==ERROR: report\n", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(handset::log_entry(c.bytes, "ftmd"), c.entry);
  }
}

// Only what is wholly as always disappears.
TEST(Journal, FoldsRepliesAndCommandsThatAreAsAlways) {
  const std::string result = "D [FTM-AT]at_send_result : result is : OK\\n\\n";
  const std::string descriptor = "D [FTM-AT]at_send_result : serial_port_fd is : 3\\n";
  const std::string success = "D [FTM-AT]at_send_result : send_result successful\\n";
  const std::string buf = "D [FTM-AT]at_command_thread, buf : At^a\\n\\n";
  const std::string upr = "D [FTM-AT]at_command_thread, upr : AT^A\\n\\n";
  const struct {
    std::vector<std::string> raw;
    std::vector<std::string> folded;
  } cases[] = {
      {{buf, result, descriptor, "< OK\\n", success, upr}, {"< OK\\n"}},
      {{result, "1: wait 1 ms", descriptor, "< OK\\n", success}, {"1: wait 1 ms", "< OK\\n"}},
      {{result, descriptor, "< ok\\n", success}, {result, descriptor, "< ok\\n", success}},
      {{descriptor, result, "< OK\\n", success}, {descriptor, result, "< OK\\n", success}},
      {{result, descriptor, "< OK\\n"}, {result, descriptor, "< OK\\n"}},
      {{buf, upr, "< OK\\n"}, {buf, upr, "< OK\\n"}},
      {{buf, "D [FTM-AT]at_command_thread, upr : At^a\\n\\n"},
       {buf, "D [FTM-AT]at_command_thread, upr : At^a\\n\\n"}},
      {{"seek /a 0x10", "read /a 8"}, {"read /a at 0x10 8"}},
      {{"seek /a 0x10", "1: seek /b 0x20", "write /a xy = EIO"},
       {"1: seek /b 0x20", "write /a at 0x10 xy = EIO"}},
      {{"seek /a 0x10", "read /b 8"}, {"seek /a 0x10", "read /b 8"}},
      {{"seek /a 0x10 = EIO", "read /a 8"}, {"seek /a 0x10 = EIO", "read /a 8"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(lines(fold(journal(c.raw), "At^a\n")), c.folded);
  }
}

TEST(Transcript, IsComparedStreamByStream) {
  const struct {
    std::vector<std::string> expected;  // "--" is a break
    std::vector<std::string> actual;
    Match match;
  } cases[] = {
      {{"a", "b"}, {"a", "b"}, Match::kComplete},
      {{"a", "b"}, {"b", "a"}, Match::kDifferent},
      {{"a", "b"}, {"a"}, Match::kMoreToCome},
      {{"a"}, {"a", "b"}, Match::kDifferent},
      {{"a x2"}, {"a"}, Match::kMoreToCome},
      {{"a x2"}, {"a", "a"}, Match::kComplete},
      {{"a", "1: b"}, {"1: b", "a"}, Match::kComplete},
      {{"a", "--", "1: b"}, {"1: b", "a"}, Match::kDifferent},
      {{"a", "--", "1: b"}, {"a", "1: b"}, Match::kComplete},
      {{"1: a", "--", "b", "2: c"}, {"1: a", "2: c", "b"}, Match::kComplete},
      {{"* 1: a", "1: b"}, {"1: a", "1: a", "1: b"}, Match::kComplete},
      {{"* 1: a", "1: b"}, {"1: b"}, Match::kComplete},
      {{"* 1: a", "1: b"}, {"1: b", "1: a"}, Match::kDifferent},
      {{"* 1: a"}, {"1: a", "1: c"}, Match::kDifferent},
      {{"... b"}, {"a", "a", "b"}, Match::kComplete},
      {{"... 1: b"}, {"a", "1: b"}, Match::kDifferent},
      {{"... b"}, {"< a", "b"}, Match::kComplete},
      {{"* {*}", "b"}, {"a", "b"}, Match::kComplete},
      {{"* {*}", "b"}, {"< a", "b"}, Match::kDifferent},
      {{"* < {*}", "b"}, {"< a", "b"}, Match::kComplete},
      {{"fd {*} of {*}"}, {"fd 3 of 7"}, Match::kComplete},
      {{"fd {*}!"}, {"fd 3"}, Match::kDifferent},
      {{}, {"a"}, Match::kDifferent},
  };
  for (const auto& c : cases) {
    std::vector<ExpectedEntry> expected;
    bool after_break = false;
    for (const std::string& line : c.expected) {
      if (line == "--") {
        after_break = true;
        continue;
      }
      for (ExpectedEntry entry : parse_entry(line)) {
        entry.after_break = after_break;
        after_break = false;
        expected.push_back(entry);
      }
    }
    EXPECT_EQ(match(expected, journal(c.actual)), c.match)
        << testing::PrintToString(c.expected) << " with " << testing::PrintToString(c.actual);
  }
}

// A block's words, a count, a thread before its name, a block in a block, and one of whole steps.
TEST(Transcript, BlocksStandForTheirLines) {
  const std::filesystem::path file = testing::TempDir() + "blocks.txt";
  std::ofstream(file) << ":: {what} is lit for {n} ms\nwrite {what} 1\nwait {n} ms\n\n"
                         ":: LED is lit for {n} ms\nled {n}\n\n"
                         ":: {line} is refused\n> {line}\n:: flash is lit for 5 ms\n< ERROR\\n\n\n"
                         "== Title\n> A\n1: :: torch is lit for 7 ms x2\n:: LED is lit for 3 ms\n"
                         ":: B C is refused\n> D\n< OK\n";
  const std::vector<Scenario> scenarios = read_transcript(file);
  ASSERT_EQ(scenarios.size(), 1U);
  std::vector<std::string> all;
  for (const Step& step : scenarios[0].steps) {
    all.push_back(step.action);
    for (const ExpectedEntry& entry : step.entries) {
      all.push_back(handset::shown({entry.stream, entry.text}));
    }
  }
  EXPECT_EQ(all, (std::vector<std::string>{
                     "> A", "1: write torch 1", "1: wait 7 ms", "1: write torch 1", "1: wait 7 ms",
                     "led 3", "> B C", "write flash 1", "wait 5 ms", "< ERROR\\n", "> D", "< OK"}));
  EXPECT_EQ(scenarios[0].steps[1].source, std::vector<std::string>{":: B C is refused"});
  std::filesystem::remove(file);
}

TEST(Journal, KeepsTheLatestEntriesUnderTheirIndexes) {
  Journal journal;
  journal.begin(100);
  constexpr size_t kMost = 500'000;
  for (size_t i = 0; i <= kMost; ++i) {
    journal.add(100, std::to_string(i));
  }
  EXPECT_EQ(journal.size(), kMost + 1);
  EXPECT_EQ(lines(journal.since(kMost)), std::vector<std::string>{"main: 500000"});
  const std::vector<Journal::Entry> kept = journal.take();
  ASSERT_EQ(kept.size(), kMost / 2 + 1);
  EXPECT_EQ(kept.front().text, "250000");
  journal.add(100, "next");
  EXPECT_EQ(lines(journal.take()), std::vector<std::string>{"main: next"});
}
