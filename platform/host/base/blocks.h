// Memory for objects that exist by the million: blocks of the size asked for, where general allocators round up by as much as a
// quarter. Blocks of one size, to a multiple of 16 bytes, share chunks; a chunk without blocks in use is given back, except for
// the last one of its size. The address sanitizer sees each block as an allocation of its own. Not thread-safe.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#if defined(__has_feature) && !defined(__SANITIZE_ADDRESS__)
#if __has_feature(address_sanitizer)
#define __SANITIZE_ADDRESS__ 1  // gcc's name
#endif
#endif

namespace host {

class Blocks {
 public:
  Blocks() = default;
  Blocks(const Blocks &) = delete;
  Blocks &operator=(const Blocks &) = delete;
  // All blocks must have been released.
  ~Blocks();

  // Aligned to 16 bytes; null when memory is exhausted. `size` is above 0.
  void *allocate(std::size_t size);
  // `size` as it was asked for; on the thread that uses the Blocks the block came from.
  static void release(void *block, std::size_t size);

 private:
  static constexpr std::size_t kStep = 16;
#if defined(__SANITIZE_ADDRESS__)
  static constexpr std::size_t kLargest = 0;
#else
  static constexpr std::size_t kLargest = 1024;  // larger blocks are the general allocator's
#endif
  static constexpr std::size_t kChunkSize = 65536;  // jemalloc adds a page to each

  struct Free {
    Free *next;
  };
  // At the beginning of its memory, which is aligned to its size. In the list of its class while it has room.
  struct alignas(kStep) Chunk {
    Chunk **list;
    Chunk *previous = nullptr, *next = nullptr;
    Free *free = nullptr;                  // blocks that were released
    std::uint32_t unused = sizeof(Chunk);  // offset of the memory that has not been part of a block yet
    std::uint16_t block_size;
    std::uint16_t blocks = 0;  // in use

    bool is_full() const { return !free && unused + block_size > kChunkSize; }
    void *take();
    void enlist();
    void delist();
  };
  static Chunk *new_chunk(Chunk **list, std::size_t block_size);

  std::array<Chunk *, kLargest / kStep + 1> with_room_{};  // by block size
};

}  // namespace host
