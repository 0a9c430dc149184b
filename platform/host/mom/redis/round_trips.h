// Histograms of the Redis server's response times. Loop's thread.
#pragma once

#include "host/base/histogram.h"

namespace host::mom {

struct RoundTrips {
  Histogram piped;     // of pipelined commands; each connection measures one at a time
  Histogram blocking;  // of commands that the loop waits for
};
inline RoundTrips round_trips;

}  // namespace host::mom
