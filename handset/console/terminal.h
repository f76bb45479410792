// The console on a terminal: line editing, history, completion; what comes is printed above the
// line that is being typed. Returns the program's status, which is 0.

#pragma once

#include "handset/console/started_phone.h"

namespace handset {

int run_terminal(StartedPhone* phone);

}  // namespace handset
