// Phones that run beside other programs until a signal ends them.

#pragma once

#include <vector>

#include "handset/console/options.h"

namespace handset {

// Starts the phones, runs the options' lines on each, prints where they are reached and serves
// them. Returns the program's status. Throws std::exception when a phone cannot be started.
int serve(const Options& options);

}  // namespace handset
