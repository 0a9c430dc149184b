// Southbound callback layer: registers the daemon's sixteen callbacks with the OpenFlow service library, counts and logs every
// call and hands the request to its intake (ssc_kelim_intake.h). It also owns the connection handshake. It keeps no queue and
// takes no lock.
//
// The callbacks run on the service-library thread. A message is never read beyond its stated length; a field past the end reads
// as 0, and the intake then refuses the message. Layouts: southbound.h.
#pragma once

#include <atomic>
#include <cstdint>

#include "qx_runtime.h"

// The two halves of the handshake; each goes from 0 to 1 once. Sequentially consistent, so that the later half sees the earlier.
extern std::atomic<std::uint32_t> is_pi_connected_flag;
extern std::atomic<std::uint32_t> is_framework_fetched_flag;

// Registers the callbacks, once a process. 0, or QX_INVALID for null. Main SDN thread.
std::int32_t libproxy_fp_sdn_dep_init(qx_global *global);

// The database has loaded its data: the other half of the handshake. Main SDN thread.
void libproxy_fp_sdn_ds_fetch();

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

// For tests: resets the flags, the once flag and the replies.
void libproxy_fp_sdn_reset_for_tests();
