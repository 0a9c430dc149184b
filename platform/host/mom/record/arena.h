// Memory for unpacked records that live for one callback: a stack of blocks, released as a whole. An unpack makes a dozen small
// allocations; here they cost a few instructions each. Nested uses (a callback that scans) release in reverse order. Loop's
// thread.
#pragma once

#include <protobuf-c/protobuf-c.h>

#include <cstddef>
#include <memory>
#include <vector>

namespace host::mom {

class Arena {
 public:
  // At its end releases everything allocated during its life.
  class Scope {
   public:
    explicit Scope(Arena &arena) : arena_(arena), block_(arena.block_), used_(arena.used_) {}
    Scope(const Scope &) = delete;
    Scope &operator=(const Scope &) = delete;
    ~Scope() { arena_.rewind(block_, used_); }

   private:
    Arena &arena_;
    std::size_t block_;
    std::size_t used_;
  };

  // For protobuf_c_message_unpack; its frees do nothing.
  ProtobufCAllocator *allocator() { return &allocator_; }

 private:
  struct Block {
    std::unique_ptr<std::byte[]> memory;
    std::size_t size;
  };
  static constexpr std::size_t kBlockSize = 64U << 10;
  static constexpr std::size_t kBlocksKept = 4;

  void *allocate(std::size_t size);
  void rewind(std::size_t block, std::size_t used);

  std::vector<Block> blocks_;
  std::size_t block_ = 0;  // index of the block in use; may be one past the last
  std::size_t used_ = 0;   // bytes of it
  ProtobufCAllocator allocator_{[](void *arena, std::size_t size) { return static_cast<Arena *>(arena)->allocate(size); },
                                [](void *, void *) {}, this};
};

}  // namespace host::mom
