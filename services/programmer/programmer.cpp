#include "programmer/programmer.h"

#include <cinttypes>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "programmer/announcement.h"
#include "programmer/chain.h"
#include "programmer/context.h"
#include "programmer/counter_report.h"
#include "programmer/flows.h"
#include "programmer/idle_watch.h"
#include "programmer/script.h"
#include "programmer/settings.h"
#include "programmer/targets.h"
#include "s_policy_kelim.pb-c.h"
#include "s_target.pb-c.h"
#include "ssat.h"

namespace programmer {
namespace {

// Receives the daemon's signals that start and stop packets to the controllers; they are published, never stored.
struct PacketSignal {
  Target &target;
  void notified(const qx_obj &msg) const {
    if (msg.cmd == QX_MOM_CMD_PUBLISH && msg.value)
      target.want_packets(static_cast<const SPolicyKelim__PktSig *>(msg.value)->is_pkt_start != 0);
  }
};

struct Service {
  // Throws std::runtime_error if this machine cannot be the target.
  Service(qx_global *global, const Options &options)
      : context{global, qx_zlog_init("programmer"), {}},
        service_chain(options.service_chain),
        flows(context),
        target(make_target(context, options, flows)),
        announcement(context, *target),
        counters(context, flows.table(), *target, options.counter_interval_ms),
        idle(context, flows.table(), *target, options.counter_interval_ms != 0),
        meters(context, *target),
        addresses(context, *target),
        packets{*target},
        chain(context) {
    flows.set_target(*target, idle);
  }

  Context context;
  bool service_chain;
  FlowRecords flows;
  std::unique_ptr<Target> target;
  Announcement announcement;
  CounterReport counters;
  IdleWatch idle;
  SettingRecords<MeterKind> meters;
  SettingRecords<AddressKind> addresses;
  PacketSignal packets;
  Chain chain;
};

// The service of this process; a global, because the platform's callbacks carry no argument.
std::unique_ptr<Service> g_service;

// ---- subscriptions

template <auto Part>
int deliver(void * /*conn*/, const qx_obj *msg) {
  if (g_service) ((*g_service).*Part).notified(*msg);
  return 0;
}

struct Subscription {
  std::int32_t db;
  qx_mom_spec spec;
  qx_mom_notify_cb callback;
};

constexpr Subscription kSubscriptions[] = {
    {kFlowDb,
     {{&s_policy_kelim__flow__descriptor, &s_policy_kelim__flow_key__descriptor}, QX_MOM_PACKED},
     deliver<&Service::flows>},
    {kFlowDb,
     {{&s_policy_kelim__meter__descriptor, &s_policy_kelim__meter_key__descriptor}, QX_MOM_DECODED},
     deliver<&Service::meters>},
    {kFlowDb,
     {{&s_policy_kelim__onc_ip__descriptor, &s_policy_kelim__onc_ip_key__descriptor}, QX_MOM_DECODED},
     deliver<&Service::addresses>},
    {kFlowDb,
     {{&s_target__capabilities__descriptor, &s_target__capabilities_key__descriptor}, QX_MOM_DECODED},
     deliver<&Service::announcement>},
    {kFlowDb, {{&s_policy_kelim__pkt_sig__descriptor, nullptr}, QX_MOM_DECODED}, deliver<&Service::packets>},
    {kChainDb,
     {{&s_policy_kelim__parse_flow__descriptor, &s_policy_kelim__parse_flow_key__descriptor}, QX_MOM_DECODED},
     deliver<&Service::chain>},
};

int subscribe(std::int32_t db) {
  for (const Subscription &subscription : kSubscriptions) {
    if (subscription.db != db) continue;
    const int result = qx_mom_subscribe(g_service->context.global, db, &subscription.spec, subscription.callback);
    if (result == 0) continue;
    PROGRAMMER_LOG(g_service->context, QX_ZLOG_ERROR, "cannot subscribe to %s: %d", subscription.spec.type.value->name, result);
    return result;
  }
  return 0;
}

template <std::int32_t Db>
int connected(void * /*conn*/, const char * /*label*/) {
  if (!g_service) return 0;
  if (Db == kFlowDb) g_service->announcement.announce();
  return subscribe(Db);
}

int connect(qx_global *global, std::int32_t db, qx_mom_connect_cb callback) {
  const int result = qx_mom_client_connect_sync(global, db);
  return result != 0 ? result : qx_mom_client_connect(global, db, callback, "connect programmer");
}

// ---- the operator's view

int show(const std::int64_t * /*args*/, std::uint32_t /*count*/) {
  const std::optional<Totals> now = totals();
  if (!now) return QX_FAILED;
  const auto line = [](const char *what, std::uint64_t number) { std::printf("%-36s%12" PRIu64 "\n", what, number); };
  line("flows in the target", now->flows);
  line("capacity", now->size);
  line("meters in the target", now->meters);
  line("controller addresses", now->addresses);
  line("answers waiting for their delay", now->waiting);
  line("answers not yet accepted", now->owed);
  line("answered installed", now->installed);
  line("answered failed", now->failed);
  line("answered out of resources", now->resource);
  line("unchanged, target not touched", now->untouched);
  line("counter records written", now->counters);
  line("flows translated to entries", now->translated);
  for (const auto &[kind, count] : g_service->context.faults) line(("skipped: " + kind).c_str(), count);
  g_service->target->describe(line);
  return 0;
}

// Lists the flows that are in force in the target, one key per line, as the database's tools write it.
int list_flows(const std::int64_t * /*args*/, std::uint32_t /*count*/) {
  if (!g_service) return QX_FAILED;
  const KnownFlows &table = g_service->flows.table();
  for (std::uint32_t slot = 0; slot < table.slots(); ++slot) {
    const KnownFlow &entry = table[slot];
    if (entry.state != KnownFlowState::free && g_service->target->holds(slot))
      std::printf("%" PRIu64 ":%u\n", entry.index, entry.vsd);
  }
  return 0;
}

}  // namespace

std::string check_script(const Options &options) {
  std::string error;
  Script script;
  script.parse(options.script, options.seed, error);
  return error;
}

std::string check(const Options &options) {
  const std::string error = check_script(options);
  return error.empty() ? check_target(options) : error;
}

int start_embedded(qx_global *global, const Options &options, std::string *why) {
  if (!global || !check(options).empty()) return QX_INVALID;
  if (g_service) return QX_FAILED;
  try {
    g_service = std::make_unique<Service>(global, options);
  } catch (const std::runtime_error &missing) {
    if (why) *why = missing.what();
    return QX_UNSUPPORTED;
  }
  int result = connect(global, kFlowDb, connected<kFlowDb>);
  if (result == 0 && options.service_chain) result = connect(global, kChainDb, connected<kChainDb>);
  if (result == 0 && !g_service->counters.start()) result = QX_FAILED;
  if (result != 0) {
    g_service.reset();
    return result;
  }
  if (ssat_lib_init(global, "programmer") == 0) {
    ssat_reg_mod_cmd("programmer", "show", "nil", show);
    ssat_reg_mod_cmd("programmer", "flows", "nil", list_flows);
  }
  return 0;
}

void stop_embedded() {
  g_service.reset();
}

std::optional<Totals> totals() {
  if (!g_service) return std::nullopt;
  const Target::Usage usage = g_service->target->usage();
  const FlowRecords &flows = g_service->flows;
  Totals now{.flows = usage.flows,
             .size = usage.size,
             .meters = usage.meters,
             .addresses = usage.addresses,
             .waiting = usage.waiting,
             .owed = flows.owed(),
             .installed = flows.answered(Outcome::installed),
             .failed = flows.answered(Outcome::failed),
             .resource = flows.answered(Outcome::resource),
             .untouched = flows.untouched(),
             .removed = flows.removed(),
             .counters = g_service->counters.written(),
             .translated = g_service->chain.translated(),
             .skipped = 0};
  for (const auto &[kind, count] : g_service->context.faults) now.skipped += count;
  return now;
}

int release(qx_global *global, const Options &options, std::string &said) {
  const Context context{global, qx_zlog_init("programmer"), {}};
  return release_targets(context, options, said) ? 0 : QX_FAILED;
}

std::optional<PlaneState> plane() {
  return g_service == nullptr ? std::nullopt : g_service->target->plane();
}

}  // namespace programmer
