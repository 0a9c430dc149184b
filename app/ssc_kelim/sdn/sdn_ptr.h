// An owning pointer to a block of the checked allocator. Any thread.
#pragma once

#include <memory>

#include "kelim/common/kelim_debug.h"

struct sdn_free {
  void operator()(void *block) const { ssc_sdn_free(block); }
};
template <typename T>
using sdn_ptr = std::unique_ptr<T, sdn_free>;
