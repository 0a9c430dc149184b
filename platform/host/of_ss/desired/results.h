// The host's own reports about flows and meters, which reach the agent among the daemon's replies and in their layouts.
#pragma once

#include <cstdint>

namespace host::of_ss {

// The programming service's answer for a failed flow (answers.h): a flow result with a type that the daemon does not use.
inline constexpr std::uint16_t kFlowAnswer = 0xff00;

// A flow has matched nothing for its idle timeout: laid out like a statistics reply, with the final counters.
inline constexpr std::uint16_t kFlowIdle = 0xff01;

// A bit of the result code of a flow or a meter: it failed while a database was away or refused writes.
inline constexpr std::uint32_t kUndecided = 1U << 31;

}  // namespace host::of_ss
