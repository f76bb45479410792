// The phone's side of a daemon whose allocations fail as they are ordered.

#pragma once

#include <memory>

#include "handset/handset.h"
#include "tests/faults/allocation_order.h"

struct UnmapOrder {
  void operator()(AllocationOrder* order) const;
};
using OrderedAllocations = std::unique_ptr<AllocationOrder, UnmapOrder>;

// Lets the daemon that starts with these options take its allocations as the returned order says.
// Throws std::exception.
OrderedAllocations order_allocations(handset::Handset* phone,
                                     handset::Handset::StartOptions* options);
