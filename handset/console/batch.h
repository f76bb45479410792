// Lines that nobody types: of the arguments, of standard input, of the demonstration. Each is
// printed with what comes of it. The result is the program's status: 0, 1 when a line could not be
// carried out, or 128 + n when signal n ended them.

#pragma once

#include <string>
#include <vector>

#include "handset/console/started_phone.h"

namespace handset {

int run_lines(StartedPhone* phone, const std::vector<std::string>& lines);
int run_standard_input(StartedPhone* phone);

// Every command of the phone, and the dot lines that some need beforehand.
std::vector<std::string> demo_lines();
int run_demo(StartedPhone* phone);

}  // namespace handset
