// The memory card: what the file system that is mounted from it tells of its room. Callable from
// any thread.

#pragma once

#include <sys/vfs.h>

#include <cstdint>
#include <mutex>
#include <optional>

namespace handset {

class MemoryCard {
 public:
  struct Size {
    uint64_t block_size;  // bytes
    uint64_t blocks;
    uint64_t free_blocks;  // those kept for the super-user included
  };

  // Puts a card of this size in, or takes it out.
  void insert(const std::optional<Size>& size);

  // What a statfs of its mount point answers: 0, or -ENOENT when there is no card.
  int status(struct statfs* status) const;

 private:
  mutable std::mutex mutex_;
  std::optional<Size> size_ = Size{.block_size = 32768, .blocks = 1941504, .free_blocks = 1931264};
};

}  // namespace handset
