#include "programmer/settings.h"

#include <cstring>

namespace programmer {
namespace {

constexpr auto kInstalling = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLING;
constexpr auto kInstalled = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED;
constexpr auto kFailed = S_POLICY_KELIM__STATUS_E__STATUS_FAILED;

// The record of a notification or a scanned object; null when it is missing or has no key.
template <typename Record>
const Record *record_of(const qx_obj &msg) {
  const void *value = msg.value;
  if (value && (msg.cmd == QX_MOM_CMD_HASH_NEW || msg.cmd == QX_MOM_CMD_HASH_SET)) {
    value = static_cast<const qx_mom_hash_value *>(value)->record;
  }
  const auto *record = static_cast<const Record *>(value);
  return record && record->index ? record : nullptr;
}

}  // namespace

bool MeterKind::same_request(const Record &a, const Record &b) {
  return a.meter_data.len == b.meter_data.len &&
         (a.meter_data.len == 0 || std::memcmp(a.meter_data.data, b.meter_data.data, a.meter_data.len) == 0);
}

Outcome MeterKind::install(Target &target, const Record &record) {
  return target.install_meter(record.index->meter_id, {record.meter_data.data, record.meter_data.len});
}

Outcome AddressKind::install(Target &target, const Record &record) {
  target.set_controller_address(record.index->ip, true);
  return Outcome::installed;
}

template <typename Kind>
void SettingRecords<Kind>::notified(const qx_obj &msg) {
  switch (msg.cmd) {
    case QX_MOM_CMD_SET:
    case QX_MOM_CMD_HASH_NEW:
    case QX_MOM_CMD_HASH_SET:
      return written(msg);
    case QX_MOM_CMD_DEL:
      return deleted(msg);
    case QX_MOM_CMD_DATA_FETCH:
      return catch_up_.now();
    default:
      return;
  }
}

// Only INSTALLING is a request; any other status is this service's answer. In a scan it may be the answer of an earlier process,
// whose target is gone.
template <typename Kind>
void SettingRecords<Kind>::written(const qx_obj &msg) {
  const auto *record = record_of<Record>(msg);
  if (!record) return report_fault(context_, Kind::kName, {});
  const bool known = known_.contains(Kind::key(*record));
  const bool asks = record->status == kInstalling || (reading_ && !known);
  if (known || asks) known_[Kind::key(*record)] = true;
  if (!asks && answers_.erase(Kind::key(*record)) != 0 && !known) return take_back(*record);
  if (asks && !confirm(*record, Kind::install(target_, *record) == Outcome::installed ? kInstalled : kFailed)) catch_up_.soon();
}

template <typename Kind>
void SettingRecords<Kind>::deleted(const qx_obj &msg) {
  const auto *record = record_of<Record>(msg);
  if (!record) return report_fault(context_, Kind::kName, {});
  if (known_.erase(Kind::key(*record)) != 0) Kind::remove(target_, Kind::key(*record));
}

// Puts the status into the stored record, unless the record has been deleted or become another request in the meantime: writing
// would then restore a deleted record, or answer a request that was never handled.
template <typename Kind>
bool SettingRecords<Kind>::confirm(const Record &asked, SPolicyKelim__StatusE status) {
  int rv = 0;
  const Object object = stored(asked, rv);
  if (!object) return rv == QX_NOT_FOUND;
  const auto *request = record_of<Record>(*object);
  if (!request || !Kind::same_request(*request, asked) || request->status == status) return true;
  Record answer = *request;
  answer.status = status;
  if (qx_mom_set(context_.global, kFlowDb, &answer.base, 0, 0) != 0) return false;
  answers_.insert(Kind::key(answer));
  return true;
}

// The record was deleted between our read and our answer, which has restored it. If it has been requested again, it stays.
template <typename Kind>
void SettingRecords<Kind>::take_back(const Record &answer) {
  int rv = 0;
  const Object object = stored(answer, rv);
  const auto *record = object ? record_of<Record>(*object) : nullptr;
  if (record && record->status != kInstalling) qx_mom_del(context_.global, kFlowDb, &answer.base, 0, 0);
}

template <typename Kind>
typename SettingRecords<Kind>::Object SettingRecords<Kind>::stored(const Record &record, int &rv) {
  qx_obj *found = nullptr;
  rv = qx_mom_get_sync(context_.global, kFlowDb, &record.base, 0, &found);
  return Object(found);
}

template <typename Kind>
bool SettingRecords<Kind>::resynchronise() {
  for (auto &[key, seen] : known_) seen = false;
  answers_.clear();
  auto key = Kind::kBlankKey;
  Record any = Kind::kBlank;
  any.index = &key;
  reading_ = true;
  const bool complete = scan(context_, kFlowDb, any, [this](const qx_obj &object) { written(object); });
  reading_ = false;
  if (!complete) return false;
  std::erase_if(known_, [this](const auto &entry) {
    if (!entry.second) Kind::remove(target_, entry.first);
    return !entry.second;
  });
  Kind::all_known(target_);
  return true;
}

template class SettingRecords<MeterKind>;
template class SettingRecords<AddressKind>;

}  // namespace programmer
