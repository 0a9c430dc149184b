#include "host/of_ss/stored/look.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "host/mom/hub.h"
#include "s_policy_kelim.pb-c.h"

namespace host::of_ss {
namespace {

constexpr std::size_t kAskedStep = 1024;    // the agent's flows in one step
constexpr std::size_t kCompareStep = 8192;  // observations; exceeded by at most a bucket
constexpr std::size_t kCheckStep = 256;     // candidates

// The database's contents for some flows and for the meters, of virtual switch 0.
struct Held {
  struct Record {
    std::vector<std::byte> data;
    bool stored = false;
    bool good = false;  // a confirmed flow, a meter without failure
    bool asked = false;
  };
  std::unordered_map<std::uint64_t, Record> flows;
  std::map<std::uint32_t, Record> meters;
};

Bytes bytes_of(const ProtobufCBinaryData &data) {
  return {reinterpret_cast<const std::byte *>(data.data), data.len};
}

void keep(Held::Record &record, Bytes data) {
  record.data.assign(data.begin(), data.end());
  record.stored = true;
}

const SPolicyKelim__Flow *flow_of(const qx_obj *object) {
  const auto *flow = static_cast<const SPolicyKelim__Flow *>(object->value);
  return flow && flow->index && flow->index->vsd_id == 0 ? flow : nullptr;
}

const SPolicyKelim__FlowSta *answer_of(const qx_obj *object) {
  const auto *answer = static_cast<const SPolicyKelim__FlowSta *>(object->value);
  return answer && answer->index && answer->index->vsd_id == 0 ? answer : nullptr;
}

bool is_installed(const SPolicyKelim__FlowSta &answer) {
  return answer.status == S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED;
}

int keep_flow(const qx_obj *object, void *held) {
  if (const auto *flow = flow_of(object))
    keep(static_cast<Held *>(held)->flows[flow->index->flow_index], bytes_of(flow->flow_data));
  return 0;
}

int keep_answer(const qx_obj *object, void *held) {
  if (const auto *answer = answer_of(object))
    static_cast<Held *>(held)->flows[answer->index->flow_index].good = is_installed(*answer);
  return 0;
}

int keep_meter(const qx_obj *object, void *held) {
  const auto *holder = static_cast<const qx_mom_hash_value *>(object->value);
  const auto *meter = holder ? reinterpret_cast<const SPolicyKelim__Meter *>(holder->record) : nullptr;
  if (!meter || !meter->index || meter->index->vsd_id != 0) return 0;
  Held::Record &record = static_cast<Held *>(held)->meters[meter->index->meter_id];
  keep(record, bytes_of(meter->meter_data));
  record.good = meter->status != S_POLICY_KELIM__STATUS_E__STATUS_FAILED;
  return 0;
}

mom::Database &database() {
  return *mom::hub()->database(QX_MOM_UDP_DB);
}

mom::Slot &slot_of(const ProtobufCMessageDescriptor &type) {
  return mom::hub()->slot(database(), *mom::RecordType::of(&type));
}

// A visitor that calls `take` with objects of the slot, as qx_mom_scan_sync would.
mom::Visitor presenting(mom::Slot &slot, qx_mom_scan_cb take, void *arg) {
  return [&slot, take, arg](const mom::Key &key, mom::PackedBytes packed) {
    mom::hub()->present(slot, key, packed, take, arg);
    return true;
  };
}

// Reads the records of these flows, of the type of `record`, whose index is such a key.
template <typename Record>
bool read(std::span<const std::uint64_t> indexes, Record record, qx_mom_scan_cb take, Held &held) {
  mom::Slot &slot = slot_of(*record.base.descriptor);
  SPolicyKelim__FlowKey flow = S_POLICY_KELIM__FLOW_KEY__INIT;
  record.index = &flow;
  std::vector<mom::Key> keys;
  for (const std::uint64_t index : indexes) {
    flow.flow_index = index;
    keys.push_back(slot.type.key_of(record.base).value());
  }
  return mom::hub()->store().visit_sync(slot, keys, presenting(slot, take, &held)) == 0;
}

bool read_meters(qx_global *global, Held &held) {
  const SPolicyKelim__Meter meter = S_POLICY_KELIM__METER__INIT;
  return qx_mom_scan_sync(global, QX_MOM_UDP_DB, &meter.base, 0, keep_meter, &held) == 0;
}

// Checks a requested object, in the order not stored, stored otherwise, not good; and marks it as seen.
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

// Adds answers without a record: the programming service confirms flows in its target, and withdraws the answer when the flow is
// removed.
void add_left(const Held &held, std::vector<Difference> &found) {
  for (const auto &[index, record] : held.flows)
    if (record.good && !record.stored && !record.asked) found.push_back({Difference::kFlowLeftInTarget, index});
}

void compare_flows(const Agent &agent, std::span<const std::uint64_t> indexes, Held &held, std::vector<Difference> &found) {
  for (const std::uint64_t index : indexes)
    if (const FlowEntry *flow = agent.flows().table().by_index(index))
      compare_one(held.flows, index, flow->southbound(), Difference::kFlowNotStored, found);
  add_rest(held.flows, Difference::kFlowNotAskedFor, found);
  add_left(held, found);
}

void compare_meters(const Agent &agent, Held &held, std::vector<Difference> &found) {
  for (const auto &[id, meter] : agent.of_switch().meters.all())
    compare_one(held.meters, id, meter.message, Difference::kMeterNotStored, found);
  add_rest(held.meters, Difference::kMeterNotAskedFor, found);
}

}  // namespace

Look::Result Look::step() {
  static constexpr std::array kParts = {&Look::begin,      &Look::walk_flows, &Look::walk_answers,
                                        &Look::walk_asked, &Look::compare,    &Look::check};
  const Part part = (this->*kParts[part_])();
  if (part == Part::failed) return Result::disturbed;
  if (part == Part::over && ++part_ == std::size(kParts)) return Result::undisturbed;
  return Result::unfinished;
}

unsigned Look::progress() const {
  constexpr std::size_t kSides = 3;
  return static_cast<unsigned>(std::min<std::size_t>(99, noted_ * 100 / (kSides * flows_ + 1)));
}

// False when a request is in flight, whose outcome is not a difference, or when the openflow thread is too busy.
bool Look::quiet_run(const std::function<void(Agent &agent)> &work) {
  bool quiet = false;
  return agent_.run([&](Agent &agent) {
    quiet = agent.flows().in_flight().all_decided() && !agent.of_switch().replay.is_asked_or_running();
    if (quiet) work(agent);
  }) && quiet;
}

Look::Part Look::begin() {
  const auto count = [this](Agent &agent) { flows_ = agent.flows().table().size(); };
  return database().sync_up && quiet_run(count) ? Part::over : Part::failed;
}

void Look::note(std::uint64_t index, Bytes message, Observation::Side side) {
  const std::string_view text(reinterpret_cast<const char *>(message.data()), message.size());
  const auto content = message.empty() ? 0 : static_cast<std::uint32_t>(std::hash<std::string_view>()(text));
  observations_[index % observations_.size()].push_back({index, content, side});
  ++noted_;
}

int Look::take_flow(const qx_obj *object, void *look) {
  if (const auto *flow = flow_of(object))
    static_cast<Look *>(look)->note(flow->index->flow_index, bytes_of(flow->flow_data), Observation::kStored);
  return 0;
}

int Look::take_answer(const qx_obj *object, void *look) {
  if (const auto *answer = answer_of(object); answer && is_installed(*answer))
    static_cast<Look *>(look)->note(answer->index->flow_index, {}, Observation::kConfirmed);
  return 0;
}

Look::Part Look::walk(const ProtobufCMessageDescriptor &type, qx_mom_scan_cb take) {
  mom::Slot &slot = slot_of(type);
  const int rv = mom::hub()->store().walk_sync(slot, walk_, presenting(slot, take, this));
  if (rv == 0) walk_ = {};
  return rv < 0 ? Part::failed : rv == 0 ? Part::over : Part::more;
}

Look::Part Look::walk_flows() {
  return walk(s_policy_kelim__flow__descriptor, take_flow);
}

Look::Part Look::walk_answers() {
  return walk(s_policy_kelim__flow_sta__descriptor, take_answer);
}

Look::Part Look::walk_asked() {
  const FlowEntry *flow = nullptr;
  const bool ran = agent_.run([&](Agent &agent) {
    const FlowTable &table = agent.flows().table();
    for (std::size_t n = 0; n < kAskedStep && (flow = table.next(cursor_)); ++n)
      note(flow->index(), flow->southbound(), Observation::kAsked);
  });
  return !ran ? Part::failed : flow ? Part::more : Part::over;
}

// A flow is correct when every side has it with the same content.
void Look::compare_bucket(std::vector<Observation> &observations) {
  std::ranges::sort(observations, {}, &Observation::index);
  for (auto at = observations.begin(); at != observations.end();) {
    const std::uint64_t index = at->index;
    const auto end =
        std::find_if(at, observations.end(), [index](const Observation &observation) { return observation.index != index; });
    const std::uint32_t *content = nullptr;
    unsigned sides = 0;
    bool alike = true;
    for (; at != end; ++at) {
      sides |= 1U << at->side;
      if (at->side == Observation::kConfirmed) continue;
      alike &= !content || *content == at->content;
      content = &at->content;
    }
    if (!alike || sides != (1U << Observation::kStored | 1U << Observation::kConfirmed | 1U << Observation::kAsked))
      candidates_.push_back(index);
  }
  std::vector<Observation>().swap(observations);
}

Look::Part Look::compare() {
  for (std::size_t compared = 0; bucket_ < observations_.size(); ++bucket_) {
    if (compared > kCompareStep) return Part::more;
    compared += observations_[bucket_].size();
    compare_bucket(observations_[bucket_]);
  }
  return Part::over;
}

Look::Part Look::check() {
  const auto rest = std::span<const std::uint64_t>(candidates_).subspan(checked_);
  const auto some = rest.first(std::min(rest.size(), kCheckStep));
  const bool last = some.size() == rest.size();
  Held held;
  // Also checks before reading, which waits for all writes in flight.
  const bool checked = quiet_run([](Agent &) {}) && read(some, SPolicyKelim__Flow S_POLICY_KELIM__FLOW__INIT, keep_flow, held) &&
                       read(some, SPolicyKelim__FlowSta S_POLICY_KELIM__FLOW_STA__INIT, keep_answer, held) &&
                       (!last || read_meters(global_, held)) && quiet_run([&](Agent &agent) {
                         compare_flows(agent, some, held, found_);
                         if (last) compare_meters(agent, held, found_);
                       });
  if (!checked) return Part::failed;
  checked_ += some.size();
  if (last) std::ranges::sort(found_);
  return last ? Part::over : Part::more;
}

}  // namespace host::of_ss
