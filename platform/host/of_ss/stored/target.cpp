#include "host/of_ss/stored/target.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "host/log/log.h"
#include "host/mom/hub.h"
#include "host/of_ss/wire/actions.h"
#include "s_target.pb-c.h"

namespace host::of_ss {
namespace {

// Loop's thread.
qx_global *g_global;
std::function<void(const TargetCapabilities &)> g_changed;
TargetCapabilities g_target;

// ---- the record, which any process may have written

// Lowers the limit to the announced number; 0 leaves the library's own.
template <typename T>
void take_limit(const char *what, std::uint32_t told, T &limit) {
  const T most = limit;
  if (told > most) log::warn("the target announces {} {}, this library uses {} at most", told, what, most);
  if (told != 0 && told < most) limit = static_cast<T>(told);
}

void take_bits(const char *what, std::uint64_t told, std::uint64_t known, std::uint64_t &bits) {
  if (told & ~known)
    log::warn("the target announces {} {:#x}, of which this library does not know {:#x}", what, told, told & ~known);
  if (told != 0) bits = told & known;
}

void take_name(const char *told, TargetCapabilities &to) {
  const std::string_view name = told ? told : "";
  const auto printable = [](char c) { return c > ' ' && c < 0x7f; };
  std::copy_if(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(std::min(name.size(), std::size(to.name) - 1)), to.name,
               printable);
  if (!to.name[0]) std::string_view("unnamed").copy(to.name, std::size(to.name) - 1);
}

TargetCapabilities capabilities_in(const STarget__Capabilities &record) {
  TargetCapabilities target;
  take_name(record.name, target);
  target.flows = record.flows;
  take_limit("meters", record.meters, target.meters);
  take_limit("bands of a meter", record.bands, target.bands);
  take_limit("queues", record.queues, target.queues);
  take_bits("match fields", record.match_fields, known_match_fields(), target.match_fields);
  take_bits("set-fields", record.set_fields, kKnownSets, target.set_fields);
  take_bits("actions", record.actions, known_actions(), target.actions);
  target.match_fields |= bits(kOxmAppType);  // the library's own, which is not a property of packets
  target.several_outputs = record.several_outputs;
  target.tag_presence = record.tag_presence;
  target.forwards_packets = record.forwards_packets;
  return target;
}

void now_is(const TargetCapabilities &target) {
  if (std::exchange(g_target, target) == target) return;
  if (target == kUnannounced)
    log::info("the target announces nothing any more: requests are checked against what every target supports");
  else
    log::info("the target {}: {} flows, {} meters, {} queues, match fields {:#x}, set-fields {:#x}, actions {:#x}{}", target.name,
              target.flows, target.meters, target.queues, target.match_fields, target.set_fields, target.actions,
              target.several_outputs ? ", several outputs" : "");
  g_changed(target);
}

void take(const qx_obj &object) {
  const auto *record = static_cast<const STarget__Capabilities *>(object.value);
  if (record && record->index && record->index->unit == 1) now_is(capabilities_in(*record));
}

// Changes may have been missed while the database was away.
void look() {
  STarget__CapabilitiesKey key = S_TARGET__CAPABILITIES_KEY__INIT;
  key.unit = 1;
  STarget__Capabilities wanted = S_TARGET__CAPABILITIES__INIT;
  wanted.index = &key;
  qx_obj *object = nullptr;
  const int rv = qx_mom_get_sync(g_global, QX_MOM_UDP_DB, &wanted.base, 0, &object);
  if (rv == QX_NOT_FOUND) now_is(kUnannounced);
  if (rv != 0) return;
  take(*object);
  qx_mom_qx_obj_free(object);
}

int told(void *, const qx_obj *object) {
  if (object->cmd == QX_MOM_CMD_SET) take(*object);
  if (object->cmd == QX_MOM_CMD_DEL) now_is(kUnannounced);
  if (object->cmd == QX_MOM_CMD_DATA_FETCH) look();
  return 0;
}

}  // namespace

void watch_target(qx_global *global, std::function<void(const TargetCapabilities &target)> changed) {
  g_global = global;
  g_changed = std::move(changed);
  g_target = kUnannounced;
  mom::Hub *hub = mom::hub();
  if (hub)
    hub->subscribe(hub->slot(*hub->database(QX_MOM_UDP_DB), *mom::RecordType::of(&s_target__capabilities__descriptor)), false,
                   told);
}

const TargetCapabilities &announced_target() {
  look();
  return g_target;
}

}  // namespace host::of_ss
