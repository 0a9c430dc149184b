// The owner's timer: the one that the runtime's owner arms under the runtime's own name. It is how the owner works off what other
// threads hand over to it, and with these calls it need not wait for its time.
#pragma once

#include <functional>

#include "host/base/histogram.h"

namespace host {

// Something was handed over that the owner's timer works off. `prompt`: the timer runs in the loop's next turn, through the
// ordinary timer queue, unless a test has stopped the clock. Calls before the timer runs cost one post between them. Any thread,
// after the hand-over.
void handed_to_owner(bool prompt);

// Has `ran` called after each run of the owner's timer, in the same turn; where no such timer is armed, for each hand-over in
// place of the run. Null takes it away, and so does the end of the runtime. Loop's thread.
void after_owner_timer(std::function<void()> ran);

// How long its runs took, since the process began. Loop's thread.
const Histogram &owner_timer_runs();

}  // namespace host
