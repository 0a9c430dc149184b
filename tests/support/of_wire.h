// OpenFlow 1.3 messages for tests, written by hand from the standard and independent of the code under test.
#pragma once

#include <span>
#include <sstream>
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

// The number at `at`; missing bytes count as 0.
inline std::uint64_t get(std::span<const std::byte> from, std::size_t at, int width) {
  std::uint64_t value = 0;
  for (std::size_t i = at; i < at + width; ++i)
    value = value << 8 | (i < from.size() ? std::to_integer<std::uint64_t>(from[i]) : 0);
  return value;
}

// Numbers, each in the width of its type.
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

// An ofp_match of type OXM with the given fields, unchecked.
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

// The name of an error message; "" for any other message. The table lists each type's prefix with its codes, from 0.
inline std::string error_of(const Message &m) {
  static constexpr const char *kNames[][2] = {
      {"OFPHFC_", "INCOMPATIBLE EPERM"},
      {"OFPBRC_",
       "BAD_VERSION BAD_TYPE BAD_MULTIPART BAD_EXPERIMENTER BAD_EXP_TYPE EPERM BAD_LEN BUFFER_EMPTY BUFFER_UNKNOWN BAD_TABLE_ID "
       "IS_SLAVE BAD_PORT BAD_PACKET MULTIPART_BUFFER_OVERFLOW"},
      {"OFPBAC_",
       "BAD_TYPE BAD_LEN BAD_EXPERIMENTER BAD_EXP_TYPE BAD_OUT_PORT BAD_ARGUMENT EPERM TOO_MANY BAD_QUEUE BAD_OUT_GROUP "
       "MATCH_INCONSISTENT UNSUPPORTED_ORDER BAD_TAG BAD_SET_TYPE BAD_SET_LEN BAD_SET_ARGUMENT"},
      {"OFPBIC_",
       "UNKNOWN_INST UNSUP_INST BAD_TABLE_ID UNSUP_METADATA UNSUP_METADATA_MASK BAD_EXPERIMENTER BAD_EXP_TYPE BAD_LEN EPERM"},
      {"OFPBMC_",
       "BAD_TYPE BAD_LEN BAD_TAG BAD_DL_ADDR_MASK BAD_NW_ADDR_MASK BAD_WILDCARDS BAD_FIELD BAD_VALUE BAD_MASK BAD_PREREQ "
       "DUP_FIELD EPERM"},
      {"OFPFMFC_", "UNKNOWN TABLE_FULL BAD_TABLE_ID OVERLAP EPERM BAD_TIMEOUT BAD_COMMAND BAD_FLAGS"},
      {"OFPGMFC_",
       "GROUP_EXISTS INVALID_GROUP WEIGHT_UNSUPPORTED OUT_OF_GROUPS OUT_OF_BUCKETS CHAINING_UNSUPPORTED WATCH_UNSUPPORTED LOOP "
       "UNKNOWN_GROUP CHAINED_GROUP BAD_TYPE BAD_COMMAND BAD_BUCKET BAD_WATCH EPERM"},
      {"OFPPMFC_", "BAD_PORT BAD_HW_ADDR BAD_CONFIG BAD_ADVERTISE EPERM"},
      {"OFPTMFC_", "BAD_TABLE BAD_CONFIG EPERM"},
      {"OFPQOFC_", "BAD_PORT BAD_QUEUE EPERM"},
      {"OFPSCFC_", "BAD_FLAGS BAD_LEN EPERM"},
      {"OFPRRFC_", "STALE UNSUP BAD_ROLE"},
      {"OFPMMFC_",
       "UNKNOWN METER_EXISTS INVALID_METER UNKNOWN_METER BAD_COMMAND BAD_FLAGS BAD_RATE BAD_BURST BAD_BAND BAD_BAND_VALUE "
       "OUT_OF_METERS OUT_OF_BANDS"},
      {"OFPTFFC_", "BAD_TABLE BAD_METADATA BAD_TYPE BAD_LEN BAD_ARGUMENT EPERM"},
  };
  if (m.size() < 12 || get(m, 1, 1) != 1) return "";
  const std::uint64_t type = get(m, 8, 2), code = get(m, 10, 2);
  std::istringstream names(type < std::size(kNames) ? kNames[type][1] : "");
  std::string name;
  for (std::uint64_t i = 0; i <= code && names; ++i) names >> name;
  return names ? kNames[type][0] + name : std::to_string(type) + "/" + std::to_string(code);
}
inline Message data_of(const Message &error) {
  return Message(error.begin() + 12, error.end());
}

inline Message hello() {
  return hex("04000010 00000001 00010008 00000010");
}
inline Message barrier(std::uint32_t xid) {
  return message(20, xid);
}

}  // namespace of_wire
