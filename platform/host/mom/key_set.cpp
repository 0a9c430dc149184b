#include "host/mom/key_set.h"

#include <utility>

namespace mom {
namespace {

constexpr size_t kSmallest = 64;
constexpr uint64_t kNeighbours = 15;  // keys that differ in no other bits of their first word stand side by side

uint64_t mixed(uint64_t word) {
  word = (word ^ (word >> 32)) * 0xd6e8feb86659fd93U;
  return word ^ (word >> 32);
}

}  // namespace

size_t KeySet::home(const KeyHead &head) const {
  const uint64_t group = mixed((head.high & ~kNeighbours) * 0x9e3779b97f4a7c15U ^ head.low);
  return ((group & ~kNeighbours) | (head.high & kNeighbours)) & (slots_.size() - 1);
}

// Where the key stands, or the free slot where it belongs.
size_t KeySet::place(const KeyHead &head) const {
  size_t at = home(head);
  while (slots_[at] != head && slots_[at] != KeyHead{}) at = (at + 1) & (slots_.size() - 1);
  return at;
}

bool KeySet::contains(const Key &key) const {
  if (!is_flat(key)) return others_.contains(key);
  return !slots_.empty() && slots_[place(key.head)] == key.head;
}

void KeySet::insert(const Key &key) {
  if (!is_flat(key)) {
    others_.insert(key);
    return;
  }
  if (2 * (taken_ + 1) > slots_.size()) grow();
  KeyHead &slot = slots_[place(key.head)];
  taken_ += slot != key.head;
  slot = key.head;
}

void KeySet::grow() {
  const std::vector<KeyHead> before = std::exchange(slots_, std::vector<KeyHead>(slots_.empty() ? kSmallest : 2 * slots_.size()));
  for (const KeyHead &head : before) {
    if (head != KeyHead{}) slots_[place(head)] = head;
  }
}

// Closes the gap by moving back every later key of the run that may stand in it, so that searches need no marks of the dead.
void KeySet::erase(const Key &key) {
  if (!is_flat(key)) {
    others_.erase(key);
    return;
  }
  if (!contains(key)) return;
  const size_t mask = slots_.size() - 1;
  size_t gap = place(key.head);
  for (size_t at = (gap + 1) & mask; slots_[at] != KeyHead{}; at = (at + 1) & mask) {
    if (((at - home(slots_[at])) & mask) < ((at - gap) & mask)) continue;
    slots_[gap] = slots_[at];
    gap = at;
  }
  slots_[gap] = {};
  --taken_;
}

}  // namespace mom
