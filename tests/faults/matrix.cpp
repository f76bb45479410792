// Rows of a matrix; see matrix.h.

#include "tests/faults/matrix.h"

#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "tests/faults/known.h"

Settings read_settings(int argc, char** argv, const std::vector<std::string>& naming) {
  Settings settings;
  settings.seed = std::random_device{}() % 1000000;
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--locked") {
      settings.locked = true;
      continue;
    }
    const std::string value = i + 1 < argc ? argv[++i] : "";
    if (option == "--command" && !value.empty()) {
      settings.command = value;
    } else if (std::find(naming.begin(), naming.end(), option) != naming.end() && !value.empty()) {
      settings.one += (settings.one.empty() ? "" : " ") + value;
    } else if (option == "--sample" && atoi(value.c_str()) > 0) {
      settings.sample = static_cast<size_t>(atoi(value.c_str()));
    } else if (option == "--seed" && !value.empty()) {
      settings.seed = static_cast<unsigned>(atoi(value.c_str()));
    } else {
      throw std::runtime_error("no such option, or it lacks its value: " + option);
    }
  }
  return settings;
}

std::unique_ptr<Trouble> Row::learn() {
  std::unique_ptr<Trouble> trouble = make_();
  Trial trial(case_, trouble.get());
  trial.start();
  healthy_ = trial.observe(nullptr);
  for (const std::string& text : findings(case_, healthy_, healthy_, judge_)) {
    note("without trouble: " + text);
  }
  return trouble;
}

void Row::note(const std::string& text) {
  ++totals_.findings;
  report_ << case_name(case_) << ": " << text << "\n";
}

std::string Row::where() const {
  return trouble_->has_struck() ? trouble_->struck_on() : "not come to";
}

// What is wrong after a trouble.
std::vector<std::string> Row::try_once(const Order& order) {
  if (trial_ == nullptr || !trial_->start_again()) {
    trial_.reset();
    trouble_ = make_();
    trial_ = std::make_unique<Trial>(case_, trouble_.get());
    trial_->start();
  }
  order.give(trouble_.get());
  const Observation observed = trial_->observe(&healthy_.held);
  std::vector<std::string> found = findings(case_, observed, healthy_, judge_);
  if (!found.empty() || observed.held != healthy_.held || observed.again != healthy_.again ||
      observed.last != healthy_.last) {
    trial_.reset();
  }
  if (found.empty()) {
    return found;
  }
  const std::string trouble = order.name + " (" + where() + ")";
  const auto last = std::remove_if(found.begin(), found.end(), [&](const std::string& text) {
    return is_known(case_.command, trouble, text);
  });
  totals_.known += static_cast<size_t>(found.end() - last);
  found.erase(last, found.end());
  return found;
}

// What is found is looked for twice more, on a fresh phone each time: on a busy desk a reply may
// come too late once. It counts when it comes again, and is told in either case.
void Row::try_order(const Order& order) {
  std::vector<std::string> found = try_once(order);
  ++totals_.troubles;
  totals_.missed += trouble_->has_struck() ? 0 : 1;
  if (found.empty()) {
    return;
  }
  std::string text = order.name + " (" + where() + ")";
  for (const std::string& one : found) {
    text += (&one == &found.front() ? ": " : "; ") + one;
  }
  if (!try_once(order).empty() || !try_once(order).empty()) {
    note(text);
  } else {
    report_ << case_name(case_) << ": once in three times: " << text << "\n";
  }
}

void Row::try_orders(size_t calls, const std::vector<Order>& orders) {
  totals_.calls = calls;
  for (const Order& order : orders) {
    try_order(order);
  }
}

std::vector<Row::Order> chosen(std::vector<Row::Order> orders, const Settings& settings,
                               size_t most, std::mt19937* random) {
  if (!settings.one.empty()) {
    std::erase_if(orders, [&](const Row::Order& order) { return order.name != settings.one; });
    if (orders.empty()) {
      throw std::runtime_error("there is no " + settings.one);
    }
  }
  if (most != 0 && most < orders.size()) {
    std::shuffle(orders.begin(), orders.end(), *random);
    orders.resize(most);
  }
  return orders;
}

static std::vector<Case> chosen_cases(const Settings& settings, std::vector<Case> cases) {
  constexpr size_t kSampleTroubles = 12;  // of each command
  if (!settings.command.empty()) {
    std::erase_if(cases, [&](const Case& one) {
      return one.command != settings.command || one.locked != settings.locked;
    });
    if (cases.empty()) {
      throw std::runtime_error("the walk has no " + settings.command);
    }
  }
  if (settings.sample != 0) {
    std::mt19937 random(settings.seed);
    std::shuffle(cases.begin(), cases.end(), random);
    cases.resize(std::clamp<size_t>(settings.sample / kSampleTroubles, 1, cases.size()));
  }
  return cases;
}

int run_rows(const Settings& settings, const std::vector<Case>& all, const std::string& calls,
             const std::string& troubles,
             const std::function<void(Row*, size_t most, std::mt19937* random)>& work,
             const Row::MakeTrouble& make) {
  const std::vector<Case> cases = chosen_cases(settings, all);
  std::atomic<size_t> next = 0;
  std::mutex mutex;
  Totals sum;
  const auto work_on_rows = [&] {
    Judge judge;
    for (size_t i = next++; i < cases.size(); i = next++) {
      std::mt19937 random(settings.seed + static_cast<unsigned>(i));
      Row row(cases[i], &judge, make);
      try {
        work(&row, settings.sample / cases.size(), &random);
      } catch (const std::exception& error) {
        row.note(error.what());
      }
      const Totals& totals = row.totals();
      const std::lock_guard lock(mutex);
      std::cout << row.report() << case_name(cases[i]) << ": " << totals.calls << " " << calls
                << ", " << totals.troubles << " " << troubles << ", " << totals.findings
                << " findings" << std::endl;
      sum.calls += totals.calls;
      sum.troubles += totals.troubles;
      sum.missed += totals.missed;
      sum.known += totals.known;
      sum.findings += totals.findings;
    }
  };
  std::vector<std::thread> workers;
  for (unsigned i = 0; i < std::max(1U, std::thread::hardware_concurrency()); ++i) {
    workers.emplace_back(work_on_rows);
  }
  for (std::thread& worker : workers) {
    worker.join();
  }
  std::cout << cases.size() << " commands, " << sum.calls << " " << calls << ", " << sum.troubles
            << " " << troubles << " (" << sum.missed << " not come to, " << sum.known
            << " as they must be), " << sum.findings << " findings";
  if (settings.sample != 0) {
    std::cout << ", seed " << settings.seed;
  }
  std::cout << "\n";
  return sum.findings == 0 ? 0 : 1;
}
