// How long a Redis server takes to answer. Loop's thread.
#pragma once

#include "host/base/histogram.h"

namespace mom {

struct RoundTrips {
  host::Histogram piped;     // of commands that nobody waits for; one at a time is measured on each connection
  host::Histogram blocking;  // of those that the loop waits for
};
inline RoundTrips round_trips;

}  // namespace mom
