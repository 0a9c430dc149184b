// A hash table of slot numbers: open addressing with linear probing, no tombstones. It grows incrementally, so that no insert
// takes long, whatever the size. Not thread-safe.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

namespace host::of_ss {

inline constexpr std::uint32_t kNoSlot = ~std::uint32_t{0};

// `Hash` computes the hash of the entry in a slot.
class SlotIndex {
 public:
  // The slot with this hash for which `match` holds; kNoSlot when there is none.
  template <typename Match>
  std::uint32_t find(std::uint32_t hash, Match &&match) const {
    const std::uint32_t slot = now_.find(hash, match);
    return slot != kNoSlot || before_.size() == 0 ? slot : before_.find(hash, match);
  }
  template <typename Hash>
  void insert(std::uint32_t slot, Hash &&hash_of) {
    if (now_.size() * 7 <= (count_ + 1) * 10) grow();
    move_some(hash_of);
    now_.place(slot, hash_of(slot));
    ++count_;
  }
  template <typename Hash>
  void erase(std::uint32_t slot, Hash &&hash_of) {
    const std::uint32_t hash = hash_of(slot);
    holder(slot, hash).erase(slot, hash, hash_of);
    --count_;
  }
  void replace(std::uint32_t slot, std::uint32_t by, std::uint32_t hash) {
    Cells &cells = holder(slot, hash);
    cells.set(cells.position(slot, hash), by);
  }
  std::size_t size() const { return count_; }
  // Announces a find or an insert with this hash, so that the memory is there by then.
  void prefetch(std::uint32_t hash) const { now_.prefetch(hash); }

 private:
  // Places are counted from `start`, and those before `moved` are empty: their contents have moved to the larger table, or stand
  // at `moved` or later. A cell holds the complement of a slot, so that zero means empty and a large table begins as untouched
  // pages.
  class Cells {
   public:
    Cells() = default;
    explicit Cells(std::size_t size)
        : cells_(static_cast<std::uint32_t *>(std::calloc(size, sizeof(std::uint32_t)))), size_(size) {
      if (!cells_) throw std::bad_alloc();
    }
    std::size_t size() const { return size_; }
    std::uint32_t at(std::size_t place) const { return ~cells_[(place + start) & mask()]; }
    void set(std::size_t place, std::uint32_t slot) { cells_[(place + start) & mask()] = ~slot; }
    std::size_t mask() const { return size_ - 1; }
    void prefetch(std::uint32_t hash) const {
      if (size_ > 0) __builtin_prefetch(&cells_[hash & mask()]);
    }
    std::size_t home(std::uint32_t hash) const { return std::max((hash - start) & mask(), moved); }

    template <typename Match>
    std::uint32_t find(std::uint32_t hash, Match &&match) const {
      if (size_ == 0) return kNoSlot;
      for (std::size_t i = home(hash);; ++i)
        if (const std::uint32_t slot = at(i); slot == kNoSlot || match(slot)) return slot;
    }
    std::size_t position(std::uint32_t slot, std::uint32_t hash) const {
      std::size_t i = home(hash);
      while (at(i) != slot) ++i;
      return i;
    }
    void place(std::uint32_t slot, std::uint32_t hash) {
      std::size_t i = home(hash);
      while (at(i) != kNoSlot) ++i;
      set(i, slot);
    }
    template <typename Hash>
    void erase(std::uint32_t slot, std::uint32_t hash, Hash &&hash_of) {
      std::size_t hole = position(slot, hash);
      for (std::size_t i = hole + 1; at(i) != kNoSlot; ++i) {
        if (((i - home(hash_of(at(i)))) & mask()) < i - hole) continue;
        set(hole, at(i));
        hole = i;
      }
      set(hole, kNoSlot);
    }

    std::size_t start = 0, moved = 0;

   private:
    struct Free {
      void operator()(std::uint32_t *cells) const { std::free(cells); }
    };
    std::unique_ptr<std::uint32_t[], Free> cells_;
    std::size_t size_ = 0;
  };

  // The table that holds the slot.
  Cells &holder(std::uint32_t slot, std::uint32_t hash) {
    const auto same = [slot](std::uint32_t other) { return other == slot; };
    return before_.size() == 0 || now_.find(hash, same) == slot ? now_ : before_;
  }
  // The slots stay in the smaller table and are moved piece by piece by later inserts. The move ends long before the larger table
  // is full, which takes as many inserts as there are slots.
  void grow() {
    before_ = std::exchange(now_, Cells(now_.size() ? now_.size() * 2 : 64));
    while (before_.size() > 0 && before_.at(0) != kNoSlot) ++before_.start;
  }
  template <typename Hash>
  void move_some(Hash &&hash_of) {
    for (int n = 0; n < kMovedAtOnce && before_.size() > 0; ++n) {
      const std::uint32_t slot = before_.at(before_.moved);
      before_.set(before_.moved, kNoSlot);
      if (slot != kNoSlot) now_.place(slot, hash_of(slot));
      if (++before_.moved == before_.size()) before_ = {};
    }
  }

  static constexpr int kMovedAtOnce = 4;  // places examined per insert
  Cells now_, before_;
  std::size_t count_ = 0;
};

}  // namespace host::of_ss
