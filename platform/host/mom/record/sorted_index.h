// Objects of one type in key order: a directory of sorted blocks of at most 127 objects.
//
// Two levels are enough for millions of objects (10^6: 8,000 blocks whose directory fits the second-level cache), and a block
// takes 24 bytes per object, against 64 and more in a node-based tree. Keys are kept apart from the pointers, so that a lookup
// touches only keys. Objects that arrive in key order fill their blocks completely. Loop's thread.
#pragma once

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

#include "host/mom/record/object.h"

namespace host::mom {

class SortedIndex {
 public:
  // The position of a key, or the one where it would be. Valid until the next insert or erase.
  struct Place {
    std::size_t block = 0;
    std::size_t slot = 0;
    bool found = false;
  };

  SortedIndex() = default;
  SortedIndex(const SortedIndex &) = delete;
  SortedIndex &operator=(const SortedIndex &) = delete;
  ~SortedIndex() { clear(); }

  Place find(const Key &key) const;

  Object *at(const Place &place) const { return directory_[place.block].block->objects[place.slot]; }
  Key key_at(const Place &place) const;

  // Inserts at `place`, which find() returned for the missing `key`.
  void insert(const Place &place, const Key &key, ObjectRef object);
  // Replaces the object at a found place; returns the old one.
  ObjectRef replace(const Place &place, ObjectRef object);
  ObjectRef erase(const Place &place);
  void clear();

  // The walk in key order; `found` is false at the end.
  Place first() const { return settle({0, 0, true}); }
  Place next(const Place &place) const { return settle({place.block, place.slot + 1, true}); }
  // The first object after `key`.
  Place after(const Key &key) const;

  std::size_t size() const { return size_; }
  // Changes with every insert and erase, so that a walk can tell that its place is no longer valid.
  std::uint64_t version() const { return version_; }
  // Bytes of the index itself, without the objects.
  std::size_t bytes() const { return directory_.capacity() * sizeof(Entry) + directory_.size() * sizeof(Block); }

 private:
  static constexpr std::size_t kBlockMax = 127;  // a block takes 3 KiB, which allocators serve without a remainder
  static constexpr std::size_t kMergeBelow = 32;
  struct Block {
    std::size_t count = 0;
    std::array<KeyHead, kBlockMax> heads;
    std::array<Object *, kBlockMax> objects;
  };
  static_assert(sizeof(Block) <= 3072);
  struct Entry {
    KeyHead first;  // of the block's first object
    std::unique_ptr<Block> block;
  };

  Place settle(Place place) const;
  static std::strong_ordering compare(const Block &block, std::size_t slot, const Key &key);
  static void open_gap(Block &block, std::size_t slot);
  static void close_gap(Block &block, std::size_t slot);
  void add_block(std::size_t position, std::unique_ptr<Block> block);
  Place split(const Place &place);
  void merge_into_left(std::size_t right);
  void shrink(std::size_t block);

  std::vector<Entry> directory_;
  std::size_t size_ = 0;
  std::uint64_t version_ = 0;
};

}  // namespace host::mom
