// The key of an object: the fields of its `index` record, in order, as bytes whose memcmp order is the order of the fields
// (integers big-endian with the sign flipped, text with a closing zero).
//
// The first 16 bytes live in two words, so that every key made of integers is compared in two instructions and needs no separate
// memory; the rest of a longer key (text) follows in `tail`. Plain value, any thread.
#pragma once

#include <compare>
#include <cstdint>
#include <string>

namespace host::mom {

struct KeyHead {
  std::uint64_t high = 0;
  std::uint64_t low = 0;
  auto operator<=>(const KeyHead &) const = default;
};

struct Key {
  KeyHead head;
  std::string tail;  // the bytes after the sixteenth
  auto operator<=>(const Key &) const = default;
};

inline constexpr std::size_t kKeyHeadSize = 16;
inline constexpr std::size_t kKeyTailMax = 4096;  // a longer key is a malformed argument

}  // namespace host::mom
