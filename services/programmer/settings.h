// Meter and controller-address records: few and rarely changed, so each is handled whole and its status is written into the
// record itself.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "programmer/catch_up.h"
#include "programmer/context.h"
#include "programmer/target.h"
#include "qx_mom.h"
#include "s_policy_kelim.pb-c.h"

namespace programmer {

using SettingKey = std::pair<std::uint32_t, std::uint32_t>;  // the two fields of the record's key, in their order

// Connects one record type to the target.
struct MeterKind {
  using Record = SPolicyKelim__Meter;
  static constexpr const char *kName = "meter record";
  static constexpr Record kBlank = S_POLICY_KELIM__METER__INIT;
  static constexpr SPolicyKelim__MeterKey kBlankKey = S_POLICY_KELIM__METER_KEY__INIT;
  static SettingKey key(const Record &record) { return {record.index->meter_id, record.index->vsd_id}; }
  static bool same_request(const Record &a, const Record &b);
  static Outcome install(Target &target, const Record &record);
  static void remove(Target &target, const SettingKey &key) { target.remove_meter(key.first); }
  static void all_known(Target &target) { target.all_meters_known(); }
};

struct AddressKind {
  using Record = SPolicyKelim__OncIp;
  static constexpr const char *kName = "controller address record";
  static constexpr Record kBlank = S_POLICY_KELIM__ONC_IP__INIT;
  static constexpr SPolicyKelim__OncIpKey kBlankKey = S_POLICY_KELIM__ONC_IP_KEY__INIT;
  static SettingKey key(const Record &record) { return {record.index->vsd_id, record.index->ip}; }
  static bool same_request(const Record &, const Record &) { return true; }
  static Outcome install(Target &target, const Record &record);
  static void remove(Target &target, const SettingKey &key) { target.set_controller_address(key.second, false); }
  static void all_known(Target &) {}
};

template <typename Kind>
class SettingRecords {
 public:
  using Record = typename Kind::Record;

  SettingRecords(Context &context, Target &target)
      : context_(context),
        target_(target),
        catch_up_(
            context.global->master, [](void *self) { return static_cast<SettingRecords *>(self)->resynchronise(); }, this,
            "programmer settings again") {}

  // To be called with each notification of the type, decoded, with or without a holder (qx_mom_hash_value).
  void notified(const qx_obj &msg);

 private:
  void written(const qx_obj &msg);
  void deleted(const qx_obj &msg);
  // False when the database did not accept the answer.
  bool confirm(const Record &asked, SPolicyKelim__StatusE status);
  void take_back(const Record &answer);
  struct Free {
    void operator()(qx_obj *object) const { qx_mom_qx_obj_free(object); }
  };
  using Object = std::unique_ptr<qx_obj, Free>;
  // The stored object with the key of `record`; null with the code of the failure in `rv`.
  Object stored(const Record &record, int &rv);
  bool resynchronise();

  Context &context_;
  Target &target_;
  std::map<SettingKey, bool> known_;  // value: seen by the resynchronisation in progress
  std::set<SettingKey> answers_;      // written, but not yet notified back
  bool reading_ = false;              // the records handled now come from a scan
  CatchUp catch_up_;
};

extern template class SettingRecords<MeterKind>;
extern template class SettingRecords<AddressKind>;

}  // namespace programmer
