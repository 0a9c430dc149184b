#include "ssc_kelim/sdn/ssc_kelim_data_sync.h"

#include <iterator>

#include "kelim/common/kelim_debug.h"
#include "libss_pthrd.h"
#include "ssc_kelim/sdn/handler_run.h"
#include "ssc_kelim/sdn/ssc_kelim_ds_stage.h"
#include "ssc_kelim/sdn/ssc_kelim_mom.h"
#include "ssc_kelim/sdn/ssc_sdn_msg_queue.h"

// Logs under the handlers' source path.
#undef SDN_LOG_SOURCE
#define SDN_LOG_SOURCE "app/ssc_kelim/sdn/ssc_kelim_msg_to_ssd.cpp"

namespace {

// Clean-ups are counted as handled end signals.
constexpr unsigned kCleanUps = SDN_OPT_DS_END + SDN_OPT_HANDLED;

// A kind of flow record: its tag and where the stage notes that it has been cleaned up.
struct kind_row {
  std::int64_t ow;
  std::uint8_t ssc_ds_stage::*finished;
};
constexpr kind_row kKinds[] = {
    {SSC_KELIM_OW_FLOW, &ssc_ds_stage::kind0_finished},
    {SSC_KELIM_OW_FLOW_TO_ACE, &ssc_ds_stage::kind1_finished},
};

// Cleans up a kind whose queued work has drained. A clean-up that fails is not repeated: the remaining records expire by
// themselves.
void finish_kind_if_drained(std::uint32_t kind, const char *caller) {
  const kind_row &row = kKinds[kind];
  if (!ssc_sdn_msg_queue_check_ds_end_by_type(kind)) return;
  if (ssc_sdn_db_expire_del_all_with_ow(g_ssc_ds_stage.vsd_id, row.ow) == 0) {
    ++sdn_opt_cnt[kCleanUps];
  } else {
    SDN_VER_AS(caller, " %d ssc_sdn_db_expire_del_all_with_ow %d happened error\n", g_ssc_ds_stage.vsd_id,
               static_cast<int>(row.ow));
  }
  g_ssc_ds_stage.*row.finished = 1;
}

void ssc_sdn_db_expire_all_flow() {
  SPolicyKelim__FlowKey key = ssc_kelim_flow_key(0, 0);
  SPolicyKelim__Flow every_flow = S_POLICY_KELIM__FLOW__INIT;
  every_flow.index = &key;
  if (ssc_kelim_mom_expire(&every_flow.base) != 0) SDN_ERROR("flow_entry expire flow FAIL!");
}

void ssc_sdn_db_expire_all_meter() {
  SPolicyKelim__MeterKey key = ssc_kelim_meter_key(0, 0);
  SPolicyKelim__Meter every_meter = S_POLICY_KELIM__METER__INIT;
  every_meter.index = &key;
  if (ssc_kelim_mom_expire(&every_meter.base) != 0) SDN_ERROR("expire meter_entry flow FAIL!");
}

// Meters survive every synchronisation, replayed or not.
void ssc_sdn_expire_del_all_meter(std::uint32_t vsd_id) {
  SPolicyKelim__MeterKey key = ssc_kelim_meter_key(0, 0);
  SPolicyKelim__Meter every_meter = S_POLICY_KELIM__METER__INIT;
  every_meter.index = &key;
  const std::int32_t rv = ssc_kelim_mom_del_expire(&every_meter.base);
  if (rv != 0) SDN_VER(" %d del expire meter happened error.rv:%d\n", vsd_id, rv);
}

}  // namespace

void ssc_sdn_update_ds_node_and_check(std::uint64_t msg_id, std::uint32_t kind) {
  ssc_sdn_assert_main_thread();
  if (!g_ssc_ds_stage.in_progress || kind >= std::size(kKinds) || g_ssc_ds_stage.*kKinds[kind].finished) return;
  ssc_sdn_msg_queue_update_node_set_status(msg_id);
  // Deliberate: also before the end is signalled. Records that are still to be replayed have not reached their deadline.
  finish_kind_if_drained(kind, __func__);
  ssc_sdn_ds_stage_init_or_check(0);
}

// Deliberate: tag 2 is tried only if tag 1 fails, as a fallback, not as a second clean-up.
void ssc_sdn_abandon_data_sync() {
  const std::uint32_t vsd_id = g_ssc_ds_stage.vsd_id;
  if (ssc_sdn_db_expire_del_all_with_ow(vsd_id, SSC_KELIM_OW_FLOW) == 0 ||
      ssc_sdn_db_expire_del_all_with_ow(vsd_id, SSC_KELIM_OW_FLOW_TO_ACE) == 0) {
    ++sdn_opt_cnt[kCleanUps];
  } else {
    SDN_VER_AS("ssc_sdn_del_all_flow_handler", " %d ssc_sdn_db_expire_del_all_with_ow happened error\n", vsd_id);
  }
  ssc_sdn_ds_stage_init_or_check(1);
}

void ssc_sdn_ds_recv_start_handler(libss_pthrd_hdl *) {
  SDN_VER("ENTER");
  {
    const handler_run::timing timed(SDN_TIME_DS_START);
    ssc_sdn_db_expire_all_flow();
    ssc_sdn_db_expire_all_meter();
    // Deliberate: a start signal counts as received at the intake and again here.
    ++sdn_opt_cnt[SDN_OPT_DS_START + SDN_OPT_RECEIVED];
    ++sdn_opt_cnt[SDN_OPT_DS_START + SDN_OPT_HANDLED];
  }
  g_ssc_ds_stage = {
      .in_progress = 1, .kind1_finished = 0, .kind0_finished = 0, .end_received = 0, .vsd_id = g_ssc_ds_stage.vsd_id};
  SDN_VER("LEAVE");
}

void ssc_sdn_ds_recv_end_handler(libss_pthrd_hdl *hdl) {
  SDN_VER("ENTER");
  {
    const handler_run::timing timed(SDN_TIME_DS_END);
    ssc_sdn_expire_del_all_meter(hdl->value);
    if (g_ssc_ds_stage.in_progress) {
      g_ssc_ds_stage.end_received = 1;
      g_ssc_ds_stage.vsd_id = hdl->value;
      for (const std::uint32_t kind : {1, 0}) {
        if (!(g_ssc_ds_stage.*kKinds[kind].finished)) finish_kind_if_drained(kind, __func__);
      }
      ssc_sdn_ds_stage_init_or_check(0);
    }
  }
  SDN_VER("LEAVE");
}
