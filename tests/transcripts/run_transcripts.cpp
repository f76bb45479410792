// Replays transcripts, each scenario on a phone of its own, several side by side.
//
//   run_transcripts [--record] FILE...
//
// Prints what differs, line by line, and ends with status 1 when something did. With --record every
// step that differs is written into the file as it came out; read it before you keep it.

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iostream>
#include <mutex>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "handset/console/dot_commands.h"
#include "handset/handset.h"
#include "tests/transcripts/transcript.h"

using handset::Handset;
using handset::Journal;

namespace {

struct Played {
  bool matched = true;
  std::vector<std::string> prints;
  std::vector<Journal::Entry> entries;
};

// How long a step may take to bring about all, and how long it is silent when it has.
constexpr std::chrono::milliseconds kPatience(20000);
constexpr std::chrono::milliseconds kSilence(300);

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

// Sends a line and waits until it has been handled, or until the daemon has ended. The phone starts
// with the first one, and what it does then belongs to no line.
void send(Handset* phone, const std::string& bytes, size_t* seen) {
  if (phone->pid() == 0) {
    Handset::StartOptions options;
    options.faults = true;
    phone->start(options);
    wait_for_main(&phone->journal);
    *seen = phone->journal.size();
  }
  const int reads = phone->serial.reads();
  phone->serial.send(bytes);
  phone->serial.wait_reads(reads + 1, std::chrono::seconds(60));
}

// Does one step and gathers what it brings about, until that is what is expected or clearly is not.
Played play(const Step& step, Handset* phone, bool record, size_t* seen) {
  std::ostringstream out;
  std::string sent;
  if (step.action[0] == '>') {
    sent = handset::sent_bytes(step.action);
    send(phone, sent, seen);
  } else {
    run_dot_command(phone, step.action, out);
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
  Played played;
  played.prints = lines_of(out.str());
  for (;;) {
    const size_t size = journal->size();
    played.entries = fold(journal->since(*seen), sent);
    const Match found = match(step.entries, played.entries);
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

std::string shown(const ExpectedEntry& entry) {
  return (entry.any_number ? "* " : "") + handset::shown({entry.stream, entry.text});
}

// What differs from run to run whatever the daemon does.
std::string without_times(const std::string& text) {
  static const std::regex kTimestamp("timestamp \\d+");
  return std::regex_replace(text, kTimestamp, "timestamp {*}");
}

std::vector<std::string> shown(const Played& played) {
  std::vector<std::string> lines;
  for (const std::string& line : played.prints) {
    lines.push_back("| " + line);
  }
  for (const Journal::Entry& entry : count_repeats(played.entries)) {
    lines.push_back(without_times(handset::shown(entry)));
  }
  return lines;
}

std::vector<std::string> shown(const Step& step) {
  std::vector<std::string> lines;
  for (const std::string& line : step.prints) {
    lines.push_back("| " + line);
  }
  for (size_t i = 0; i < step.entries.size();) {
    const std::string line = shown(step.entries[i]);
    size_t end = i + 1;
    while (end < step.entries.size() && !step.entries[end].after_break &&
           shown(step.entries[end]) == line) {
      ++end;
    }
    if (step.entries[i].after_break) {
      lines.emplace_back("--");
    }
    lines.push_back(line + (end - i > 1 ? " x" + std::to_string(end - i) : ""));
    i = end;
  }
  return lines;
}

// The lines of both, with '-' before what is missing and '+' before what is too much.
std::string difference(const std::vector<std::string>& expected,
                       const std::vector<std::string>& actual) {
  std::vector<std::vector<size_t>> common(expected.size() + 1,
                                          std::vector<size_t>(actual.size() + 1, 0));
  for (size_t i = expected.size(); i-- > 0;) {
    for (size_t j = actual.size(); j-- > 0;) {
      common[i][j] = expected[i] == actual[j] ? common[i + 1][j + 1] + 1
                                              : std::max(common[i + 1][j], common[i][j + 1]);
    }
  }
  std::string text;
  size_t i = 0;
  size_t j = 0;
  while (i < expected.size() || j < actual.size()) {
    if (i < expected.size() && j < actual.size() && expected[i] == actual[j]) {
      text += "    " + expected[i++] + "\n";
      ++j;
    } else if (i < expected.size() &&
               (j == actual.size() || common[i + 1][j] >= common[i][j + 1])) {
      text += "  - " + expected[i++] + "\n";
    } else {
      text += "  + " + actual[j++] + "\n";
    }
  }
  return text;
}

struct Outcome {
  std::string report;    // empty when all came as expected
  std::string recorded;  // the scenario as it came out
};

Outcome replay(const std::string& file, const Scenario& scenario, bool record) {
  Outcome outcome;
  std::ostringstream recorded;
  recorded << "== " << scenario.title << "\n";
  for (const std::string& line : scenario.head) {
    recorded << line << "\n";
  }
  const auto report = [&](const Step& step, const std::string& text) {
    outcome.report += file + ":" + std::to_string(step.line) + ": " + scenario.title + "\n  " +
                      step.action + "\n" + text;
  };
  try {
    Handset phone;
    size_t seen = 0;
    for (const Step& step : scenario.steps) {
      const Played played = play(step, &phone, record, &seen);
      const std::vector<std::string> kept = played.matched ? shown(step) : shown(played);
      recorded << step.action << "\n";
      for (const std::string& line : kept) {
        recorded << line << "\n";
      }
      if (!played.matched) {
        report(step, difference(shown(step), shown(played)));
        if (!record) {
          break;
        }
      }
    }
  } catch (const std::exception& error) {
    outcome.report += file + ": " + scenario.title + ": " + error.what() + "\n";
  }
  outcome.recorded = recorded.str();
  return outcome;
}

int run(const std::vector<std::string>& files, bool record) {
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
  std::atomic<size_t> next = 0;
  std::vector<std::thread> workers;
  for (unsigned i = 0; i < std::max(2U, std::thread::hardware_concurrency()); ++i) {
    workers.emplace_back([&] {
      for (size_t job = next++; job < jobs.size(); job = next++) {
        jobs[job].outcome = replay(jobs[job].file, jobs[job].scenario, record);
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
  for (const std::string& file : record ? files : std::vector<std::string>{}) {
    const std::string head = transcript_head(file);
    std::ofstream stream(file);
    stream << head;
    for (const Job& job : jobs) {
      if (job.file == file) {
        stream << (stream.tellp() == 0 ? "" : "\n") << job.outcome.recorded;
      }
    }
  }
  std::cout << jobs.size() - failed << " scenarios as expected, " << failed << " not\n";
  return failed == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> files(argv + 1, argv + argc);
  const bool record = !files.empty() && files[0] == "--record";
  if (record) {
    files.erase(files.begin());
  }
  try {
    return run(files, record);
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 2;
  }
}
