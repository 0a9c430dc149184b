// Reading southbound messages that are not trusted: a field that lies beyond the message reads as 0. Any thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "southbound.h"

namespace southbound {

// What the message says of its own length, which is the number of bytes there are; 0 for none.
inline std::uint16_t message_len(const void *msg) {
  return msg != nullptr ? get<std::uint16_t>(msg, kLen) : std::uint16_t{0};
}

inline std::span<const std::byte> message_bytes(const void *msg) {
  return {static_cast<const std::byte *>(msg), message_len(msg)};
}

// What lies at `offset`, zero-filled where the bytes end.
template <typename T>
T read(std::span<const std::byte> from, std::size_t offset) {
  T value{};
  if (offset < from.size()) std::memcpy(&value, from.data() + offset, std::min(sizeof value, from.size() - offset));
  return value;
}

}  // namespace southbound
