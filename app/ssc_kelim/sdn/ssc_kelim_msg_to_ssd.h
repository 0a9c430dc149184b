// The handlers: what becomes of a request on the main SDN thread.
//
// Every handler owns the data of the node that it gets and releases it; the node itself belongs to the handler list. Flow
// handlers get a flow job, meter handlers a meter item, the others the plain copy of the message (delete-all, data-sync start and
// end: nothing).
//
// Thread: main SDN thread, unless noted.
#pragma once

#include <cstdint>

#include "s_policy_kelim.pb-c.h"

struct libss_pthrd_hdl;

// ---- flows

void ssc_sdn_add_flow_handler(libss_pthrd_hdl *hdl);
void ssc_sdn_del_flow_handler(libss_pthrd_hdl *hdl);

// The outcome of one flow (0 installed): marks its queue node, lets finished nodes leave the queue in order, and removes whatever
// a failed flow has left behind.
void ssc_sdn_process_flow_install_result(std::uint32_t vsd_id, std::uint64_t flow_index, std::int32_t result);

// The same for a status record of the programming service (result 0 installed, 1 out of resources, 2 failed), which is mirrored
// to the service-chain application first.
void ssc_sdn_msg_queue_proc_flow_install_cb(const SPolicyKelim__FlowSta *sta, std::uint32_t result);

// ---- meters

void ssc_sdn_add_meter_handler(libss_pthrd_hdl *hdl);
void ssc_sdn_del_meter_handler(libss_pthrd_hdl *hdl);

// ---- controller connection

void ssc_sdn_enable_msg_handler(libss_pthrd_hdl *hdl);
void ssc_sdn_disable_msg_handler(libss_pthrd_hdl *hdl);

// Takes over version and table property of an open or close message. 0; -4 without interfaces; -2; -20 for an unknown type.
std::int32_t ssc_sdn_proc_enable_msg(std::uint32_t vsd_id, const void *msg);

// ---- barriers

void ssc_sdn_add_barrier_handler(libss_pthrd_hdl *hdl);

// The copy of the latest request that was answered without waiting; null before the first. It stays until the next one replaces
// it, for diagnostics.
extern void *g_ssc_sdn_answered_barrier;

// ---- bulk removal

void ssc_sdn_del_all_flow_handler(libss_pthrd_hdl *hdl);
void ssc_sdn_del_all_handler(libss_pthrd_hdl *hdl);

// ---- statistics

void ssc_sdn_get_statistic_val_handler(libss_pthrd_hdl *hdl);
void ssc_sdn_flowcnt_cfg_handler(libss_pthrd_hdl *hdl);

// Answers one flow's counters, or those of every flow that has a counter record. A flow without one gets no answer. 0.
std::int32_t ssc_sdn_statistic_get_val(const void *request);

// ---- controller addresses

void ssc_sdn_add_onc_handler(libss_pthrd_hdl *hdl);
void ssc_sdn_del_onc_handler(libss_pthrd_hdl *hdl);

// ---- packet path

// Registers and withdraws the daemon as a packet-path client (database 0). 0, or the client's code. Also debug commands.
std::int32_t kelim_pkt_start();
std::int32_t kelim_pkt_end();

void ssc_sdn_pkt_start_handler(libss_pthrd_hdl *hdl);

// For tests only: data-sync stage and answered barrier back to the start.
void ssc_kelim_msg_to_ssd_reset_for_tests();
