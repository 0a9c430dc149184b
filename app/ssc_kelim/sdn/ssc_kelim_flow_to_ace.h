// Service-chain flows: from the access-control entries that the application answered to the flow record, and the port check that
// every flow record passes before it is stored.
//
// Thread: main SDN thread.
#pragma once

#include <cstdint>

#include "s_policy_kelim.pb-c.h"

// Writes the flow record (database 8, tag 2) that carries the entries of `rec`. A failure goes to
// ssc_sdn_process_flow_install_result.
void ssc_kelim_add_flow_to_ace(const SPolicyKelim__FlowToAce *rec);

// Deletes that flow record. 0, or -11.
std::int32_t ssc_kelim_del_flow_to_ace(const SPolicyKelim__FlowToAce *rec);

// Gatekeepers: may this flow be stored? They look the ports up and change nothing; the physical id is only logged.
// In port: 0, -4 without flow data, -20 for an interface that cannot be matched on, or the lookup's code.
std::int32_t ssc_kelim_pick_out_inport_phyid(const SPolicyKelim__Flow *flow);
// Output ports: 0, or -4 without flow data. A port that does not resolve is logged and passes.
std::int32_t ssc_kelim_pick_out_outport_phyid(const SPolicyKelim__Flow *flow);

// Stores a flow record that passes both checks, with overwrite tag `ow`. 0, or the code of the step that failed, after a line
// under the name of `caller`.
std::int32_t ssc_sdn_store_flow(const SPolicyKelim__Flow *flow, std::int64_t ow, const char *caller);

// Prints a list of interface indexes on standard output. 0.
std::int32_t ssc_sdn_dump_sdn_ifx_array(const std::uint32_t *ifx, std::uint32_t count);
