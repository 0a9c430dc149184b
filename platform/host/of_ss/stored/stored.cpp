#include "host/of_ss/stored/stored.h"

#include <algorithm>
#include <map>
#include <unordered_set>

#include "host/of_ss/desired/flow_mod.h"
#include "host/of_ss/desired/flow_table.h"
#include "host/of_ss/wire/actions.h"
#include "host/of_ss/wire/oxm.h"
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
  std::map<std::uint64_t, std::vector<std::byte>> flows = {};  // by index, so that the newer form of a flow comes later

  void note(std::uint64_t index) {
    if (index <= kGreatestStoredIndex) out.last_index = std::max(out.last_index, index);
  }
};

Reading &reading(void *arg) {
  return *static_cast<Reading *>(arg);
}

int take_flow(const qx_obj *object, void *arg) {
  const auto *flow = static_cast<const SPolicyKelim__Flow *>(object->value);
  if (!flow || !flow->index) return 0;
  reading(arg).note(flow->index->flow_index);
  reading(arg).flows[flow->index->flow_index] = copy_of(flow->flow_data);
  return 0;
}

int take_status(const qx_obj *object, void *arg) {
  const auto *status = static_cast<const SPolicyKelim__FlowSta *>(object->value);
  if (status && status->index) reading(arg).note(status->index->flow_index);
  return 0;
}

template <typename Record>
int take_translation(const qx_obj *object, void *out) {
  const auto *record = static_cast<const Record *>(object->value);
  if (record && record->index && record->index->vsd_id == 0)
    static_cast<std::vector<Translation> *>(out)->push_back({record->index->t_flow_type, record->index->flow_index});
  return 0;
}

// A failed meter was reported to its controller and is no longer desired.
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

// The writing connection may not be up yet here.
template <typename Record>
int withdraw(qx_global *global, const Translation &translation, Record record) {
  constexpr int kNoSuchObject = QX_NOT_FOUND;
  SPolicyKelim__ParseFlowKey key = S_POLICY_KELIM__PARSE_FLOW_KEY__INIT;
  key.t_flow_type = translation.type;
  key.flow_index = translation.index;
  record.index = &key;
  const int rv = qx_mom_del_sync(global, QX_MOM_APP_DB, &record.base, 0, 0);
  return rv == kNoSuchObject ? 0 : rv;
}

int scan_translations(qx_global *global, const ProtobufCMessage &type, qx_mom_scan_cb take, std::vector<Translation> &out) {
  return qx_mom_scan_sync(global, QX_MOM_APP_DB, &type, 0, take, &out);
}

int scan_asked(qx_global *global, std::vector<Translation> &out) {
  const SPolicyKelim__ParseFlow asked = S_POLICY_KELIM__PARSE_FLOW__INIT;
  return scan_translations(global, asked.base, take_translation<SPolicyKelim__ParseFlow>, out);
}

int scan_told(qx_global *global, std::vector<Translation> &out) {
  const SPolicyKelim__FlowToAceSta told = S_POLICY_KELIM__FLOW_TO_ACE_STA__INIT;
  return scan_translations(global, told.base, take_translation<SPolicyKelim__FlowToAceSta>, out);
}

bool is_service_chain_flow(Bytes message) {
  return is_flow_mod(message) && is_for_service_chain(southbound_match(message));
}

// A service-chain flow is requested from the application before it is stored, and removed after that request is withdrawn. So one
// that is stored but not requested was being deleted when the previous run ended.
void leave_out_deleted(std::map<std::uint64_t, std::vector<std::byte>> &flows, const std::vector<Translation> &asked) {
  std::unordered_set<std::uint64_t> wanted;
  for (const Translation &translation : asked) wanted.insert(translation.index);
  std::erase_if(flows, [&](const auto &flow) { return is_service_chain_flow(flow.second) && !wanted.contains(flow.first); });
}

}  // namespace

int read_stored(qx_global *global, StoredState &out) {
  const SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
  const SPolicyKelim__FlowSta status = S_POLICY_KELIM__FLOW_STA__INIT;
  const SPolicyKelim__Meter meter = S_POLICY_KELIM__METER__INIT;
  Reading reading{out};
  const auto scan = [global, &reading](std::int32_t db, const ProtobufCMessage &type, qx_mom_scan_cb take) {
    return qx_mom_scan_sync(global, db, &type, 0, take, &reading);
  };
  if (const int rv = scan(QX_MOM_UDP_DB, flow.base, take_flow)) return rv;
  if (const int rv = scan(QX_MOM_UDP_DB, status.base, take_status)) return rv;
  std::vector<Translation> translations;
  if (const int rv = scan_asked(global, translations)) return rv;
  leave_out_deleted(reading.flows, translations);
  if (const int rv = scan_told(global, translations)) return rv;
  for (const Translation &translation : translations) reading.note(translation.index);
  // Without a stored flow it was never translated, and its controller's message was lost with that daemon: the answer is no
  // longer awaited.
  std::erase_if(translations, [&](const Translation &translation) { return reading.flows.contains(translation.index); });
  if (const int rv = withdraw(global, translations)) return rv;
  for (auto &[index, message] : reading.flows) out.flows.push_back(std::move(message));
  return scan(QX_MOM_UDP_DB, meter.base, take_meter);
}

int stored_translations(qx_global *global, std::vector<Translation> &out) {
  const int rv = scan_asked(global, out);
  return rv ? rv : scan_told(global, out);
}

int withdraw(qx_global *global, const std::vector<Translation> &translations) {
  for (const Translation &translation : translations) {
    int rv = withdraw<SPolicyKelim__ParseFlow>(global, translation, S_POLICY_KELIM__PARSE_FLOW__INIT);
    if (rv == 0) rv = withdraw<SPolicyKelim__FlowToAceSta>(global, translation, S_POLICY_KELIM__FLOW_TO_ACE_STA__INIT);
    if (rv != 0) return rv;
  }
  return 0;
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
