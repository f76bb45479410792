// The walk, cut into cases; see walk.h.

#include "tests/faults/walk.h"

#include <fstream>
#include <stdexcept>

// What asks whether the phone is locked before it writes, and what opens the lock.
static const char* const kGated[] = {
    "AT^ENABLE_ENG_ADB",         "AT^WITH_ARGS_SECRECY_UNLOCK", "AT^RESET_ENG_MARK",
    "AT^WITH_ARGS_PRODUCT_INFO", "AT^RESET_PRODUCT_INFO",       "AT^WITH_ARGS_BACKCOVER_COLOR",
    "AT^SECRECY_LOCK_STATUS",
};

// Does nothing a second time until it is ended.
static const char kBeginsOnce[] = "AT+WCDMIC=1";
static const char kItsEnd[] = "AT+WCDMIC=0";

std::vector<Case> walk_cases() {
  std::ifstream stream(FTM_DEMO);
  std::vector<Case> cases;
  std::vector<std::string> before;
  for (std::string line; std::getline(stream, line);) {
    if (line.empty() || line[0] == '#') {
      continue;
    }
    if (line == kBeginsOnce) {
      before.push_back(kItsEnd);
    }
    if (line[0] != '.') {
      cases.push_back({line, before});
      before.clear();
    }
    before.push_back(line);
  }
  const size_t healthy = cases.size();
  for (const char* gated : kGated) {
    for (size_t i = 0; i < healthy; ++i) {
      if (cases[i].command.starts_with(gated)) {
        cases.push_back({cases[i].command, {}, true});
      }
    }
  }
  if (cases.empty()) {
    throw std::runtime_error("there is no walk in " FTM_DEMO);
  }
  return cases;
}

std::string case_name(const Case& one) {
  constexpr size_t kLongest = 60;
  const bool longer = one.command.size() > kLongest;
  return one.command.substr(0, kLongest) + (longer ? "..." : "") + (one.locked ? " (locked)" : "");
}
