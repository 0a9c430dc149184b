// What a process keeps outside of its objects, as a new process finds it.
#pragma once

#include "qx_runtime.h"

// Ends the runtime, unless that has been done, and takes back faults, clock, taps, settings, registrations and the state of the
// daemon's modules. Loop's thread, or any when there is no loop.
void reset_process(qx_global *global = nullptr);
