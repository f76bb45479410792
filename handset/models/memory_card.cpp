// The memory card's room; see memory_card.h.

#include "handset/models/memory_card.h"

#include <errno.h>

#include <algorithm>

namespace handset {

void MemoryCard::insert(const std::optional<Size>& size) {
  const std::lock_guard lock(mutex_);
  size_ = size;
}

int MemoryCard::status(struct statfs* status) const {
  const std::lock_guard lock(mutex_);
  if (!size_.has_value()) {
    return -ENOENT;
  }
  *status = {};
  status->f_type = 0xef53;  // ext4, which keeps a twentieth for the super-user
  status->f_bsize = static_cast<int64_t>(size_->block_size);
  status->f_blocks = size_->blocks;
  status->f_bfree = size_->free_blocks;
  status->f_bavail = size_->free_blocks - std::min(size_->free_blocks, size_->blocks / 20);
  status->f_namelen = 255;
  return 0;
}

}  // namespace handset
