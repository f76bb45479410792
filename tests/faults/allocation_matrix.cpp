// The allocation matrix: for each command of the phone, and for the daemon's start, each allocation
// fails once; what comes of it is judged.
//
//   allocation_matrix [--sample N [--seed S]]
//   allocation_matrix --command 'AT+...' [--locked] [--allocation 12]
//
// As fault_matrix.

#include <stdio.h>
#include <string.h>

#include <exception>
#include <iostream>
#include <sstream>

#include "tests/faults/matrix.h"
#include "tests/faults/ordered_allocations.h"

using namespace handset;

namespace {

class AllocationTrouble : public Trouble {
 public:
  void attach(Handset* phone, Handset::StartOptions* options) override {
    order_ = order_allocations(phone, options);
  }
  void begin() override {
    order_->begin(number, false);
  }
  void end() override {
    order_->counts = false;
  }
  size_t seen() const override {
    return static_cast<size_t>(order_->count);
  }
  bool has_struck() const override {
    return order_->failed;
  }
  std::string struck_on() const override;

  long number = 0;  // of the one that fails

 private:
  OrderedAllocations order_;
};

// The name of the daemon's function at an offset.
std::string function_at(const std::string& offset) {
  const std::string command = "addr2line -Cfs -e " FTM_DAEMON " " + offset;
  FILE* tool = popen(command.c_str(), "re");
  char name[512] = "";
  if (tool != nullptr) {
    [[maybe_unused]] const char* const read = fgets(name, sizeof(name), tool);
    pclose(tool);
  }
  return std::string(name).substr(0, strcspn(name, "(\n"));
}

// Who asked for the allocation, the innermost first: libraries by their name, then functions of the
// daemon.
std::string AllocationTrouble::struck_on() const {
  constexpr int kFunctions = 4;
  std::istringstream frames(order_->where);
  std::string callers;
  std::string library;
  int functions = 0;
  for (std::string frame; functions < kFunctions && frames >> frame;) {
    const size_t plus = frame.rfind('+');
    const std::string object = frame.substr(0, plus);
    if (object == "ftmd") {
      const std::string name = function_at(frame.substr(plus + 1));
      const bool own = name.find("std::") == std::string::npos;
      callers += own ? (callers.empty() ? "" : " ") + name : "";
      functions += own ? 1 : 0;
    } else if (object != library && object != "fail_allocation.so" && functions == 0) {
      callers += (callers.empty() ? "" : " ") + object;
    }
    library = object;
  }
  return callers;
}

void fail_allocations(const Settings& settings, Row* row, size_t most, std::mt19937* random) {
  const std::unique_ptr<Trouble> watched = row->learn();
  std::vector<Row::Order> orders;
  for (size_t number = 1; number <= watched->seen(); ++number) {
    orders.push_back({"allocation " + std::to_string(number), [number](Trouble* trouble) {
                        static_cast<AllocationTrouble*>(trouble)->number =
                            static_cast<long>(number);
                      }});
  }
  row->try_orders(watched->seen(), chosen(std::move(orders), settings, most, random));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Settings settings = read_settings(argc, argv, {"--allocation"});
    if (!settings.one.empty()) {
      settings.one.insert(0, "allocation ");
    }
    return run_rows(
        settings, walk_cases(), "allocations", "failed",
        [&settings](Row* row, size_t most, std::mt19937* random) {
          fail_allocations(settings, row, most, random);
        },
        [] { return std::make_unique<AllocationTrouble>(); });
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 2;
  }
}
