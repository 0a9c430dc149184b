// What comes back of flows and meters beside the daemon's own replies, laid out like these.
#pragma once

#include <cstdint>

namespace host::of_ss {

// What the programming service says of a flow that failed (answers.h): a flow result of a type that the daemon does not have.
inline constexpr std::uint16_t kFlowAnswer = 0xff00;

// The same for what it tells of counters: those of a flow have changed; all have been looked at once more.
inline constexpr std::uint16_t kFlowMoved = 0xff01, kRoundCounted = 0xff02;

// A bit of the result code of a flow or a meter: it failed while a database was away or refused writes.
inline constexpr std::uint32_t kUndecided = 1U << 31;

}  // namespace host::of_ss
