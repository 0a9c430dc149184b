// Handlers that add and delete flows, and the processing of a flow's install result.
//
// Thread: main SDN thread.
#pragma once

#include <cstdint>

#include "s_policy_kelim.pb-c.h"

struct libss_pthrd_hdl;

void ssc_sdn_add_flow_handler(libss_pthrd_hdl *hdl);
void ssc_sdn_del_flow_handler(libss_pthrd_hdl *hdl);

// Applies the outcome of one flow (0 installed): marks its queue node, pops finished nodes in order, and removes all traces of a
// failed flow.
void ssc_sdn_process_flow_install_result(std::uint32_t vsd_id, std::uint64_t flow_index, std::int32_t result);

// The same for a status record of the programming service (result 0 installed, 1 out of resources, 2 failed), which is mirrored
// to the service-chain application first.
void ssc_sdn_msg_queue_proc_flow_install_cb(const SPolicyKelim__FlowSta *sta, std::uint32_t result);
