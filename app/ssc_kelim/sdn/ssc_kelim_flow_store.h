// Storing a flow record, once its ports have passed the check.
//
// Thread: main SDN thread.
#pragma once

#include <cstdint>

#include "s_policy_kelim.pb-c.h"

// Check whether a flow may be stored. They look its ports up and change nothing; physical ids are only logged.
// In port: 0, QX_INVALID without flow data, QX_UNSUPPORTED for an interface that cannot be matched on, or the lookup's code.
std::int32_t ssc_kelim_pick_out_inport_phyid(const SPolicyKelim__Flow *flow);
// Output ports: 0, or QX_INVALID without flow data. A port that does not resolve is logged and passes.
std::int32_t ssc_kelim_pick_out_outport_phyid(const SPolicyKelim__Flow *flow);

// Stores a flow record that passes both checks, with overwrite tag `ow`. 0, or the code of the step that failed, after a line
// under the name of `caller`.
std::int32_t ssc_sdn_store_flow(const SPolicyKelim__Flow *flow, std::int64_t ow, const char *caller);
