// The host's clock: CLOCK_MONOTONIC, which tests can stop and warp.
//
// Timers, qx_sleep_ms, qx_monotime and every time-out of the host run on it. Threads: any thread.
#pragma once

#include <chrono>
#include <cstdint>

namespace host::clock {

using Time = std::chrono::nanoseconds;  // since an arbitrary start

Time now();

// The offset from the host's clock to Unix time, as the time of day is currently set.
Time unix_offset();

// Tests: moves the clock forward. Timers that become due run in the next turn of the loop; sleepers wake.
void warp(std::chrono::milliseconds by);

// Tests: stops the clock, so that only warp moves it; resume lets it run on from there.
void stop();
void resume();

// True while the clock is stopped.
bool stopped();

// Sleeps until the clock reaches `deadline`. Not on the loop's thread.
void sleep_until(Time deadline);

// Has every timer queue read the clock again; the runtime's part of stop, warp and resume. Any thread.
void changed();

// Tests: the number of sleeps begun. After a warp, one more means that the sleeper woke, did its work and went back to sleep.
std::uint64_t sleeps();

}  // namespace host::clock
