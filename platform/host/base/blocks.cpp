#include "host/base/blocks.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace host {

void *Blocks::Chunk::take() {
  ++blocks;
  if (free) return std::exchange(free, free->next);
  return reinterpret_cast<std::byte *>(this) + std::exchange(unused, unused + block_size);
}

void Blocks::Chunk::enlist() {
  previous = nullptr;
  next = std::exchange(*list, this);
  if (next) next->previous = this;
}

void Blocks::Chunk::delist() {
  (previous ? previous->next : *list) = next;
  if (next) next->previous = previous;
}

Blocks::Chunk *Blocks::new_chunk(Chunk **list, std::size_t block_size) {
  void *memory = std::aligned_alloc(kChunkSize, kChunkSize);
  if (!memory) return nullptr;
  auto *chunk = new (memory) Chunk{.list = list, .block_size = static_cast<std::uint16_t>(block_size)};
  chunk->enlist();
  return chunk;
}

void *Blocks::allocate(std::size_t size) {
  if (size > kLargest) return std::malloc(size);
  const std::size_t steps = (size + kStep - 1) / kStep;
  Chunk *chunk = with_room_[steps];
  if (!chunk) chunk = new_chunk(&with_room_[steps], steps * kStep);
  if (!chunk) return nullptr;
  void *block = chunk->take();
  if (chunk->is_full()) chunk->delist();
  return block;
}

void Blocks::release(void *block, std::size_t size) {
  if (size > kLargest) return std::free(block);
  const std::size_t at = reinterpret_cast<std::uintptr_t>(block) % kChunkSize;
  auto *chunk = reinterpret_cast<Chunk *>(static_cast<std::byte *>(block) - at);
  if (chunk->is_full()) chunk->enlist();
  chunk->free = new (block) Free{chunk->free};
  if (--chunk->blocks > 0 || (!chunk->previous && !chunk->next)) return;
  chunk->delist();
  std::free(chunk);
}

Blocks::~Blocks() {
  for (Chunk *last : with_room_) std::free(last);
}

}  // namespace host
