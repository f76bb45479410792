// What the fuzzers share. Each file of this folder that defines LLVMFuzzerTestOneInput is a
// program: built with the preset "fuzz" it looks for inputs, in every other build it replays those
// that are kept below cases/. A fuzzer judges what the daemon's code makes of an input, and ends
// the process when that is wrong.

#pragma once

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Ends the process, with the text, when what must hold does not.
void expect(bool holds, const char* what, std::string_view seen = "");

// Gives the fields of a case one after the other, from the front of its bytes.
class Case {
 public:
  Case(const uint8_t* data, size_t size) : left_(reinterpret_cast<const char*>(data), size) {}
  uint8_t byte() {
    return static_cast<uint8_t>(left_.empty() ? 0 : take(1)[0]);
  }
  // The bytes up to the next zero byte, which is passed over, or all that is left.
  std::string text() {
    const std::string_view field = left_.substr(0, left_.find('\0'));
    left_.remove_prefix(std::min(left_.size(), field.size() + 1));
    return std::string(field);
  }
  std::string rest() {
    return std::string(take(left_.size()));
  }
  bool empty() const {
    return left_.empty();
  }
  std::string_view take(size_t count) {
    const std::string_view field = left_.substr(0, count);
    left_.remove_prefix(field.size());
    return field;
  }

 private:
  std::string_view left_;
};

// The station's side: what the daemon's code replied since the last call, each reply ended by
// '\1'.
std::string take_replies();
