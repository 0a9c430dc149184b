// Reports from the switch: counters of failed programming, the status of service-chain flows, and the packed report of counter
// changes.
//
// Threads: cells are added on the main SDN thread; a separate thread, "ssc_kelim_pack_task", sends the packed reports. The
// failure callbacks may be called from any thread.
#pragma once

#include <atomic>
#include <cstdint>

#include "kelim/common/guarded.h"
#include "qx_mom.h"
#include "s_policy_kelim.pb-c.h"

// ---- failures that the access-control layer reports; any thread

extern std::atomic<std::uint32_t> g_apply_fail, g_ace_fail, g_acl_fail;

extern "C" {
void ssc_kelim_on_apply_fail(void);
void ssc_kelim_on_ace_fail(void);
void ssc_kelim_on_acl_fail(void);

// Published to the platform, which looks its handlers up here: slot 1 acl, slot 3 ace, slot 5 apply; the others are empty.
using ssc_kelim_fp_handler_fn = void (*)(void);
extern ssc_kelim_fp_handler_fn ssc_kelim_fp_handler[17];
}

// ---- status of service-chain flows; main SDN thread

// Writes the status of a flow of application type 3 to the flow_to_ace_sta record (database 4) that its application reads.
void ssc_sdn_flow_to_ace_sta(const SPolicyKelim__FlowSta *sta);

// ---- packed report of counter changes

// Cells per packed report, initially 100. Values outside 1 to 2730 (the limit of the report's 16-bit length) are clamped.
extern kelim::Mutex g_ssc_sdn_pack_max_cell_num_mutex;
extern std::int32_t g_ssc_sdn_pack_max_cell_num KELIM_GUARDED_BY(g_ssc_sdn_pack_max_cell_num_mutex);

// One change of a flow's counters.
struct ssc_sdn_pack_cell {
  std::uint64_t flow_index;
  std::uint64_t packet_count;
  std::uint64_t byte_count;
};

// Subscription callback for flow_counter records of database 8; main SDN thread.
int flow_counter_call_back(void *conn, const qx_obj *msg);

// Adds the record's change to the report. 0, or QX_FAILED for null.
std::int32_t ssc_sdn_ace_stats_chg_handler(const SPolicyKelim__FlowCounter *counter);

// Adds one cell. 0, or QX_NO_MEMORY when there is no memory for a new report (the cell is lost).
std::int32_t ssc_sdn_pack_msg(const ssc_sdn_pack_cell *cell);

// Starts the sending thread, once. 0, or -17.
std::int32_t ssc_kelim_pack_send_task_init();

// For tests only: zeroes the counters, drops unsent reports, restores the cell maximum. The sending thread keeps running.
void ssc_kelim_adapt_reset_for_tests();
