// The initialisation of the SDN layer.
#pragma once

#include <cstdint>

#include "qx_runtime.h"

// Brings up the SDN layer: cache, report thread, queue, handler list, southbound callbacks. It may run again after a reconnection
// to the database: everything that exists is kept, and only the queue is emptied. 0, QX_INVALID for null, or the failing step's
// code. Main SDN thread.
std::int32_t ssc_kelim_init(qx_global *global);

// For tests: no runtime and no handler list (a waiting request is dropped).
void ssc_kelim_init_reset_for_tests();
