// What a test and the library that it loads into the daemon share: a file of the phone, mapped by
// both.

#pragma once

#include <atomic>

constexpr char kAllocationOrder[] = "/dev/.allocation_order";

struct AllocationOrder {
  std::atomic<bool> counts;    // from now on
  std::atomic<long> count;     // allocations so far
  std::atomic<long> fails;     // the one that fails, the first being 1; 0 for none
  std::atomic<bool> for_good;  // all that follow it fail, too
  std::atomic<bool> failed;
  char where[4096];  // the calls that it was in, innermost first: "ftmd+0x1234 libc.so.6+0x56 "

  void begin(long number, bool with_all_behind) {
    count = 0;
    failed = false;
    fails = number;
    for_good = with_all_behind;
    counts = true;
  }
};
