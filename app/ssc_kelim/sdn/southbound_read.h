// Bounds-checked reads of untrusted southbound messages: a field beyond the end of the message reads as 0. Any thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "southbound.h"

namespace southbound {

// The length that the message gives in its header, which is how many bytes it has; 0 for null.
inline std::uint16_t message_len(const void *msg) {
  return msg != nullptr ? get<std::uint16_t>(msg, kLen) : std::uint16_t{0};
}

inline std::span<const std::byte> message_bytes(const void *msg) {
  return {static_cast<const std::byte *>(msg), message_len(msg)};
}

// The value at `offset`, zero-filled beyond the end of the bytes.
template <typename T>
T read(std::span<const std::byte> from, std::size_t offset) {
  T value{};
  if (offset < from.size()) std::memcpy(&value, from.data() + offset, std::min(sizeof value, from.size() - offset));
  return value;
}

}  // namespace southbound
