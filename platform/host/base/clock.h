// The host's clock: CLOCK_MONOTONIC, which tests stop and warp.
//
// Timers, qx_sleep_ms, qx_monotime and every time-out of the host run on it. Threads: any thread.
#pragma once

#include <chrono>
#include <cstdint>

namespace host::clock {

using Time = std::chrono::nanoseconds;  // since an arbitrary start

Time now();

// From the host's clock to Unix time, as the time of day is set now.
Time unix_offset();

// Tests: moves the clock forward. Timers that are due then run in the next turn of the loop, sleepers wake.
void warp(std::chrono::milliseconds by);

// Tests: stops the clock where it is, so that only warp moves it, and lets it go on from there.
void stop();
void resume();

// Whether the clock stands.
bool stopped();

// Sleeps until the clock reaches `deadline`. Not on the loop's thread.
void sleep_until(Time deadline);

// Has every timer queue look at the clock again; the runtime's part of stop, warp and resume. Any thread.
void changed();

// Tests: how many sleeps have begun. After a warp, one more says that the sleeper woke, did its work and lay down again.
std::uint64_t sleeps();

}  // namespace host::clock
