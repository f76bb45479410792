// What the matrices share: rows, one for each case, that are worked on side by side and summed up.

#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/faults/judge.h"
#include "tests/faults/trial.h"

struct Settings {
  size_t sample = 0;  // about so many troubles, of some of the cases; 0: all
  unsigned seed = 0;
  std::string command;  // only this one; empty: all
  bool locked = false;
  std::string one;  // only the trouble of this name; empty: all
};

// Of the options --sample N, --seed S, --command TEXT, --locked, and those that name one trouble,
// each with a value; these are joined with blanks. Throws std::runtime_error for others.
Settings read_settings(int argc, char** argv, const std::vector<std::string>& naming);

struct Totals {
  size_t calls = 0;
  size_t troubles = 0;
  size_t missed = 0;  // that the command did not come to this time
  size_t known = 0;   // findings that are as they must be
  size_t findings = 0;
};

class Row {
 public:
  using MakeTrouble = std::function<std::unique_ptr<Trouble>()>;
  // As findings name it, and how a Trouble of this row is brought to make it.
  struct Order {
    std::string name;
    std::function<void(Trouble*)> give;
  };

  Row(const Case& one, Judge* judge, MakeTrouble make)
      : case_(one), judge_(judge), make_(std::move(make)) {}

  // Runs the case without trouble. The Trouble that has watched it.
  std::unique_ptr<Trouble> learn();
  // calls: how many it has seen. Then each is given, on a phone with which nothing is wrong.
  void try_orders(size_t calls, const std::vector<Order>& orders);

  void note(const std::string& text);
  const Totals& totals() const {
    return totals_;
  }
  // A line for each finding.
  std::string report() const {
    return report_.str();
  }

 private:
  std::string where() const;
  std::vector<std::string> try_once(const Order& order);
  void try_order(const Order& order);

  Case case_;
  Judge* judge_;
  MakeTrouble make_;
  Observation healthy_;
  std::unique_ptr<Trouble> trouble_;
  std::unique_ptr<Trial> trial_;  // one that can be gone on with; goes before its trouble
  Totals totals_;
  std::ostringstream report_;
};

// Those of the orders that the settings want, most of them at most; 0 for all.
std::vector<Row::Order> chosen(std::vector<Row::Order> orders, const Settings& settings,
                               size_t most, std::mt19937* random);

// Works on all the cases that the settings want, and prints what comes of it. What a call of the
// matrix and a trouble is called in the last line. The program's exit status.
int run_rows(const Settings& settings, const std::vector<Case>& all, const std::string& calls,
             const std::string& troubles,
             const std::function<void(Row*, size_t most, std::mt19937* random)>& work,
             const Row::MakeTrouble& make);
