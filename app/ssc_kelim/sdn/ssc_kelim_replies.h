// Messages to the controller side: replies, refusals and the capacity notification. (The packed report of counter changes is sent
// by ssc_kelim_adapt.)
//
// A message is copied before the call returns. Thread: any, unless noted.
#pragma once

#include <cstdint>

#include "kelim/common/kelim_debug.h"

// ---- protocol version and table property, echoed in every reply; 0 until an open message sets them

// Values in replies: those of the latest open or close message, once its handler has run.
std::uint16_t ssc_sdn_get_sdn_vers();
void ssc_sdn_set_sdn_vers(std::uint16_t version);
std::uint16_t ssc_sdn_get_sdn_tbl_pro();
void ssc_sdn_set_sdn_tbl_pro(std::uint16_t table_property);

// Values in refusals, cut to 16 bits: those of the latest open message, from its arrival on.
extern kelim::Word<std::uint32_t> g_lib_fp_sdn_vers;
extern kelim::Word<std::uint32_t> g_lib_fp_sdn_tbl_pro;

// ---- replies

// A flow has failed. The code itself is not sent: 14 and QX_NO_ROOM become "out of resources", everything else "failed".
void sdn_send_flow_ret_val_2_proxy(std::uint32_t vsd_id, std::uint64_t flow_index, std::int32_t ret_val);

// A meter has failed: result 0 for 14 and QX_NO_ROOM, 1 for every other code.
void sdn_send_meter_ret_val_2_proxy(std::uint32_t vsd_id, std::uint32_t meter_id, std::int32_t ret_val);

// The counters of one flow: the running totals, not the last change.
void ssc_sdn_reply_statistic(std::uint64_t flow_index, std::uint64_t packets, std::uint64_t bytes);

// Answers the 24-byte barrier request. Main SDN thread.
void ssc_sdn_reply_barrier_request(const void *request);
// Prints the request's BARRIER line under the name of `caller`.
void ssc_sdn_trace_barrier(const void *request, const char *caller);

// ---- refusals: the request got no further than the southbound layer

void libproxy_fp_sdn_refuse_flow(std::uint64_t flow_index);
void libproxy_fp_sdn_refuse_meter(std::uint32_t meter_id);
void libproxy_fp_sdn_refuse_statistic(std::uint64_t flow_index);

// ---- towards the library

// Tells the controller side the capacity of the flow table. Result of of_ss_send_msg.
std::int32_t libproxy_fp_sdn_flow_table_capacity_notify();

// Sends a finished reply. Result of of_ss_send_msg, QX_INVALID for null.
std::int32_t libproxy_fp_sdn_send_ret_val(const void *msg, std::uint32_t len);

// For tests only: versions and table properties back to 0.
void ssc_kelim_replies_reset_for_tests();
