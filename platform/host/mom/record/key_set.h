// A set of keys. Keys made of integers alone are kept in open-addressing tables, where 64 neighbouring keys share a slot of 24
// bytes: ascending keys take a byte or less each, a key without neighbours 48 to 96 bytes. The keys are spread over several
// tables that grow independently, so that no insertion moves more than a small part of them. Plain value, one thread.
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
  // The keys that differ from `first` only in the lowest bits of its first word, which are zero.
  struct Neighbours {
    KeyHead first;
    std::uint64_t present = 0;  // a bit for each; all zeros in a free slot
  };
  class Flat {
   public:
    bool contains(const KeyHead &head) const;
    void insert(const KeyHead &head);
    void erase(const KeyHead &head);

   private:
    std::size_t home(const KeyHead &first) const;
    std::size_t place(const KeyHead &first) const;
    void close_gap(std::size_t gap);
    void grow();

    std::vector<Neighbours> slots_;  // a power of two of them, at most half taken
    std::size_t taken_ = 0;
  };
  static constexpr std::size_t kTableBits = 6;

  static bool is_flat(const Key &key) { return key.tail.empty(); }
  static std::size_t table(const Key &key);

  std::array<Flat, std::size_t{1} << kTableBits> tables_;
  std::set<Key> others_;
};

}  // namespace host::mom
