// Service-chain flows: translates the access-control entries of the application's answer into the flow record.
//
// Thread: main SDN thread.
#pragma once

#include <cstdint>

#include "s_policy_kelim.pb-c.h"

// Writes the flow record (database 8, tag 2) that carries the entries of `rec`. A failure goes to
// ssc_sdn_process_flow_install_result.
void ssc_kelim_add_flow_to_ace(const SPolicyKelim__FlowToAce *rec);

// Deletes that flow record. 0, or QX_NOT_POSTED.
std::int32_t ssc_kelim_del_flow_to_ace(const SPolicyKelim__FlowToAce *rec);
