// Memory behind device files; see device.h.

#include "handset/links/device.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>

namespace handset {

MemoryFile::MemoryFile(const std::string& kind) {
  static std::atomic<int> made = 0;
  memory_ = memfd_create((kind + "-" + std::to_string(made++)).c_str(), MFD_CLOEXEC);
  if (memory_ < 0) {
    throw std::runtime_error(std::string("cannot make a device's memory: ") + strerror(errno));
  }
}

MemoryFile::~MemoryFile() {
  close(memory_);
}

int MemoryFile::caller_descriptor() const {
  return fcntl(memory_, F_DUPFD_CLOEXEC, 0);
}

}  // namespace handset
