#include "host/mom/record/arena.h"

#include <algorithm>
#include <new>

namespace host::mom {

void *Arena::allocate(std::size_t size) {
  size = (size + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
  while (block_ < blocks_.size() && used_ + size > blocks_[block_].size) {
    ++block_;
    used_ = 0;
  }
  if (block_ == blocks_.size()) {
    const std::size_t room = std::max(size, kBlockSize);
    auto *memory = new (std::nothrow) std::byte[room];
    if (!memory) return nullptr;
    blocks_.push_back({std::unique_ptr<std::byte[]>(memory), room});
    used_ = 0;
  }
  void *place = blocks_[block_].memory.get() + used_;
  used_ += size;
  return place;
}

void Arena::rewind(std::size_t block, std::size_t used) {
  block_ = block;
  used_ = used;
  const std::size_t needed = std::max(block + 1, kBlocksKept);
  if (blocks_.size() > needed) blocks_.resize(needed);
  // A block allocated for one huge record is not kept.
  while (blocks_.size() > block + 1 && blocks_.back().size > kBlockSize) blocks_.pop_back();
}

}  // namespace host::mom
