// What fuzzers check with.
#pragma once

#include <cstdlib>

inline void require(bool holds) {
  if (!holds) std::abort();
}
