// What a test station checks: one command, and what it brings about.

#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "handset/handset.h"

using namespace handset;

// Waits for what another thread or process brings about. False when it has not come in 20 seconds.
template <typename Condition>
bool eventually(const Condition& condition) {
  for (int i = 0; i < 4000 && !condition(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return condition();
}

inline size_t times(const std::string& text, const std::string& what) {
  size_t found = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
    ++found;
  }
  return found;
}

// How often the daemon logged this, with its priority: "E text\\n".
inline size_t times_logged(const Handset& phone, const std::string& line) {
  const auto entries = phone.journal.since(0);
  return static_cast<size_t>(std::count_if(entries.begin(), entries.end(),
                                           [&](const auto& entry) { return entry.text == line; }));
}

// Sends the command and expects exactly these replies, and these texts in the log, among others.
inline void expect_exchange(Handset& phone, const std::string& command,
                            const std::vector<std::string>& replies,
                            const std::vector<std::string>& logged = {}) {
  SCOPED_TRACE(command);
  const size_t log_before = phone.log().size();
  EXPECT_EQ(phone.command(command + "\r\n"), replies);
  const std::string log = phone.log().substr(log_before);
  for (const std::string& text : logged) {
    EXPECT_NE(log.find(text), std::string::npos) << "not logged: " << text;
  }
}
