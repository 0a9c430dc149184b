#include "ssc_kelim/sdn/ssc_kelim_mom.h"

#include "kelim/common/kelim_debug.h"

// Logs under the handlers' source path.
#undef SDN_LOG_SOURCE
#define SDN_LOG_SOURCE "app/ssc_kelim/sdn/ssc_kelim_msg_to_ssd.cpp"

qx_global *g_ssc_kelim_global = nullptr;

namespace {

constexpr std::uint32_t kExpireMs = 100;

std::int32_t ssc_kelim_mom_del_expire_with_ow(const ProtobufCMessage &record, std::int64_t ow) {
  if (!g_ssc_kelim_global) return QX_FAILED;
  const int rv = qx_mom_del_expire_ow(g_ssc_kelim_global, QX_MOM_UDP_DB, &record, 0, 0, nullptr, ow);
  if (rv != 0) SDN_ERROR("Expire del fail. ow:%lld", static_cast<long long>(ow));
  return rv;
}

}  // namespace

std::int32_t ssc_kelim_mom_set(const ProtobufCMessage *record, std::int32_t db) {
  if (!g_ssc_kelim_global) return QX_FAILED;
  const int rv = qx_mom_set(g_ssc_kelim_global, db, record, 0, 0);
  if (rv != 0) SDN_ERROR("qx_mom_set FAIL! rv:%d", rv);
  return rv;
}

std::int32_t ssc_kelim_mom_set_with_ow(const ProtobufCMessage *record, std::int64_t ow) {
  if (!g_ssc_kelim_global) return QX_FAILED;
  const int rv = qx_mom_setow(g_ssc_kelim_global, QX_MOM_UDP_DB, record, 0, 0, ow);
  if (rv != 0) SDN_ERROR("qx_mom_setow FAIL! ow:%lld, rv:%d", static_cast<long long>(ow), rv);
  return rv;
}

std::int32_t ssc_kelim_mom_del_in(const ProtobufCMessage *record, std::int32_t db) {
  if (!g_ssc_kelim_global || !record) return QX_FAILED;
  return qx_mom_del(g_ssc_kelim_global, db, record, 0, 0);
}

std::int32_t ssc_kelim_mom_del(const ProtobufCMessage *record) {
  return ssc_kelim_mom_del_in(record, QX_MOM_UDP_DB);
}

std::int32_t ssc_kelim_mom_expire(const ProtobufCMessage *record) {
  if (!g_ssc_kelim_global || !record) return QX_FAILED;
  const int rv = qx_mom_pexpire(g_ssc_kelim_global, QX_MOM_UDP_DB, record, 0, kExpireMs, 0, ssc_kelim_null_cb, nullptr);
  if (rv != 0) SDN_ERROR("Expire flow FAIL!");
  return rv;
}

std::int32_t ssc_kelim_mom_del_expire(const ProtobufCMessage *record) {
  if (!g_ssc_kelim_global || !record) return QX_FAILED;
  const int rv = qx_mom_del_expire(g_ssc_kelim_global, QX_MOM_UDP_DB, record, 0, 0, nullptr);
  if (rv != 0) SDN_ERROR("Expire del fail.\n");
  return rv;
}

std::int32_t ssc_kelim_mom_scan(const ProtobufCMessage *record, qx_mom_scan_cb cb, void *arg) {
  if (!g_ssc_kelim_global) return QX_FAILED;
  return qx_mom_scan_sync(g_ssc_kelim_global, QX_MOM_UDP_DB, record, 0, cb, arg);
}

int ssc_kelim_null_cb() {
  return 0;
}

std::int32_t ssc_sdn_db_expire_del_all_with_ow(std::uint32_t vsd_id, std::int64_t ow) {
  SPolicyKelim__FlowKey key = ssc_kelim_flow_key(0, 0);
  SPolicyKelim__Flow every_flow = S_POLICY_KELIM__FLOW__INIT;
  every_flow.index = &key;
  const std::int32_t rv = ssc_kelim_mom_del_expire_with_ow(every_flow.base, ow);
  if (rv != 0) {
    SDN_VER(" %d del expire flow_entry ow:%lld happened error.rv:%d\n", vsd_id, static_cast<long long>(ow), rv);
  }
  return rv;
}
