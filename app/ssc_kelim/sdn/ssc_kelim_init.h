// Intakes of the controller's requests, the main SDN handler list that carries them to the main SDN thread, and the
// initialisation of the SDN layer.
//
// An intake runs on the service-library thread. It checks and copies the request, counts, times, and appends a handler; it parses
// nothing and writes nothing. 0 means queued, not done. From then on the handler owns the copy and frees it with ssc_sdn_free.
// Results of every intake: 0 queued; -4 no message, or one that is too short or whose own length is another; -2 out of memory;
// -11 not queued.
#pragma once

#include <cstdint>

#include "libss_pthrd.h"
#include "qx_runtime.h"

// The list that the event timer drains. Created once, before the callbacks are registered.
extern libss_pthrd_mst *ssc_sdn_mst;

std::int32_t ssc_sdn_add_flow_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_del_flow_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_add_meter_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_del_meter_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_enable_msg(std::int32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_disable_msg(std::int32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_barrier_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_del_all_flow(std::uint32_t vsd_id, const void *msg, std::uint32_t len);  // `msg` is only tested for presence
std::int32_t ssc_sdn_del_all_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);   // null is normal here
std::int32_t ssc_sdn_ds_recv_start_sig(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_ds_recv_end_sig(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_statistic_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_flowcnt_cfg_sig(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_add_onc_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_del_onc_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_pkt_start_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);

// Creates the main SDN list, once a process. 0, or -11.
std::int32_t ssc_sdn_main_pthread_init();
// Appends to the main SDN list; result as libss_pthrd_add_hdl. Any thread.
libss_pthrd_hdl *ssc_sdn_main_pthrd_add_handler(libss_pthrd_handler handler, void *data, std::uint32_t value);
// One drain of the main SDN list. Main SDN thread.
void ssc_sdn_main_pthrd_handler();

// Brings up the SDN layer: cache, report thread, queue, handler list, southbound callbacks. It may run again after the database
// came back; what exists is then kept, except that the queue is made empty. 0, -4 for null, or the failing step's code. Main SDN
// thread.
std::int32_t ssc_kelim_init(qx_global *global);

// For tests: no runtime and no handler list (a waiting request is dropped).
void ssc_kelim_init_reset_for_tests();
