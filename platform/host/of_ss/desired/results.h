// Results of flows and meters beside the daemon's own replies, in the same layout.
#pragma once

#include <cstdint>

namespace host::of_ss {

// The programming service's answer for a failed flow (answers.h): a flow result with a type that the daemon does not use.
inline constexpr std::uint16_t kFlowAnswer = 0xff00;

// Likewise for its reports on counters: those of a flow have changed; all have been read once more.
inline constexpr std::uint16_t kFlowMoved = 0xff01, kRoundCounted = 0xff02;

// A bit of the result code of a flow or a meter: it failed while a database was away or refused writes.
inline constexpr std::uint32_t kUndecided = 1U << 31;

}  // namespace host::of_ss
