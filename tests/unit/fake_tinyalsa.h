// A sound card for the mixer path engine: tinyalsa's calls on a list of controls in memory.

#pragma once

#include <tinyalsa/asoundlib.h>

#include <string>
#include <string_view>
#include <unordered_map>
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
  std::unordered_map<std::string_view, mixer_ctl*> by_name = {};  // made when the mixer opens
  std::vector<std::string> writes = {};                           // "NAME = VALUE...", in order
  int open_mixers = 0;
};

// The card that every mixer_open opens.
extern FakeCard fake_card;
