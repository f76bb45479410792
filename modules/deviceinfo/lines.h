// Text files of /proc as the storage and memory queries read them: line by line, by a key at the
// line's start.

#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

// A text file read line by line, each of any length.
class Lines {
 public:
  explicit Lines(FILE* file) : file_(file) {}
  ~Lines() {
    free(line_);
  }
  Lines(const Lines&) = delete;
  Lines& operator=(const Lines&) = delete;

  // The next line with its line end, or null.
  const char* next() {
    return getline(&line_, &size_, file_) < 0 ? nullptr : line_;
  }

 private:
  FILE* file_;
  char* line_ = nullptr;
  size_t size_ = 0;
};

// Compares over the shorter of the two: kept as it stands.
inline bool begins_with(const char* line, const char* key) {
  return strncmp(line, key, std::min(strlen(line), strlen(key))) == 0;
}

// The number behind the key, as far as the line holds both.
inline bool scan_number(const char* line, const char* key, long* number) {
  if (strncmp(line, key, strlen(key)) != 0) {
    return false;
  }
  char* end = nullptr;
  const long value = strtol(line + strlen(key), &end, 10);
  if (end == line + strlen(key)) {
    return false;
  }
  *number = value;
  return true;
}
