// Resets the global state of the process to that of a new one.
#pragma once

#include "qx_runtime.h"

// Ends the runtime, if that has not been done, and resets faults, clock, taps, settings, registrations and the state of the
// daemon's modules. Loop's thread, or any thread without a loop.
void reset_process(qx_global *global = nullptr);
