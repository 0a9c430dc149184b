#include "host/of_ss/audit.h"

#include <fmt/format.h>
#include <time.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <unordered_map>
#include <utility>

#include "host/log/log.h"
#include "host/mom/hub.h"
#include "qx_mom.h"
#include "s_policy_kelim.pb-c.h"

namespace host::of_ss {
namespace {

using nlohmann::json;

// However much there is to compare, the pause after a look is at least that many times as long as the look took this thread, but
// not longer than so many intervals.
constexpr int kTimesLonger = 1000, kMostIntervals = 10;

std::chrono::nanoseconds processor_time() {
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

struct Wording {
  const char *kind, *what;
};
constexpr Wording kWordings[] = {
    {"flow", "is not stored"},
    {"flow", "is stored otherwise"},
    {"flow", "is not confirmed"},
    {"flow", "is stored but not asked for"},
    {"meter", "is not stored"},
    {"meter", "is stored otherwise"},
    {"meter", "is stored as failed"},
    {"meter", "is stored but not asked for"},
    {"flow", "is in the target but neither stored nor asked for"},
};

// What the database holds, of virtual switch 0.
struct Held {
  struct Record {
    std::vector<std::byte> data;
    bool stored = false;
    bool good = false;  // a flow that is confirmed, a meter that has not failed
    bool asked = false;
  };
  std::unordered_map<std::uint64_t, Record> flows;
  std::map<std::uint32_t, Record> meters;
};

void keep(Held::Record &record, const ProtobufCBinaryData &data) {
  const auto *at = reinterpret_cast<const std::byte *>(data.data);
  record.data.assign(at, at + data.len);
  record.stored = true;
}

int take_flow(const qx_obj *object, void *held) {
  const auto *flow = static_cast<const SPolicyKelim__Flow *>(object->value);
  if (flow && flow->index && flow->index->vsd_id == 0)
    keep(static_cast<Held *>(held)->flows[flow->index->flow_index], flow->flow_data);
  return 0;
}

int take_answer(const qx_obj *object, void *held) {
  const auto *answer = static_cast<const SPolicyKelim__FlowSta *>(object->value);
  if (answer && answer->index && answer->index->vsd_id == 0)
    static_cast<Held *>(held)->flows[answer->index->flow_index].good =
        answer->status == S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED;
  return 0;
}

int take_meter(const qx_obj *object, void *held) {
  const auto *holder = static_cast<const qx_mom_hash_value *>(object->value);
  const auto *meter = holder ? reinterpret_cast<const SPolicyKelim__Meter *>(holder->record) : nullptr;
  if (!meter || !meter->index || meter->index->vsd_id != 0) return 0;
  Held::Record &record = static_cast<Held *>(held)->meters[meter->index->meter_id];
  keep(record, meter->meter_data);
  record.good = meter->status != S_POLICY_KELIM__STATUS_E__STATUS_FAILED;
  return 0;
}

bool read_held(qx_global *global, Held &held) {
  const SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
  const SPolicyKelim__FlowSta answer = S_POLICY_KELIM__FLOW_STA__INIT;
  const SPolicyKelim__Meter meter = S_POLICY_KELIM__METER__INIT;
  const auto scan = [global, &held](const ProtobufCMessage &type, qx_mom_scan_cb take) {
    return qx_mom_scan_sync(global, QX_MOM_UDP_DB, &type, 0, take, &held) == 0;
  };
  return scan(flow.base, take_flow) && scan(answer.base, take_answer) && scan(meter.base, take_meter);
}

// What is wrong with one that was asked for, in the order not stored, stored otherwise, not good; and is noted as seen.
template <typename Records, typename Number>
void compare_one(Records &records, Number number, Bytes asked, Difference::What first, std::vector<Difference> &found) {
  const auto at = records.find(number);
  const bool stored = at != records.end() && at->second.stored;
  if (!stored)
    found.push_back({first, number});
  else if (!std::ranges::equal(at->second.data, asked))
    found.push_back({static_cast<Difference::What>(first + 1), number});
  else if (!at->second.good)
    found.push_back({static_cast<Difference::What>(first + 2), number});
  if (at != records.end()) at->second.asked = true;
}

template <typename Records>
void add_rest(const Records &records, Difference::What what, std::vector<Difference> &found) {
  for (const auto &[number, record] : records)
    if (record.stored && !record.asked) found.push_back({what, number});
}

// The programming service confirms what its target holds, and takes that back when the flow goes.
void add_left(const Held &held, std::vector<Difference> &found) {
  for (const auto &[index, record] : held.flows)
    if (record.good && !record.stored && !record.asked) found.push_back({Difference::flow_left_in_target, index});
}

void compare_all(const Agent &agent, Held &held, std::vector<Difference> &found) {
  std::uint32_t cursor = 0;
  while (const FlowEntry *flow = agent.flows().table().next(cursor))
    compare_one(held.flows, flow->index(), flow->southbound(), Difference::flow_not_stored, found);
  for (const auto &[id, meter] : agent.meters().all())
    compare_one(held.meters, id, meter.message, Difference::meter_not_stored, found);
  add_rest(held.flows, Difference::flow_not_asked_for, found);
  add_rest(held.meters, Difference::meter_not_asked_for, found);
  add_left(held, found);
  std::ranges::sort(found);
}

// There is no record to delete. The programming service is asked to look again whether the flow is stored.
void doubt_flow(qx_global *global, std::uint64_t index) {
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = index;
  SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
  flow.index = &key;
  qx_mom_publish(global, QX_MOM_UDP_DB, &flow.base, 0, 0);
}

// What a synchronisation does not repair is a meter that nobody asked for: the record of a meter outlives it. Such a meter is
// left where the database was away when the meter was deleted.
void repair(Agent &agent, const std::vector<Difference> &differences) {
  bool others = false;
  for (const Difference &difference : differences) {
    if (difference.what == Difference::meter_not_asked_for)
      agent.meters().delete_stray(static_cast<std::uint32_t>(difference.number));
    else
      others |= difference.what != Difference::flow_left_in_target;
  }
  if (others) agent.synchronise();
}

}  // namespace

std::string text(const Difference &difference) {
  const Wording &wording = kWordings[difference.what];
  return fmt::format("{} {} {}", wording.kind, difference.number, wording.what);
}

Audit::Audit(qx_global *global, Agent &agent, const Options &options)
    : global_(global), agent_(agent), options_(options), timer_([this] { repeat(); }) {
  if (options.interval.count()) timer_.arm(options.interval);
}

void Audit::repeat() {
  const auto begun = processor_time();
  look();
  const auto cost = undisturbed_ ? kTimesLonger * (processor_time() - begun) : std::chrono::nanoseconds(0);
  timer_.arm(std::clamp<clock::Time>(cost, options_.interval, kMostIntervals * options_.interval));
}

// False when something is under way, or either side cannot be looked at.
bool Audit::compare(std::vector<Difference> &found) {
  Held held;
  bool quiet = false;
  return read_held(global_, held) && agent_.run([&](Agent &agent) {
    quiet = agent.flows().ledger().all_decided();
    if (quiet) compare_all(agent, held, found);
  }) && quiet;
}

bool Audit::look() {
  std::vector<Difference> found, confirmed;
  const bool before = std::exchange(undisturbed_, compare(found));
  if (!undisturbed_) return false;
  ++counts_.looks;
  looked_ = clock::now();
  std::ranges::set_intersection(found, last_, std::back_inserter(confirmed));
  last_ = std::move(found);
  if (!before) return false;
  note(std::move(confirmed));
  return true;
}

// A repair that has changed nothing is not tried again.
void Audit::note(std::vector<Difference> confirmed) {
  if (confirmed == confirmed_) return;
  confirmed_ = std::move(confirmed);
  if (confirmed_.empty()) return log::info("audit: the database holds what was asked for again");
  counts_.found += confirmed_.size();
  log::warn("audit: {} ({} differences between what was asked for and what is stored)", text(confirmed_.front()),
            confirmed_.size());
  if (!options_.repair) return;
  // What the database does not take cannot be repaired: when it is back, everything is handed over again.
  if (!mom::hub()->takes_writes()) return;
  ++counts_.repairs;
  for (const Difference &difference : confirmed_)
    if (difference.what == Difference::flow_left_in_target) doubt_flow(global_, difference.number);
  agent_.run([this](Agent &agent) { repair(agent, confirmed_); });
}

json Audit::view() {
  const bool settled = look();
  json list = json::array();
  for (const Difference &difference : confirmed_) {
    const Wording &wording = kWordings[difference.what];
    list.push_back({{"kind", wording.kind}, {"number", difference.number}, {"what", wording.what}});
  }
  return {{"settled", settled},
          {"differences", std::move(list)},
          {"looks", counts_.looks},
          {"found", counts_.found},
          {"repairs", counts_.repairs}};
}

json Audit::summary() const {
  const auto age = std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - looked_);
  return {{"differences", confirmed_.size()},
          {"looks", counts_.looks},
          {"age_s", counts_.looks ? json(static_cast<double>(age.count()) / 1000) : json()},
          {"found", counts_.found},
          {"repairs", counts_.repairs}};
}

}  // namespace host::of_ss
