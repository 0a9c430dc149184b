#include "ssc_kelim/sdn/ssc_kelim_removal.h"

#include "kelim/common/kelim_debug.h"
#include "southbound.h"
#include "ssc_kelim/sdn/sdn_ptr.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_db.h"
#include "ssc_kelim/sdn/ssc_kelim_mom.h"
#include "ssc_kelim/sdn/ssc_sdn_msg_queue.h"

// Logs under the handlers' source path.
#undef SDN_LOG_SOURCE
#define SDN_LOG_SOURCE "app/ssc_kelim/sdn/ssc_kelim_msg_to_ssd.cpp"

namespace {

std::int32_t ssc_sdn_del_flow(std::uint64_t flow_index, std::uint32_t vsd_id) {
  SPolicyKelim__FlowKey key = ssc_kelim_flow_key(flow_index, vsd_id);
  SPolicyKelim__Flow record = S_POLICY_KELIM__FLOW__INIT;
  record.index = &key;
  if (ssc_kelim_mom_del_in(&record.base, QX_MOM_UDP_DB) == 0) return 0;
  SDN_ERROR("ssc sdn del flow FAIL!");
  return QX_NOT_POSTED;
}

// Deletes one scanned flow and its cache node. `arg` is the virtual switch that is being emptied.
int flow_scan_del_cb(const qx_obj *reply, void *arg) {
  SDN_VER("ENTER");
  const auto *flow = static_cast<const SPolicyKelim__Flow *>(reply->value);
  const auto *vsd_id = static_cast<const std::uint32_t *>(arg);
  if (!vsd_id || !flow || !flow->index || flow->index->vsd_id != *vsd_id) return 0;
  const std::uint64_t flow_index = flow->index->flow_index;
  const flow_info_key key{flow_index, *vsd_id, 0};
  flow_info_node *node = ssc_kelim_find_flow_node(&key);
  if (!node) {
    SDN_ERROR("flow node del failed.flow_index:%lu, vsd_id:%d", flow_index, *vsd_id);
    return QX_NOT_FOUND;
  }
  SDN_VER("mom_del flow_entry vsd:%d index:%lu", *vsd_id, flow_index);
  std::int32_t rv = 0;
  if (is_service_chain(*node)) {
    // Deliberate: the flow record stays; the application's answer to the deletion removes it.
    rv = ssc_sdn_del_app_records(flow_index, *vsd_id);
  } else {
    rv = ssc_kelim_mom_del(&flow->base);
  }
  rv |= ssc_kelim_del_flow_node(node);
  if (rv != 0) SDN_ERROR("ssc sdn del flow FAIL! flow_index:%lu, vsd_id:%d", flow_index, *vsd_id);
  SDN_VER("LEAVE");
  return rv;
}

int meter_scan_del_cb(const qx_obj *reply, void *arg) {
  const auto *holder = static_cast<const qx_mom_hash_value *>(reply->value);
  if (!holder) {
    SDN_ERROR("msg->value is NULL. msg->cmd:%d msg->flag:%d  \n", reply->cmd, reply->flag);
    return QX_FAILED;
  }
  if (!holder->record) {
    SDN_ERROR("hash value is NULL. msg->cmd:%d msg->flag:%d  \n", reply->cmd, reply->flag);
    return QX_FAILED;
  }
  if (holder->error_code != 0) {
    SDN_ERROR("error_code:%d msg->cmd:%d msg->flag:%d  \n", holder->error_code, reply->cmd, reply->flag);
    return QX_FAILED;
  }
  const auto *meter = reinterpret_cast<const SPolicyKelim__Meter *>(holder->record);
  const auto *vsd_id = static_cast<const std::uint32_t *>(arg);
  if (!vsd_id || !meter->index || meter->index->vsd_id != *vsd_id) return 0;
  SDN_VER("mom_del meter_entry vsd:%d", *vsd_id);
  return ssc_kelim_mom_del(&meter->base);
}

// The argument of a scan: the virtual switch, in a separate block that the caller frees.
sdn_ptr<std::uint32_t> new_scan_arg(std::uint32_t vsd_id, const char *caller) {
  sdn_ptr<std::uint32_t> arg(static_cast<std::uint32_t *>(ssc_sdn_malloc(sizeof vsd_id, caller, __LINE__)));
  if (arg) *arg = vsd_id;
  return arg;
}

}  // namespace

// ---- one flow

std::int32_t ssc_sdn_del_flow_related_data(std::uint32_t vsd_id, std::uint64_t flow_index) {
  const flow_info_key key{flow_index, vsd_id, 0};
  flow_info_node *node = ssc_kelim_find_flow_node(&key);
  if (!node) {
    // Deliberate: an unknown flow counts as removed; for the controller side the result is the same.
    SDN_ERROR("flow node del failed.flow_index:%lu, vsd_id:%d", flow_index, vsd_id);
    ssc_sdn_msg_queue_destory_flow_msg_node(flow_index);
    return 0;
  }
  std::int32_t rv = is_service_chain(*node) ? ssc_sdn_del_app_records(flow_index, vsd_id) : ssc_sdn_del_flow(flow_index, vsd_id);
  rv |= ssc_kelim_del_flow_node(node);
  ssc_sdn_msg_queue_destory_flow_msg_node(flow_index);
  return rv;
}

std::int32_t ssc_sdn_del_parse_flow(std::uint64_t flow_index, std::uint32_t vsd_id) {
  SPolicyKelim__ParseFlowKey key = ssc_kelim_parse_flow_key(southbound::kServiceChainAppType, flow_index, vsd_id);
  SPolicyKelim__ParseFlow record = S_POLICY_KELIM__PARSE_FLOW__INIT;
  record.index = &key;
  if (ssc_kelim_mom_del_in(&record.base, QX_MOM_APP_DB) == 0) return 0;
  SDN_ERROR("ssc sdn del flow FAIL! flow_index:%lu, vsd_id:%d", flow_index, vsd_id);
  return QX_NOT_POSTED;
}

std::int32_t ssc_sdn_del_flow_to_sta(std::uint64_t flow_index, std::uint32_t vsd_id, std::uint32_t t_flow_type) {
  SPolicyKelim__ParseFlowKey key = ssc_kelim_parse_flow_key(t_flow_type, flow_index, vsd_id);
  SPolicyKelim__FlowToAceSta record = S_POLICY_KELIM__FLOW_TO_ACE_STA__INIT;
  record.index = &key;
  if (ssc_kelim_mom_del_in(&record.base, QX_MOM_APP_DB) == 0) return 0;
  SDN_ERROR("ssc sdn del flow sta FAIL! flow_index:%lu, vsd_id:%d", flow_index, vsd_id);
  return QX_NOT_POSTED;
}

std::int32_t ssc_sdn_del_app_records(std::uint64_t flow_index, std::uint32_t vsd_id) {
  const std::int32_t rv = ssc_sdn_del_parse_flow(flow_index, vsd_id);
  return rv | ssc_sdn_del_flow_to_sta(flow_index, vsd_id, southbound::kServiceChainAppType);
}

// ---- all of a virtual switch

std::int32_t ssc_sdn_db_del_all_flow(std::uint32_t vsd_id) {
  SDN_VER("ENTER");
  SPolicyKelim__FlowKey key = ssc_kelim_flow_key(0, 0);
  SPolicyKelim__Flow every_flow = S_POLICY_KELIM__FLOW__INIT;
  every_flow.index = &key;
  const auto arg = new_scan_arg(vsd_id, __func__);
  if (!arg) {
    SDN_ERROR("SSC_SDN_MALLOC FAIL!");
    return QX_NO_MEMORY;
  }
  const std::int32_t rv = ssc_kelim_mom_scan(&every_flow.base, flow_scan_del_cb, arg.get());
  if (rv != 0) {
    ++sdn_opt_cnt[SDN_OPT_FLOW_DEL + SDN_OPT_FAILED];
    SDN_ERROR("ssc sdn del flow FAIL!");
  }
  ssc_sdn_msg_queue_destory_all_flow_msg_node();
  SDN_VER("LEAVE");
  return rv;
}

std::int32_t ssc_sdn_db_del_all_meter(std::uint32_t vsd_id) {
  SDN_VER("ENTER");
  SPolicyKelim__MeterKey key = ssc_kelim_meter_key(0, 0);
  SPolicyKelim__Meter every_meter = S_POLICY_KELIM__METER__INIT;
  every_meter.index = &key;
  const auto arg = new_scan_arg(vsd_id, __func__);
  if (!arg) {
    SDN_ERROR("SSC_SDN_MALLOC FAIL!");
    return QX_NO_MEMORY;
  }
  const std::int32_t rv = ssc_kelim_mom_scan(&every_meter.base, meter_scan_del_cb, arg.get());
  if (rv != 0) {
    // Deliberate: counted with the failed flow deletions, where operators look for a failed bulk deletion.
    ++sdn_opt_cnt[SDN_OPT_FLOW_DEL + SDN_OPT_FAILED];
    SDN_ERROR("ssc sdn del meter FAIL!");
  }
  SDN_VER("LEAVE");
  return rv;
}
