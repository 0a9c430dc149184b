// A set of keys. Keys made of integers alone are kept in open-addressing tables, where neighbouring keys share cache lines, so
// that a burst of ascending keys touches each line once. 32 to 64 bytes per key. The keys are spread over several tables that
// grow independently, so that no insertion moves more than a small part of them. Plain value, one thread.
#pragma once

#include <array>
#include <set>
#include <vector>

#include "host/mom/record/key.h"

namespace host::mom {

class KeySet {
 public:
  bool contains(const Key &key) const;
  void insert(const Key &key);
  void erase(const Key &key);
  void clear() { *this = {}; }

 private:
  class Flat {
   public:
    bool contains(const KeyHead &head) const { return !slots_.empty() && slots_[place(head)] == head; }
    void insert(const KeyHead &head);
    void erase(const KeyHead &head);

   private:
    std::size_t home(const KeyHead &head) const;
    std::size_t place(const KeyHead &head) const;
    void grow();

    std::vector<KeyHead> slots_;  // a power of two of them, at most half taken; a free one is all zeros
    std::size_t taken_ = 0;
  };
  static constexpr std::size_t kTableBits = 6;

  static bool is_flat(const Key &key) { return key.tail.empty() && key.head != KeyHead{}; }
  static std::size_t table(const Key &key);

  std::array<Flat, std::size_t{1} << kTableBits> tables_;
  std::set<Key> others_;
};

}  // namespace host::mom
