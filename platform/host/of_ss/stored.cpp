#include "host/of_ss/stored.h"

#include <algorithm>
#include <unordered_set>

#include "qx_mom.h"
#include "s_policy_kelim.pb-c.h"

namespace host::of_ss {
namespace {

std::vector<std::byte> copy_of(const ProtobufCBinaryData &data) {
  const auto *at = reinterpret_cast<const std::byte *>(data.data);
  return {at, at + data.len};
}

struct Reading {
  StoredState &out;
  std::unordered_set<std::uint64_t> flows = {};  // indexes of the stored ones
  std::vector<SPolicyKelim__ParseFlowKey> orphans = {};

  void note(std::uint64_t index) { out.last_index = std::max(out.last_index, index); }
};

Reading &reading(void *arg) {
  return *static_cast<Reading *>(arg);
}

int take_flow(const qx_obj *object, void *arg) {
  const auto *flow = static_cast<const SPolicyKelim__Flow *>(object->value);
  if (!flow) return 0;
  if (flow->index) {
    reading(arg).note(flow->index->flow_index);
    reading(arg).flows.insert(flow->index->flow_index);
  }
  reading(arg).out.flows.push_back(copy_of(flow->flow_data));
  return 0;
}

int take_status(const qx_obj *object, void *arg) {
  const auto *status = static_cast<const SPolicyKelim__FlowSta *>(object->value);
  if (status && status->index) reading(arg).note(status->index->flow_index);
  return 0;
}

// A service-chain flow that is to be translated. Without a stored flow it never was, and what its controller had sent went with
// the daemon of that time: nobody waits for the answer any more.
int take_translation(const qx_obj *object, void *arg) {
  const auto *request = static_cast<const SPolicyKelim__ParseFlow *>(object->value);
  if (!request || !request->index) return 0;
  const std::uint64_t index = request->index->flow_index;
  reading(arg).note(index);
  if (!reading(arg).flows.contains(index)) reading(arg).orphans.push_back(*request->index);
  return 0;
}

// A meter that has failed was reported to its controller and is not desired any more.
int take_meter(const qx_obj *object, void *arg) {
  const auto *holder = static_cast<const qx_mom_hash_value *>(object->value);
  if (!holder || !holder->record) return 0;
  const auto *meter = reinterpret_cast<const SPolicyKelim__Meter *>(holder->record);
  if (meter->status == S_POLICY_KELIM__STATUS_E__STATUS_FAILED) return 0;
  reading(arg).out.meters.push_back(copy_of(meter->meter_data));
  return 0;
}

int take_address(const qx_obj *object, void *arg) {
  const auto *address = static_cast<const SPolicyKelim__OncIp *>(object->value);
  if (address && address->index && address->index->vsd_id == 0)
    static_cast<std::vector<std::uint32_t> *>(arg)->push_back(address->index->ip);
  return 0;
}

bool is_installed(qx_global *global, std::uint64_t index) {
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = index;
  SPolicyKelim__FlowSta wanted = S_POLICY_KELIM__FLOW_STA__INIT;
  wanted.index = &key;
  qx_obj *object = nullptr;
  if (qx_mom_get_sync(global, QX_MOM_UDP_DB, &wanted.base, 0, &object) != 0) return false;
  const auto *status = static_cast<const SPolicyKelim__FlowSta *>(object->value);
  const bool installed = status && status->status == S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED;
  qx_mom_qx_obj_free(object);
  return installed;
}

// The writing connection may still be under way here.
int withdraw(qx_global *global, std::vector<SPolicyKelim__ParseFlowKey> &translations) {
  constexpr int kNoSuchObject = -7;
  for (SPolicyKelim__ParseFlowKey &key : translations) {
    SPolicyKelim__ParseFlow record = S_POLICY_KELIM__PARSE_FLOW__INIT;
    record.index = &key;
    const int rv = qx_mom_del_sync(global, QX_MOM_APP_DB, &record.base, 0, 0);
    if (rv != 0 && rv != kNoSuchObject) return rv;
  }
  return 0;
}

}  // namespace

int read_stored(qx_global *global, StoredState &out) {
  const SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
  const SPolicyKelim__FlowSta status = S_POLICY_KELIM__FLOW_STA__INIT;
  const SPolicyKelim__ParseFlow translation = S_POLICY_KELIM__PARSE_FLOW__INIT;
  const SPolicyKelim__Meter meter = S_POLICY_KELIM__METER__INIT;
  Reading reading{out};
  const auto scan = [global, &reading](std::int32_t db, const ProtobufCMessage &type, qx_mom_scan_cb take) {
    return qx_mom_scan_sync(global, db, &type, 0, take, &reading);
  };
  if (const int rv = scan(QX_MOM_UDP_DB, flow.base, take_flow)) return rv;
  if (const int rv = scan(QX_MOM_UDP_DB, status.base, take_status)) return rv;
  if (const int rv = scan(QX_MOM_APP_DB, translation.base, take_translation)) return rv;
  if (const int rv = withdraw(global, reading.orphans)) return rv;
  return scan(QX_MOM_UDP_DB, meter.base, take_meter);
}

std::vector<std::uint64_t> installed_flows(qx_global *global, const std::vector<std::uint64_t> &indexes) {
  std::vector<std::uint64_t> installed;
  for (const std::uint64_t index : indexes)
    if (is_installed(global, index)) installed.push_back(index);
  return installed;
}

int stored_addresses(qx_global *global, std::vector<std::uint32_t> &out) {
  const SPolicyKelim__OncIp address = S_POLICY_KELIM__ONC_IP__INIT;
  return qx_mom_scan_sync(global, QX_MOM_UDP_DB, &address.base, 0, take_address, &out);
}

}  // namespace host::of_ss
