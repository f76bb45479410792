// A sound card for the mixer path engine: tinyalsa's calls on a list of controls in memory.

#pragma once

#include <tinyalsa/asoundlib.h>

#include <map>
#include <string>
#include <vector>

struct mixer_ctl {
  std::string name;
  mixer_ctl_type type;
  std::vector<long> values;
  std::vector<std::string> items = {};
};

struct FakeCard {
  bool present = true;
  std::vector<mixer_ctl> controls;
  std::map<std::string, mixer_ctl*, std::less<>> by_name = {};  // made when the mixer opens
  std::vector<std::string> writes = {};                         // "NAME = VALUE...", in order
  int open_mixers = 0;
};

// The card that every mixer_open opens.
extern FakeCard fake_card;
