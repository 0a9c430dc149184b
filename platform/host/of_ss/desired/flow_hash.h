// The hashes under which the flow table finds its entries. Pure functions, any thread.
#pragma once

#include <cstdint>

#include "host/of_ss/wire/wire.h"
#include "southbound.h"

namespace host::of_ss {

inline std::uint32_t fold(std::uint64_t h) {
  return static_cast<std::uint32_t>(h ^ h >> 32);
}

inline std::uint64_t mix(std::uint64_t h, std::uint64_t word) {
  h = (h ^ word) * 0x9e3779b97f4a7c15u;
  return h ^ h >> 29;
}

// The hash of a table and a southbound match, whose slots are whole 8-byte words.
inline std::uint32_t match_hash(std::uint8_t table_id, Bytes match) {
  std::uint64_t h = mix(table_id, match.size());
  for (std::size_t at = 0; at + 8 <= match.size(); at += 8) h = mix(h, southbound::get<std::uint64_t>(match.data(), at));
  return fold(h);
}

}  // namespace host::of_ss
