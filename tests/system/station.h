// What a test station checks: one command, and all that it brings about.

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

// The daemon's waits since the last take_waits, in ms.
inline std::vector<int> waits_ms(const Handset& phone) {
  std::vector<int> all;
  for (const auto wait : phone.clock.waits()) {
    all.push_back(static_cast<int>(wait.count() / 1000));
  }
  return all;
}

// How often the daemon logged this, with its priority: "E text\\n".
inline size_t times_logged(const Handset& phone, const std::string& line) {
  const auto entries = phone.journal.since(0);
  return static_cast<size_t>(std::count_if(entries.begin(), entries.end(),
                                           [&](const auto& entry) { return entry.text == line; }));
}

struct Exchange {
  std::string command;
  std::vector<std::string> replies;
  std::vector<Nodes::Write> writes = {};  // node writes in order, exact bytes
  std::vector<int> waits = {};            // ms, in order
  std::vector<std::string> logged = {};   // texts that the daemon's log gets, among others
};

// Sends the command and expects exactly these replies, writes and waits.
inline void expect_exchange(Handset& phone, const Exchange& exchange) {
  SCOPED_TRACE(exchange.command);
  phone.nodes.take_writes();
  phone.clock.take_waits();
  const size_t log_before = phone.log().size();

  EXPECT_EQ(phone.command(exchange.command + "\r\n"), exchange.replies);

  const std::vector<Nodes::Write> writes = phone.nodes.take_writes();
  ASSERT_EQ(writes.size(), exchange.writes.size());
  for (size_t i = 0; i < writes.size(); ++i) {
    EXPECT_EQ(writes[i].path, exchange.writes[i].path);
    EXPECT_EQ(writes[i].bytes, exchange.writes[i].bytes) << writes[i].path;
  }
  EXPECT_EQ(waits_ms(phone), exchange.waits);
  phone.clock.take_waits();
  const std::string log = phone.log().substr(log_before);
  for (const std::string& text : exchange.logged) {
    EXPECT_NE(log.find(text), std::string::npos) << "not logged: " << text;
  }
}

inline void expect_exchanges(Handset& phone, const std::vector<Exchange>& exchanges) {
  for (const Exchange& exchange : exchanges) {
    expect_exchange(phone, exchange);
  }
}
