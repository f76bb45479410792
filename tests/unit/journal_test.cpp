// The journal's texts, and how transcripts are compared with it.

#include "handset/journal.h"

#include <gtest/gtest.h>

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
