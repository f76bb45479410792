// Replays transcripts, each scenario on a phone of its own, several side by side.
//
//   run_transcripts [--record] [--exchanges OUT] [--touches OUT] FILE...
//
// Prints what differs, line by line, and ends with status 1 when something did. With --record what
// came is written into the file in place of what did not; read it before you keep it. With
// --exchanges each sent line and the replies that came until the next one are written to OUT, as
// protocol/check.py reads them; with --touches what the phones' processes touched, see touches.h.

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "handset/console/dot_commands.h"
#include "handset/handset.h"
#include "handset/visible.h"
#include "tests/transcripts/touches.h"
#include "tests/transcripts/transcript.h"

using handset::Handset;
using handset::Journal;

namespace {

struct Played {
  bool matched = true;
  bool ended = false;  // the daemon, before it had handled what was sent
  bool waits = false;  // what was sent, in the tty of a sleeping phone
  std::vector<std::string> prints;
  std::vector<Journal::Entry> entries;
};

// How long a step may take to bring about all, how long it is silent when it has, and how long
// threads that nothing waited for have behind a scenario's last step.
constexpr std::chrono::milliseconds kPatience(20000 * FTM_PATIENCE);
constexpr std::chrono::milliseconds kSilence(300 * FTM_PATIENCE);
constexpr std::chrono::milliseconds kSettling(100 * FTM_PATIENCE);

std::vector<std::string> lines_of(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

// The worker can be ready before the main thread has said its last word.
void wait_for_main(Journal* journal) {
  const Journal::Entry last = {"main", "E [FTM-MAIN]watting ftm_at_thread finish\\n"};
  for (;;) {
    const std::vector<Journal::Entry> entries = journal->since(0);
    if (std::find(entries.begin(), entries.end(), last) != entries.end() ||
        !journal->wait_more(entries.size(), kSilence)) {
      return;
    }
  }
}

// Sends a line and waits until it has been handled (true), or until the daemon has ended. The phone
// starts with the first one, and what it does then belongs to no line.
bool send(Handset* phone, const std::string& bytes, size_t* seen) {
  if (phone->pid() == 0) {
    Handset::StartOptions options;
    options.faults = true;
    phone->start(options);
    wait_for_main(&phone->journal);
    *seen = phone->journal.size();
  }
  const int reads = phone->serial.reads();
  phone->serial.send(bytes);
  return phone->serial.wait_reads(reads + 1, std::chrono::seconds(60 * FTM_PATIENCE));
}

// Does one step and gathers what it brings about, until that is what is expected or clearly is not.
// What other threads do behind its last expected line is the next step's; the last step waits for
// it.
Played play(const Step& step, bool is_last, Handset* phone, bool record, size_t* seen) {
  Played played;
  std::ostringstream out;
  std::string sent;
  bool handled = false;
  if (step.action[0] == '>') {
    sent = handset::sent_bytes(step.action);
    handled = send(phone, sent, seen);
    played.waits = !handled && phone->power.asleep();
    played.ended = !handled && !played.waits;
  } else {
    run_dot_command(phone, step.action, out);
    if (step.action.starts_with(".start")) {
      wait_for_main(&phone->journal);
    }
  }
  const Journal* journal = &phone->journal;
  const auto start = std::chrono::steady_clock::now();
  const auto is_before = [&](std::chrono::milliseconds limit) {
    return std::chrono::steady_clock::now() < start + limit;
  };
  // With nothing stated yet all that it brings about is wanted; some of it may never end.
  while (record && step.entries.empty() && is_before(10 * kSilence) &&
         journal->wait_more(journal->size(), kSilence)) {
  }
  played.prints = lines_of(out.str());
  for (bool settled = !is_last;;) {
    const size_t size = journal->size();
    played.entries = fold(journal->since(*seen), sent);
    const Match found = match(step.entries, played.entries, handled);
    if (found == Match::kComplete && !settled) {
      settled = true;
      journal->wait_more(size, kSettling);
      continue;
    }
    if (found == Match::kComplete) {
      *seen = size;
      played.matched = played.prints == step.prints;
      return played;
    }
    // A reply whose log lines are still on their way looks like a difference, too.
    if (!is_before(kPatience) ||
        !journal->wait_more(size, found == Match::kMoreToCome ? kPatience : kSilence)) {
      *seen = size;
      played.matched = false;
      return played;
    }
  }
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += line + "\n";
  }
  return text;
}

// What differs from run to run whatever the daemon does.
std::string without_times(const std::string& text) {
  static const std::regex kTimestamp("timestamp \\d+");
  return std::regex_replace(text, kTimestamp, "timestamp {*}");
}

// A line of a comparison: ' ' is as expected, '-' is missing, '+' is too much.
struct Compared {
  char mark;
  std::string text;
  std::string block = {};  // of an expected line, as in ExpectedEntry
  int block_line = 0;
};

// What is expected and what came; what was printed is a stream of its own.
struct Sides {
  std::vector<ExpectedEntry> expected;
  std::vector<Journal::Entry> actual;
};

constexpr char kPrints[] = "|";

std::string line_of(const std::string& stream, const std::string& text) {
  return stream == kPrints ? "| " + text : handset::shown({stream, text});
}

// "..." before an entry is a line of its own.
std::string line_of(const ExpectedEntry& entry) {
  const std::string line = line_of(entry.stream, entry.text);
  if (!entry.any_number) {
    return line;
  }
  return (entry.replies ? "... " : "* ") + line;
}

Sides sides(const Step& step, const Played& played) {
  Sides both;
  for (const std::string& line : step.prints) {
    both.expected.push_back({.stream = kPrints, .text = line});
  }
  both.expected.insert(both.expected.end(), step.entries.begin(), step.entries.end());
  for (const std::string& line : played.prints) {
    both.actual.push_back({kPrints, line});
  }
  both.actual.insert(both.actual.end(), played.entries.begin(), played.entries.end());
  return both;
}

// The comparison with the fewest lines missing or too much, and of these the one that leaves the
// fewest to the entries of any number.
std::vector<Compared> compare(const Sides& both) {
  constexpr size_t kWrong = 10000;  // of a line missing or too much; 1 of one left to any number
  const std::vector<ExpectedEntry>& expected = both.expected;
  const std::vector<Journal::Entry>& actual = both.actual;
  // cost[i][j]: of what is expected from i on and came from j on. What to do there:
  enum class Move { kTooMuch, kPass, kTake, kAbsorb };
  const size_t width = actual.size() + 1;
  std::vector<size_t> cost((expected.size() + 1) * width, 0);
  std::vector<Move> moves(cost.size(), Move::kTooMuch);
  for (size_t i = expected.size() + 1; i-- > 0;) {
    for (size_t j = width; j-- > 0;) {
      const size_t at = i * width + j;
      size_t least = SIZE_MAX;
      const auto offer = [&](Move move, size_t price) {
        if (price < least) {
          least = price;
          moves[at] = move;
        }
      };
      if (i < expected.size()) {
        const bool any = expected[i].any_number;
        if (j < actual.size() && expected[i].stream == actual[j].stream &&
            stands_for(expected[i], actual[j].text)) {
          any ? offer(Move::kAbsorb, cost[at + 1] + 1) : offer(Move::kTake, cost[at + width + 1]);
        }
        offer(Move::kPass, cost[at + width] + (any ? 0 : kWrong));
      }
      if (j < actual.size()) {
        offer(Move::kTooMuch, cost[at + 1] + kWrong);
      }
      cost[at] = least == SIZE_MAX ? 0 : least;
    }
  }
  std::vector<Compared> lines;
  for (size_t i = 0, j = 0; i < expected.size() || j < actual.size();) {
    const Move move = moves[i * width + j];
    if (move == Move::kTooMuch) {
      lines.push_back({'+', without_times(line_of(actual[j].stream, actual[j].text))});
      ++j;
      continue;
    }
    if (move == Move::kAbsorb) {
      ++j;
      continue;
    }
    if (expected[i].after_break) {
      lines.push_back({' ', "--"});
    }
    const bool any = expected[i].any_number;
    lines.push_back({move == Move::kTake || any ? ' ' : '-', line_of(expected[i]),
                     expected[i].block, expected[i].block_line});
    ++i;
    j += move == Move::kTake ? 1 : 0;
  }
  return lines;
}

// The lines as text, one that follows its like counted as "x3".
std::vector<std::string> counted(const std::vector<std::string>& lines) {
  std::vector<std::string> all;
  for (size_t i = 0; i < lines.size();) {
    size_t end = i + 1;
    while (end < lines.size() && lines[end] == lines[i]) {
      ++end;
    }
    all.push_back(lines[i] + (end - i > 1 ? " x" + std::to_string(end - i) : ""));
    i = end;
  }
  return all;
}

// What a recorded step says: all that came, whole blocks by their name.
std::vector<std::string> kept(const std::vector<Compared>& lines) {
  std::vector<std::string> all;
  for (size_t i = 0; i < lines.size();) {
    size_t end = i + 1;
    bool whole = lines[i].block_line != 0 && lines[i].mark == ' ';
    while (lines[i].block_line != 0 && end < lines.size() &&
           lines[end].block_line == lines[i].block_line) {
      whole = whole && lines[end].mark == ' ';
      ++end;
    }
    // A line too much within a block takes it apart.
    for (size_t j = end; j < lines.size(); ++j) {
      whole = whole && lines[j].block_line != lines[i].block_line;
    }
    for (size_t j = i; j < end && !whole; ++j) {
      if (lines[j].mark != '-') {
        all.push_back(lines[j].text);
      }
    }
    if (whole) {
      all.push_back(lines[i].block);
    }
    i = end;
  }
  return all;
}

// "... {*}" and what follows it as one line.
std::vector<std::string> joined_any(const std::vector<std::string>& lines) {
  static const std::regex kAny("\\.\\.\\. ((?:main: |\\d+: |\\$ )?)\\{\\*\\}");
  static const std::regex kEntry("((?:main: |\\d+: |\\$ )?)[^*-:|].*");
  std::vector<std::string> all;
  std::smatch any;
  std::smatch entry;
  for (const std::string& line : lines) {
    if (!all.empty() && std::regex_match(all.back(), any, kAny) &&
        std::regex_match(line, entry, kEntry) && any[1] == entry[1]) {
      all.back() = "... " + line;
    } else {
      all.push_back(line);
    }
  }
  for (std::string& line : all) {
    if (std::regex_match(line, any, kAny)) {  // what was to follow has not come
      line = "* " + any[1].str() + "{*}";
    }
  }
  return all;
}

struct Outcome {
  std::string report;     // empty when all came as expected
  std::string recorded;   // the scenario as it came out
  std::string exchanges;  // a line for each sent line, the replies behind tabs
};

// What a step adds to the exchanges: its sent line, its replies, and "!" when the daemon ended. A
// reply that the line did not take whole makes no exchange.
std::string exchanged(const Step& step, const Played& played) {
  static const std::regex kTorn("< .* = (E[A-Z]+|\\d+)");
  for (const Journal::Entry& entry : played.entries) {
    if (std::regex_match(entry.text, kTorn)) {
      return "";
    }
  }
  std::string text;
  if (step.action[0] == '>') {
    text = "\n" + handset::visible(handset::sent_bytes(step.action));
  }
  for (const Journal::Entry& entry : played.entries) {
    text += entry.text.starts_with("< ") ? "\t" + handset::shown(entry) : "";
  }
  return text + (played.ended ? "\t!" : "");
}

Outcome replay(const std::string& file, const Scenario& scenario, bool record, Touches* touches) {
  Outcome outcome;
  std::string& recorded = outcome.recorded;
  recorded = "== " + scenario.title + "\n" + joined(scenario.head);
  const auto report = [&](const Step& step, const std::string& text) {
    outcome.report += file + ":" + std::to_string(step.line) + ": " + scenario.title + "\n  " +
                      step.action + "\n" + text;
  };
  try {
    TouchWatch watch(touches);  // outlives the phone
    Handset phone;
    watch.attach(&phone);
    size_t seen = 0;
    bool is_exchange = true;  // until a reply belongs to no line of its own
    for (const Step& step : scenario.steps) {
      const Played played = play(step, &step == &scenario.steps.back(), &phone, record, &seen);
      is_exchange = is_exchange && !played.waits;
      outcome.exchanges += is_exchange ? exchanged(step, played) : "";
      if (played.matched) {
        recorded += joined(step.source);
        continue;
      }
      const std::vector<Compared> lines = compare(sides(step, played));
      std::vector<std::string> difference;
      for (const Compared& line : lines) {
        difference.push_back(std::string("  ") + line.mark + " " + line.text);
      }
      if (step.in_block) {
        recorded += joined(step.source);  // what a block says is not rewritten
      } else {
        recorded += step.action + "\n" + joined(counted(joined_any(kept(lines))));
        for (const std::string& line : step.source) {
          recorded += line[0] == '#' ? line + "\n" : "";
        }
      }
      report(step, joined(counted(difference)));
      if (!record) {
        break;
      }
    }
  } catch (const std::exception& error) {
    outcome.report += file + ": " + scenario.title + ": " + error.what() + "\n";
    recorded = "== " + scenario.title + "\n" + joined(scenario.head);  // as it stood
    for (const Step& step : scenario.steps) {
      recorded += joined(step.source);
    }
  }
  return outcome;
}

struct Options {
  bool record = false;
  std::string exchanges;  // a file, or nothing
  std::string touches;
};

void write_lines(const std::string& path, const std::vector<std::string>& lines) {
  if (path.empty()) {
    return;
  }
  std::ofstream stream(path);
  stream << joined(lines);
  if (!stream.flush()) {
    throw std::runtime_error("cannot write " + path);
  }
}

int run(const std::vector<std::string>& files, const Options& options) {
  struct Job {
    std::string file;
    Scenario scenario;
    Outcome outcome = {};
  };
  std::vector<Job> jobs;
  for (const std::string& file : files) {
    for (const Scenario& scenario : read_transcript(file)) {
      jobs.push_back({file, scenario});
    }
  }
  Touches touches;
  std::atomic<size_t> next = 0;
  std::vector<std::thread> workers;
  for (unsigned i = 0; i < std::max(2U, std::thread::hardware_concurrency()); ++i) {
    workers.emplace_back([&] {
      for (size_t job = next++; job < jobs.size(); job = next++) {
        jobs[job].outcome = replay(jobs[job].file, jobs[job].scenario, options.record, &touches);
      }
    });
  }
  for (std::thread& worker : workers) {
    worker.join();
  }
  size_t failed = 0;
  for (const Job& job : jobs) {
    failed += job.outcome.report.empty() ? 0 : 1;
    std::cout << job.outcome.report;
  }
  for (const std::string& file : options.record ? files : std::vector<std::string>{}) {
    const std::string head = transcript_head(file);
    std::ofstream stream(file);
    stream << head;
    for (const Job& job : jobs) {
      if (job.file == file) {
        stream << (stream.tellp() == 0 ? "" : "\n") << job.outcome.recorded;
      }
    }
  }
  std::vector<std::string> exchanges;
  for (const Job& job : jobs) {
    exchanges.push_back("# " + job.file + ": " + job.scenario.title + job.outcome.exchanges);
  }
  const std::set<std::string> touched = touches.lines();
  write_lines(options.exchanges, exchanges);
  write_lines(options.touches, {touched.begin(), touched.end()});
  std::cout << jobs.size() - failed << " scenarios as expected, " << failed << " not\n";
  return failed == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> files(argv + 1, argv + argc);
  Options options;
  const std::map<std::string, std::string*> outputs = {{"--exchanges", &options.exchanges},
                                                       {"--touches", &options.touches}};
  while (!files.empty()) {
    const auto output = outputs.find(files[0]);
    if (output != outputs.end() && files.size() > 1) {
      *output->second = files[1];
      files.erase(files.begin(), files.begin() + 2);
    } else if (files[0] == "--record") {
      options.record = true;
      files.erase(files.begin());
    } else {
      break;
    }
  }
  try {
    return run(files, options);
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 2;
  }
}
