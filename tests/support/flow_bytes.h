// Flow-mods written out by hand: little-endian, every match field in a slot of a multiple of 8 bytes, then the instruction block
// and the actions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace flow_bytes {

using Bytes = std::vector<std::byte>;

inline Bytes operator+(Bytes left, const Bytes &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// Hexadecimal digits; blanks are ignored.
inline Bytes hex(std::string_view digits) {
  Bytes out;
  unsigned byte = 1;
  for (const char c : digits) {
    if (c == ' ') continue;
    byte = byte << 4 | static_cast<unsigned>(c <= '9' ? c - '0' : c - 'a' + 10);
    if (byte < 0x100) continue;
    out.push_back(static_cast<std::byte>(byte));
    byte = 1;
  }
  return out;
}

template <typename T>
Bytes le(T number) {
  Bytes out(sizeof number);
  std::memcpy(out.data(), &number, sizeof number);
  return out;
}

// A 16-bit number of the message, in place.
inline void put16(Bytes &message, std::size_t offset, std::size_t number) {
  std::memcpy(message.data() + offset, &number, 2);
}

inline Bytes padded(Bytes bytes) {
  bytes.resize((bytes.size() + 7) / 8 * 8);
  return bytes;
}

// A match field with its payload (value, then mask) as laid out in memory.
inline Bytes field(std::uint32_t header, const Bytes &payload) {
  return padded(le(header) + payload);
}

// An action whose header says `len` bytes (0: its true length), padded to a multiple of 8.
inline Bytes action(std::uint16_t type, const Bytes &body, std::uint16_t len = 0) {
  return padded(le(type) + le(static_cast<std::uint16_t>(len ? len : 4 + body.size())) + body);
}
inline Bytes output(std::uint32_t port) {
  return action(0, le(port) + Bytes(8));
}
inline Bytes set_queue(std::uint32_t queue) {
  return action(21, le(queue));
}
inline Bytes set_field(std::uint32_t header, const Bytes &value) {
  const auto payload = padded(le(header) + value + Bytes(4));
  return action(25, Bytes(payload.begin(), payload.end() - 4));
}

struct Flow {
  std::uint64_t index = 7;
  Bytes match;
  Bytes actions;
  std::int64_t actions_len = -1;  // length in the message; -1: the true one
  bool instructions = true;
};

inline Bytes flow_mod(const Flow &flow) {
  Bytes message = le(std::uint16_t{10}) + le(std::uint16_t{4}) + Bytes(4) + le(flow.index) + Bytes(24);
  message = message + le(std::uint16_t{1}) + le(static_cast<std::uint16_t>(flow.match.size())) + flow.match;
  // The instruction block begins at 40 + (match length + 11 rounded down to a multiple of 8).
  message.resize(40 + (flow.match.size() + 11) / 8 * 8);
  const auto listed = flow.actions_len < 0 ? static_cast<std::int64_t>(flow.actions.size()) : flow.actions_len;
  if (flow.instructions) message = message + le(static_cast<std::int32_t>(listed)) + Bytes(4) + flow.actions;
  put16(message, 4, message.size());
  return message;
}

}  // namespace flow_bytes
