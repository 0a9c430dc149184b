// A set of keys. Keys that are made of integers alone stand in a flat table; neighbours stand near each other there, so that a
// burst of ascending keys touches each cache line once. 32 to 64 bytes a key. Plain value, one thread.
#pragma once

#include <set>
#include <vector>

#include "host/mom/key.h"

namespace mom {

class KeySet {
 public:
  bool contains(const Key &key) const;
  void insert(const Key &key);
  void erase(const Key &key);
  void clear() { *this = {}; }

 private:
  static bool is_flat(const Key &key) { return key.tail.empty() && key.head != KeyHead{}; }
  size_t home(const KeyHead &head) const;
  size_t place(const KeyHead &head) const;
  void grow();

  std::vector<KeyHead> slots_;  // a power of two of them, at most half taken; all zeros is free
  size_t taken_ = 0;
  std::set<Key> others_;
};

}  // namespace mom
