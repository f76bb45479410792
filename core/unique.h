// Owners for what the system hands out: each closes on every path out of its scope.

#pragma once

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <utility>

// A file descriptor, or -1 for none.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~UniqueFd() {
    reset();
  }

  int get() const {
    return fd_;
  }
  bool ok() const {
    return fd_ >= 0;
  }
  int release() {
    return std::exchange(fd_, -1);
  }
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

struct CloseFile {
  void operator()(FILE* file) const {
    fclose(file);
  }
};
struct ClosePipe {
  void operator()(FILE* file) const {
    pclose(file);
  }
};
struct CloseDir {
  void operator()(DIR* dir) const {
    closedir(dir);
  }
};

struct FreeMemory {
  void operator()(void* memory) const {
    free(memory);
  }
};

using UniqueFile = std::unique_ptr<FILE, CloseFile>;
using UniquePipe = std::unique_ptr<FILE, ClosePipe>;
using UniqueDir = std::unique_ptr<DIR, CloseDir>;
