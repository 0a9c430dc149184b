// Southbound callback layer: registers the daemon's sixteen callbacks with the OpenFlow service library, counts and logs every
// call and hands the request to its intake (ssc_kelim_init.h). It also owns the connection handshake, the capacity notification
// and the way replies go back. It keeps no queue and takes no lock.
//
// The callbacks run on the service-library thread. A message is read no further than its own length says; a field that lies
// beyond reads as 0, and the intake then refuses the message. Layouts: southbound.h.
#pragma once

#include <atomic>
#include <cstdint>

#include "kelim/common/kelim_debug.h"
#include "qx_runtime.h"

// Version and table property of the latest open message, 0 before the first; failure replies of this layer carry them (as 16
// bits).
extern kelim::Word<std::uint32_t> g_lib_fp_sdn_vers;
extern kelim::Word<std::uint32_t> g_lib_fp_sdn_tbl_pro;

// The two halves of the handshake; each goes from 0 to 1 once. Sequentially consistent: whichever half comes second sees the
// first.
extern std::atomic<std::uint32_t> is_pi_connected_flag;
extern std::atomic<std::uint32_t> is_framework_fetched_flag;

// Registers the callbacks, once a process. 0, or -4 for null. Main SDN thread.
std::int32_t libproxy_fp_sdn_dep_init(qx_global *global);

// The database has loaded its data: the other half of the handshake. Main SDN thread.
void libproxy_fp_sdn_ds_fetch();

// Tells the controller side how many flows there is room for. Result of of_ss_send_msg. Any thread.
std::int32_t libproxy_fp_sdn_flow_table_capacity_notify();

// Sends a finished reply; it is copied before the call returns. Result of of_ss_send_msg, -4 for null. Any thread.
std::int32_t libproxy_fp_sdn_send_ret_val(const void *msg, std::uint32_t len);

// The callbacks as registered with the library.
int libproxy_fp_sdn_op_flow(void *msg);
int libproxy_fp_sdn_open(void *msg);
int libproxy_fp_sdn_close(void *msg);
void libproxy_fp_sdn_del_all_flow();
int libproxy_fp_sdn_ds_start(void *msg);
int libproxy_fp_sdn_ds_end(void *msg);
int libproxy_fp_sdn_statistic(void *msg);
int libproxy_fp_sdn_op_meter(void *msg);
void libproxy_fp_sdn_establisth_connect();
int libproxy_fp_sdn_flowcount_config_para(void *msg);
int libproxy_fp_sdn_pkt_start(void *msg);
int libproxy_fp_sdn_pkt_end(void *msg);
int libproxy_fp_sdn_op_onc_info(void *msg);
int libproxy_fp_sdn_barrier(void *msg);
void libproxy_fp_sdn_del_all();

// For tests: flags, connection values and the once flag go back to their start.
void libproxy_fp_sdn_reset_for_tests();
