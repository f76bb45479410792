// What of a phone outlives a command: its files and partitions, and what its daemon holds.

#pragma once

#include <map>
#include <string>
#include <vector>

#include "handset/handset.h"

// The phone's lasting files by their path, with what they hold; a folder ends in '/'.
using Files = std::map<std::string, std::string>;

Files lasting_files(const handset::Handset& phone);

// Makes the lasting files what they were.
void lay_files(handset::Handset* phone, const Files& files);

// Around the records of the reserve partition: bytes that no command may touch.
void mark_partition(handset::Handset* phone);

// What a command has done to the files that it should not have: each is to be as it was before or
// as the healthy phone's are afterwards, and of a partition only the command's own record may
// differ. Known ones, where a file is written in place and nobody is told, are left out.
std::vector<std::string> wrong_files(const std::string& command, const Files& before,
                                     const Files& after, const Files& healthy);

// What a daemon holds.
struct Held {
  size_t descriptors = 0;
  size_t threads = 0;
  size_t children = 0;
  bool operator==(const Held&) const = default;
  bool exceeds(const Held& other) const {
    return descriptors > other.descriptors || threads > other.threads || children > other.children;
  }
};

Held held(const handset::Handset& phone);
