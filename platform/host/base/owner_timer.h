// The owner's timer, which the runtime's owner arms under the runtime's own name to process the work that other threads hand
// over. With these calls the work need not wait for the timer's deadline.
#pragma once

#include <functional>

#include "host/base/histogram.h"

namespace host {

// Reports that work for the owner's timer was handed over. `prompt`: the timer runs in the loop's next turn, through the ordinary
// timer queue, unless a test has stopped the clock. Calls before the timer runs cost one post between them. Any thread, after the
// hand-over.
void handed_to_owner(bool prompt);

// Has `ran` called after each run of the owner's timer, in the same turn; while no such timer is armed, after each hand-over
// instead. Null removes it, as does the end of the runtime. Loop's thread.
void after_owner_timer(std::function<void()> ran);

// Durations of its runs since the start of the process. Loop's thread.
const Histogram &owner_timer_runs();

}  // namespace host
