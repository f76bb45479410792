// The fault matrix: for each command of the phone, each system call that it makes fails once, in
// each way that fits; what comes of it is judged.
//
//   fault_matrix [--sample N [--seed S]]
//   fault_matrix --command 'AT+...' [--locked] [--call 'openat 3' --error EIO|short]
//
// A phone with which nothing is wrong afterwards is as good as fresh, and serves the next fault,
// too. Ends with status 1 when something is wrong, and a line of that says how to see it again.

#include <errno.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <iterator>
#include <map>
#include <utility>

#include "handset/visible.h"
#include "tests/faults/call_watch.h"
#include "tests/faults/matrix.h"

using namespace handset;

namespace {

class CallTrouble : public Trouble {
 public:
  void attach(Handset* phone, Handset::StartOptions* options) override {
    options->every_call = true;
    watch_.attach(phone);
  }
  void begin() override {
    watch_.begin(fault);
  }
  void end() override {
    calls = watch_.end();
  }
  size_t seen() const override {
    return watch_.seen();
  }
  bool has_struck() const override {
    return watch_.struck().has_value();
  }
  std::string struck_on() const override {
    return watch_.struck()->on;
  }

  std::optional<CallFault> fault;
  std::vector<Call> calls;

 private:
  CallWatch watch_;
};

// A phone without one of these is not a faulty one but another one: its records lie elsewhere, or
// nothing locks it.
bool tells_phone(const Call& call, int error) {
  static const char* const kFiles[] = {"/dev/block/sda", "/mnt/vendor/norvareserve",
                                       "/mnt/vendor/norvareserve/system/config/secrecy.cfg"};
  return error == ENOENT && std::string(call.kind->name) == "faccessat" &&
         std::find(std::begin(kFiles), std::end(kFiles), call.on) != std::end(kFiles);
}

std::vector<CallFault> faults_of(const std::vector<Call>& calls) {
  constexpr int kRepeats = 6;  // of a call on one file: a command may poll
  std::vector<CallFault> faults;
  std::map<std::pair<const CallKind*, std::string>, int> repeats;
  for (const Call& call : calls) {
    if (++repeats[{call.kind, call.on}] > kRepeats) {
      continue;
    }
    for (const int error : call.kind->errors) {
      if (!tells_phone(call, error)) {
        faults.push_back({call.kind, call.k, error});
      }
    }
    if (call.is_short) {
      faults.push_back({call.kind, call.k, 0});
    }
  }
  return faults;
}

Row::Order order(const CallFault& fault) {
  const std::string way = fault.error == 0 ? "short" : error_name(fault.error);
  return {std::string(fault.kind->name) + " " + std::to_string(fault.k) + " " + way,
          [fault](Trouble* trouble) { static_cast<CallTrouble*>(trouble)->fault = fault; }};
}

void fail_calls(const Settings& settings, Row* row, size_t most, std::mt19937* random) {
  const std::unique_ptr<Trouble> watched = row->learn();
  const std::vector<Call>& calls = static_cast<CallTrouble*>(watched.get())->calls;
  std::vector<Row::Order> orders;
  for (const CallFault& fault : faults_of(calls)) {
    orders.push_back(order(fault));
  }
  row->try_orders(calls.size(), chosen(std::move(orders), settings, most, random));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Settings settings = read_settings(argc, argv, {"--call", "--error"});
    return run_rows(
        settings, walk_cases(), "calls", "faults",
        [&settings](Row* row, size_t most, std::mt19937* random) {
          fail_calls(settings, row, most, random);
        },
        [] { return std::make_unique<CallTrouble>(); });
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 2;
  }
}
