// Handlers of all requests other than flows and data synchronisation.
//
// Thread: main SDN thread.
#pragma once

#include <cstdint>

struct libss_pthrd_hdl;

// ---- meters

void ssc_sdn_add_meter_handler(libss_pthrd_hdl *hdl);
void ssc_sdn_del_meter_handler(libss_pthrd_hdl *hdl);

// ---- controller connection

void ssc_sdn_enable_msg_handler(libss_pthrd_hdl *hdl);
void ssc_sdn_disable_msg_handler(libss_pthrd_hdl *hdl);

// Adopts the version and table property of an open or close message. 0; QX_INVALID without interfaces; QX_NO_MEMORY;
// QX_UNSUPPORTED for an unknown type.
std::int32_t ssc_sdn_proc_enable_msg(std::uint32_t vsd_id, const void *msg);

// Prints a list of interface indexes on standard output. 0.
std::int32_t ssc_sdn_dump_sdn_ifx_array(const std::uint32_t *ifx, std::uint32_t count);

// ---- barriers

void ssc_sdn_add_barrier_handler(libss_pthrd_hdl *hdl);

// A copy of the latest request that was answered without waiting, kept for diagnostics until the next one replaces it; null
// before the first.
extern void *g_ssc_sdn_answered_barrier;

// ---- bulk removal

void ssc_sdn_del_all_flow_handler(libss_pthrd_hdl *hdl);
void ssc_sdn_del_all_handler(libss_pthrd_hdl *hdl);

// ---- statistics

void ssc_sdn_get_statistic_val_handler(libss_pthrd_hdl *hdl);
void ssc_sdn_flowcnt_cfg_handler(libss_pthrd_hdl *hdl);

// Replies with the counters of one flow, or of every flow that has a counter record. A flow without one gets no reply. 0.
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
void ssc_kelim_requests_reset_for_tests();
