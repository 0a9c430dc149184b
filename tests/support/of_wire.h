// OpenFlow 1.3 messages for tests, written by hand from the standard: what stands here knows nothing of the code under test.
#pragma once

#include <span>
#include <string>

#include "support/flow_bytes.h"

namespace of_wire {

using Message = flow_bytes::Bytes;
using flow_bytes::hex, flow_bytes::operator+;

inline std::string to_hex(std::span<const std::byte> bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (const std::byte b : bytes) out += {kDigits[std::uint8_t(b) >> 4], kDigits[std::uint8_t(b) & 15]};
  return out;
}

// Numbers, each with its width in bytes.
inline Message pack(std::initializer_list<std::pair<std::uint64_t, int>> numbers) {
  Message out;
  for (const auto &[value, width] : numbers)
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) out.push_back(std::byte(value >> shift));
  return out;
}

// The number there; what is missing of it counts as 0.
inline std::uint64_t get(std::span<const std::byte> from, std::size_t at, int width) {
  std::uint64_t value = 0;
  for (std::size_t i = at; i < at + width; ++i)
    value = value << 8 | (i < from.size() ? std::to_integer<std::uint64_t>(from[i]) : 0);
  return value;
}

// Numbers in their own widths.
template <typename... Number>
Message be(Number... numbers) {
  return (pack({{numbers, sizeof numbers}}) + ...);
}

inline void append(Message &left, const Message &right) {
  left.insert(left.end(), right.begin(), right.end());
}

inline Message message(std::uint8_t type, std::uint32_t xid, const Message &body = {}) {
  return pack({{4, 1}, {type, 1}, {8 + body.size(), 2}, {xid, 4}}) + body;
}

// ofp_match of type OXM with the fields as they stand.
inline Message match(const Message &fields) {
  Message out = pack({{1, 2}, {4 + fields.size(), 2}}) + fields;
  out.resize((out.size() + 7) / 8 * 8);
  return out;
}

inline Message instruction(std::uint16_t type, const Message &actions) {
  return pack({{type, 2}, {8 + actions.size(), 2}, {0, 4}}) + actions;
}
inline Message apply(const Message &actions) {
  return instruction(4, actions);
}

inline Message output(std::uint32_t port, std::uint16_t max_len = 0xffff) {
  return pack({{0, 2}, {16, 2}, {port, 4}, {max_len, 2}, {0, 6}});
}

struct FlowMod {
  std::uint32_t xid = 1;
  std::uint8_t command = 0, table = 0;
  std::uint16_t priority = 100, flags = 0, idle = 0, hard = 0;
  std::uint64_t cookie = 0, cookie_mask = 0;
  std::uint32_t buffer = 0xffffffff, out_port = 0xffffffff, out_group = 0xffffffff;
  Message fields = {};  // of the match
  Message instructions = {};
};

inline Message flow_mod(const FlowMod &f) {
  const Message head =
      be(f.cookie, f.cookie_mask, f.table, f.command, f.idle, f.hard, f.priority, f.buffer, f.out_port, f.out_group, f.flags) +
      Message(2);
  return message(14, f.xid, head + match(f.fields) + f.instructions);
}

// An add that matches on in_port 1, eth_type 0x0800 and the destination, with an output to port 2.
inline FlowMod ipv4_flow(std::uint32_t destination, std::uint32_t xid = 1) {
  FlowMod f;
  f.xid = xid;
  f.fields = hex("80000004 00000001 80000a02 0800 80001804") + pack({{destination, 4}});
  f.instructions = apply(output(2));
  return f;
}

inline Message hello() {
  return hex("04000010 00000001 00010008 00000010");
}
inline Message barrier(std::uint32_t xid) {
  return message(20, xid);
}

}  // namespace of_wire
