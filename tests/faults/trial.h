// One command of one phone under one trouble, and what is wrong with what comes of it.

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "handset/handset.h"
#include "tests/faults/judge.h"
#include "tests/faults/phone_state.h"
#include "tests/faults/walk.h"

// What goes wrong while a command runs: a system call, an allocation. One object goes with one
// phone.
class Trouble {
 public:
  virtual ~Trouble() = default;
  // Before the phone's start.
  virtual void attach(handset::Handset* phone, handset::Handset::StartOptions* options) = 0;
  // Around the command.
  virtual void begin() = 0;
  virtual void end() = 0;
  // Whether it has come, and what it was on.
  virtual bool has_struck() const = 0;
  virtual std::string struck_on() const = 0;
  // Something that grows as long as the command's threads do anything.
  virtual size_t seen() const = 0;
};

// What came of it.
struct Observation {
  std::string exchange;  // as the judge takes it
  std::string next;      // of the command that follows, and of the same command again
  std::string again;
  bool hangs = false;         // one of the three has no end
  std::optional<int> status;  // the daemon's wait status, if it has ended
  Held held;                  // after all three
  Files before;
  Files after;  // the first of the three
  Files last;
};

// A phone for one case.
class Trial {
 public:
  Trial(const Case& one, Trouble* trouble) : case_(one), trouble_(trouble) {}

  // Starts the phone and does what comes before the command. Throws std::runtime_error when it does
  // not come up.
  void start();
  // The same without a start: lays the phone's files anew. False when its daemon then holds other
  // than after the start: another phone must be taken.
  bool start_again();
  // least: what the healthy daemon holds in the end, which is waited for a moment; null: not known.
  Observation observe(const Held* least);

 private:
  std::string send(const std::string& line, Observation* observed);
  void prepare();
  void settle() const;

  Case case_;
  Trouble* trouble_;
  Files laid_;
  Held prepared_;
  std::unique_ptr<handset::Handset> phone_;
};

// What is wrong with an observation, beside that of the healthy phone; empty when nothing is.
std::vector<std::string> findings(const Case& one, const Observation& observed,
                                  const Observation& healthy, Judge* judge);
