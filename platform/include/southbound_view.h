// Bounds-checked views of southbound messages (southbound.h): no read leaves the bytes. C++ only; in C this header is empty.
//
// Match fields and actions are lists of entries whose first word gives their length. One walk serves both:
//
//   for (auto at = view.match(); at.more(); at.next()) {
//     if (!at.whole()) ...   // this entry, or its end, lies outside the list or the message: nothing after it can be found
//     ... at.word(), at.body() ...
//   }
//
// Only whole() entries may be read beyond word() or passed with next(). Padding behind the last entry may be missing.
//
// Thread: any; views borrow the bytes.
#pragma once

#include "southbound.h"

#ifdef __cplusplus

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace southbound {

using bytes = std::span<const std::byte>;

// The length from the message's header, which is its size in bytes; 0 for null.
inline std::uint16_t message_len(const void *msg) {
  return msg != nullptr ? get<std::uint16_t>(msg, kLen) : std::uint16_t{0};
}

inline bytes message_bytes(const void *msg) {
  return {static_cast<const std::byte *>(msg), message_len(msg)};
}

// The value at `offset`, zero-filled beyond the end of the bytes.
template <typename T>
T read(bytes from, std::size_t offset) {
  T value{};
  if (offset < from.size()) std::memcpy(&value, from.data() + offset, std::min(sizeof value, from.size() - offset));
  return value;
}

// `Measure` computes an entry's length and the step to the next entry from its first word.
template <typename Measure>
class walk {
 public:
  explicit walk(bytes list) : walk(list, list.size()) {}
  // `from` runs to the end of the message; `listed` is the list's length as the message states it.
  walk(bytes from, std::size_t listed) : rest_(from.first(std::min(from.size(), listed))), missing_(listed - rest_.size()) {}

  bool more() const { return !rest_.empty() || missing_ > 0; }
  std::uint32_t word() const { return read<std::uint32_t>(rest_, 0); }
  bool whole() const {
    return rest_.size() >= sizeof(std::uint32_t) && Measure::step(word()) > 0 && Measure::length(word()) <= rest_.size();
  }
  // The entry from its first word to the next entry.
  bytes entry() const { return rest_.first(std::min(rest_.size(), Measure::step(word()))); }
  bytes body() const { return entry().subspan(sizeof(std::uint32_t)); }
  void next() { rest_ = rest_.subspan(entry().size()); }

 private:
  bytes rest_;
  std::size_t missing_;  // listed bytes beyond the end of the message
};

struct oxm_measure {
  static std::size_t length(std::uint32_t header) { return sizeof header + (header & 0xff); }
  static std::size_t step(std::uint32_t header) { return oxm_slot(header); }
};
struct action_measure {
  static std::size_t length(std::uint32_t word) { return word >> 16; }
  static std::size_t step(std::uint32_t word) { return action_step(static_cast<std::uint16_t>(word >> 16)); }
};
using match_walk = walk<oxm_measure>;
using action_walk = walk<action_measure>;

class flow_view {
 public:
  explicit flow_view(bytes flow_mod) : bytes_(flow_mod) {}
  flow_view(const void *msg, std::size_t len) : bytes_(static_cast<const std::byte *>(msg), len) {}

  // False if the message ends before its match fields.
  bool has_match() const { return bytes_.size() >= kFlowOxm; }
  std::uint16_t match_len() const { return read<std::uint16_t>(bytes_, kFlowMatchLen); }
  match_walk match() const { return {tail(kFlowOxm), match_len()}; }

  std::size_t instruction_offset() const { return flow_instruction_offset(match_len()); }
  // True if, by its stated length, the message ends where the instruction block would begin.
  bool ends_at_match() const { return read<std::uint16_t>(bytes_, kLen) == instruction_offset(); }
  // The stated length of the action list; 0 if the message ends before it.
  std::int32_t actions_len() const { return read<std::int32_t>(bytes_, instruction_offset()); }
  // The list's bytes as far as the message goes; none if it ends before the list.
  bytes action_bytes() const {
    const bytes from = tail(instruction_offset() + kInstructionLen);
    return from.first(std::min(from.size(), static_cast<std::size_t>(std::max(actions_len(), std::int32_t{0}))));
  }
  // For a message that ends before its list, a walk over one entry that is not whole.
  action_walk actions() const {
    const std::size_t first = instruction_offset() + kInstructionLen;
    if (bytes_.size() < first) return {bytes{}, 1};
    const std::int32_t listed = actions_len();
    return {tail(first), listed > 0 ? static_cast<std::size_t>(listed) : 0};
  }

 private:
  bytes tail(std::size_t offset) const { return bytes_.subspan(std::min(offset, bytes_.size())); }

  bytes bytes_;
};

}  // namespace southbound

#endif
