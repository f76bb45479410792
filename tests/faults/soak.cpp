// The soak: one daemon answers mixed commands for minutes; what it and the handset hold must not
// grow.
//
//   soak [COUNT [SEED]]
//
// Sends the whole walk again and again, and between these commands by chance, quick ones
// more often, each with the one behind it in the walk, which switches off what it switches on. Ends
// with status 1 when something is wrong, and says the figures in its last line.

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "handset/console/dot_commands.h"
#include "handset/handset.h"
#include "handset/visible.h"
#include "tests/faults/judge.h"
#include "tests/faults/phone_state.h"
#include "tests/faults/walk.h"

using namespace handset;
using std::chrono::steady_clock;

namespace {

constexpr int kBetweenWalks = 4000;

struct Line {
  std::string command;
  std::vector<std::string> before;  // dot lines
  double seconds = 0;               // that it took in the first walk
};

// What is held between two walks; memory in KiB.
struct Figures {
  Held held;
  long daemon = 0;
  long handset = 0;
};

// A process's memory that is its own.
long memory_of(const std::string& process) {
  std::ifstream status("/proc/" + process + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("RssAnon:")) {
      return atol(line.c_str() + line.find(':') + 1);
    }
  }
  throw std::runtime_error("no memory is told of process " + process);
}

class Soak {
 public:
  explicit Soak(unsigned seed) : random_(seed) {
    for (const Case& one : walk_cases()) {
      if (!one.locked) {
        lines_.push_back({one.command, {}});
        std::copy_if(one.before.begin(), one.before.end(), std::back_inserter(lines_.back().before),
                     [](const std::string& line) { return line.starts_with(".key "); });
      }
    }
    phone_.power.store_wake_lock("desk");  // a phone that sleeps answers nothing
    phone_.start();
  }

  // Status of the program.
  int run(int count);

 private:
  void send(const Line& line);
  void walk();
  void mix(int count);
  void note_figures();
  bool judge_growth();

  std::mt19937 random_;
  Judge judge_;
  Handset phone_{{.time_factor = 0.001}};
  std::vector<Line> lines_;
  std::vector<Figures> figures_;
  int sent_ = 0;
  int findings_ = 0;
};

// Of the replies those of the worker are judged: another thread's may come behind later commands.
void Soak::send(const Line& line) {
  for (const std::string& dot : line.before) {
    std::ostringstream out;
    run_dot_command(&phone_, dot, out);
  }
  const size_t seen = phone_.journal.size();
  phone_.command(line.command + "\n", std::chrono::seconds(60));
  ++sent_;
  std::string exchange = visible(line.command + "\n");
  for (const Journal::Entry& entry : phone_.journal.since(seen)) {
    if (entry.stream.empty() && entry.text.starts_with("< ")) {
      exchange += "\t" + entry.text;
    }
  }
  if (!judge_.is_outcome(exchange)) {
    ++findings_;
    std::cout << "no outcome: " << exchange << std::endl;
  }
}

void Soak::walk() {
  for (Line& line : lines_) {
    const auto begun = steady_clock::now();
    send(line);
    if (line.seconds == 0) {
      line.seconds = std::chrono::duration<double>(steady_clock::now() - begun).count();
    }
  }
}

void Soak::mix(int count) {
  std::vector<double> weights;
  for (size_t i = 0; i + 1 < lines_.size(); ++i) {
    weights.push_back(1 / (lines_[i].seconds + lines_[i + 1].seconds));
  }
  std::discrete_distribution<size_t> chance(weights.begin(), weights.end());
  for (int i = 0; i < count; i += 2) {
    const size_t line = chance(random_);
    send(lines_[line]);
    send(lines_[line + 1]);
  }
}

// Behind a walk, when its threads and programs have ended.
void Soak::note_figures() {
  Figures now;
  now.held = held(phone_);
  const auto end = steady_clock::now() + std::chrono::seconds(5);
  while (!figures_.empty() && now.held.exceeds(figures_[0].held) && steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    now.held = held(phone_);
  }
  now.daemon = memory_of(std::to_string(phone_.pid()));
  now.handset = memory_of("self");
  figures_.push_back(now);
}

// Memory is compared between the halves: at first lists fill up to their bounds.
bool Soak::judge_growth() {
  const auto middle = figures_.begin() + static_cast<std::ptrdiff_t>(figures_.size() / 2);
  const auto most = [](auto from, auto to, long Figures::*what) {
    const auto less = [what](const Figures& a, const Figures& b) { return a.*what < b.*what; };
    return *std::max_element(from, to, less).*what;
  };
  bool grows = figures_.back().held.exceeds(figures_.front().held);
  for (const auto& [what, allowed] :
       {std::pair(&Figures::daemon, 512L), {&Figures::handset, 8192L}}) {
    grows = grows ||
            most(middle, figures_.end(), what) > most(figures_.begin(), middle, what) + allowed;
  }
  return grows;
}

int Soak::run(int count) {
  const auto begun = steady_clock::now();
  std::string failed;
  try {
    walk();
    while (sent_ < count) {
      walk();
      note_figures();
      mix(std::min(kBetweenWalks, count - sent_));
    }
    walk();
    note_figures();
  } catch (const std::exception& error) {
    failed = std::string(error.what()).substr(0, strcspn(error.what(), "\n"));
    std::cout << failed << "\n";
  }
  const bool grows = failed.empty() && judge_growth();
  const Figures first = figures_.empty() ? Figures() : figures_.front();
  const Figures last = figures_.empty() ? Figures() : figures_.back();
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now() - begun).count();
  std::cout << sent_ << " commands in " << seconds << " s: " << first.held.descriptors << " to "
            << last.held.descriptors << " descriptors, " << first.held.threads << " to "
            << last.held.threads << " threads, daemon " << first.daemon << " to " << last.daemon
            << " KiB, handset " << first.handset << " to " << last.handset << " KiB, "
            << (grows ? "something grows, " : "nothing grows, ") << findings_ << " findings\n";
  return failed.empty() && !grows && findings_ == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? atoi(argv[1]) : 100000;
  const unsigned seed = argc > 2 ? static_cast<unsigned>(atoi(argv[2])) : std::random_device{}();
  if (count < 1 || argc > 3) {
    std::cerr << "usage: soak [COUNT [SEED]]\n";
    return 2;
  }
  try {
    std::cout << "seed " << seed << std::endl;
    return Soak(seed).run(count);
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 2;
  }
}
