// The commands that the matrices try, each behind the one before it in the phone's walk, which
// switches on what it switches off.

#pragma once

#include <string>
#include <vector>

struct Case {
  std::string command;
  std::vector<std::string> before;  // commands and dot lines
  bool locked = false;              // on a phone whose secrecy lock is closed
};

// Every command of the walk, and those that the secrecy lock keeps closed again on a locked phone.
// Throws std::runtime_error where there is no walk.
std::vector<Case> walk_cases();

// As findings name it.
std::string case_name(const Case& one);
