// The intakes of the controller's requests.
//
// An intake runs on the service-library thread. It checks and copies the request, counts, times, and appends a handler; it parses
// nothing and writes nothing. 0 means queued, not done. From then on the handler owns the copy and frees it with ssc_sdn_free.
// Results of every intake: 0 queued; QX_INVALID no message, or one that is too short or disagrees with `len`; QX_NO_MEMORY out of
// memory; QX_NOT_POSTED not queued.
#pragma once

#include <cstdint>

std::int32_t ssc_sdn_add_flow_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_del_flow_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_add_meter_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_del_meter_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_enable_msg(std::int32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_disable_msg(std::int32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_barrier_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_del_all_flow(std::uint32_t vsd_id, const void *msg, std::uint32_t len);  // `msg` is only tested for presence
std::int32_t ssc_sdn_del_all_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);   // `msg` is normally null
std::int32_t ssc_sdn_ds_recv_start_sig(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_ds_recv_end_sig(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_statistic_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_flowcnt_cfg_sig(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_add_onc_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_del_onc_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);
std::int32_t ssc_sdn_pkt_start_msg(std::uint32_t vsd_id, const void *msg, std::uint32_t len);

// For tests: no handler list (a waiting request is dropped).
void ssc_kelim_intake_reset_for_tests();
