#include "programmer/flows.h"

#include <functional>
#include <string_view>

namespace programmer {
namespace {

constexpr std::uint64_t kPayAgainUs = 10'000;  // how long to wait for a database that takes nothing

constexpr SPolicyKelim__StatusE kStatusOf[] = {
    S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED,  // Outcome::kInstalled
    S_POLICY_KELIM__STATUS_E__STATUS_FAILED,     // Outcome::kFailed
    S_POLICY_KELIM__STATUS_E__STATUS_RESOURCE,   // Outcome::kResource
};

// The parts of a packed flow record that are read here. Everything but key, status and stamp is content: when it is the same, the
// hardware need not be touched.
struct FlowRecord {
  FlowKey key;
  std::uint64_t uuid = 0;
  std::uint64_t content = 0;
};

// Field numbers of the schema.
enum : std::uint32_t { kKeyIndex = 1, kKeyVsd = 2, kFlowKeyField = 5, kFlowStatus = 6, kFlowUuid = 12 };

bool read_key(Bytes bytes, FlowKey &key) {
  records::Reader reader(bytes);
  records::Field field;
  while (reader.next(field)) {
    if (field.number == kKeyIndex) key.index = field.value;
    if (field.number == kKeyVsd) key.vsd = static_cast<std::uint32_t>(field.value);
  }
  return !reader.broken();
}

std::uint64_t hash(const records::Field &field) {
  const std::string_view bytes(reinterpret_cast<const char *>(field.bytes.data()), field.bytes.size());
  return std::hash<std::string_view>{}(bytes) + field.value + field.number;
}

// False for bytes that are no flow record, or one without a key.
bool read_flow(Bytes bytes, FlowRecord &flow) {
  records::Reader reader(bytes);
  records::Field field;
  bool good = true;
  while (reader.next(field)) {
    if (field.number == kFlowKeyField) {
      good = good && read_key(field.bytes, flow.key);
    } else if (field.number == kFlowUuid) {
      flow.uuid = field.value;
    } else if (field.number != kFlowStatus) {
      flow.content = flow.content * 0x9e3779b97f4a7c15u + hash(field);
    }
  }
  return good && !reader.broken() && flow.key != FlowKey{};
}

}  // namespace

Flows::Flows(Context &context)
    : context_(context),
      pay_timer_(
          context.global->master, [](void *self) { static_cast<Flows *>(self)->pay(); }, this, "programmer owed answers"),
      catch_up_(
          context.global->master, [](void *self) { return static_cast<Flows *>(self)->resynchronise(); }, this,
          "programmer flows again") {}

void Flows::notified(const qx_obj &msg) {
  if (msg.cmd == QX_MOM_CMD_SET) requested(packed(msg));
  if (msg.cmd == QX_MOM_CMD_DEL) removed(packed(msg));
  if (msg.cmd == QX_MOM_CMD_PUBLISH) doubted(packed(msg));
  if (msg.cmd == QX_MOM_CMD_DATA_FETCH) catch_up_.now();
}

// ---- requests

void Flows::requested(Bytes record) {
  FlowRecord flow;
  if (!read_flow(record, flow)) return report_fault(context_, "flow record", record);
  const std::uint32_t slot = table_.insert(flow.key);
  FlowEntry &entry = table_[slot];
  entry.seen = true;
  const bool unchanged = entry.content == flow.content && entry.state >= FlowState::kInstalled;
  if (unchanged && entry.settled && entry.uuid == flow.uuid) {
    entry.settled = reading_;
    return;
  }
  if (unchanged && entry.state == FlowState::kInstalled) {
    ++untouched_;
    return settle(entry, flow.uuid, S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED);
  }
  entry.state = FlowState::kAsked;
  entry.content = flow.content;
  target_->install_flow({flow.key, slot, flow.uuid, entry.sums}, record);
}

void Flows::flow_answered(const FlowRequest &request, Outcome outcome) {
  FlowEntry &entry = table_[request.slot];
  entry.state = outcome == Outcome::kInstalled ? FlowState::kInstalled : FlowState::kRefused;
  ++answered_[static_cast<std::size_t>(outcome)];
  settle(entry, request.uuid, kStatusOf[static_cast<std::size_t>(outcome)]);
}

// Tells the database, unless it holds this very answer from before.
void Flows::settle(FlowEntry &entry, std::uint64_t uuid, SPolicyKelim__StatusE status) {
  if (entry.settled && entry.uuid == uuid && entry.status == status) return;
  entry.uuid = uuid;
  entry.status = static_cast<std::uint8_t>(status);
  // A request read by a scan may be notified once more: its notification was on the way already.
  entry.settled = reading_;
  tell({entry.key(), uuid, status});
}

void Flows::removed(Bytes record) {
  FlowRecord flow;
  if (!read_flow(record, flow)) return report_fault(context_, "deleted flow record", record);
  const std::uint32_t slot = table_.find(flow.key);
  if (slot != FlowTable::kNone) remove(slot);
}

// Somebody has found the flow's answer and no flow: nobody would ever tell that it has gone.
void Flows::doubted(Bytes record) {
  constexpr int kNoSuchObject = QX_NOT_FOUND;
  FlowRecord flow;
  if (!read_flow(record, flow)) return report_fault(context_, "flow record in doubt", record);
  const std::uint32_t slot = table_.find(flow.key);
  if (slot == FlowTable::kNone) return;
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = flow.key.index;
  key.vsd_id = flow.key.vsd;
  SPolicyKelim__Flow wanted = S_POLICY_KELIM__FLOW__INIT;
  wanted.index = &key;
  qx_obj *stored = nullptr;
  if (qx_mom_get_sync(context_.global, kFlowDb, &wanted.base, 0, &stored) == kNoSuchObject) remove(slot);
  qx_mom_qx_obj_free(stored);
}

void Flows::remove(std::uint32_t slot) {
  const Answer gone{table_[slot].key(), 0, S_POLICY_KELIM__STATUS_E__STATUS_NONE, table_[slot].counted};
  target_->remove_flow(slot);
  table_.erase(slot);
  ++removed_;
  tell(gone);
}

// ---- answers

// Answers leave in order: behind one that the database did not take, the others wait.
void Flows::tell(const Answer &answer) {
  if (owed_.empty() && write(answer)) return;
  owed_.push_back(answer);
  pay_timer_.arm(kPayAgainUs);
}

void Flows::pay() {
  while (!owed_.empty() && write(owed_.front())) owed_.pop_front();
  if (!owed_.empty()) pay_timer_.arm(kPayAgainUs);
}

// False when the database takes nothing now, so that trying again makes sense.
bool Flows::write(const Answer &answer) {
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = answer.key.index;
  key.vsd_id = answer.key.vsd;
  SPolicyKelim__FlowSta sta = S_POLICY_KELIM__FLOW_STA__INIT;
  sta.index = &key;
  int result = 0;
  if (answer.status == S_POLICY_KELIM__STATUS_E__STATUS_NONE) {
    SPolicyKelim__FlowCounter counter = S_POLICY_KELIM__FLOW_COUNTER__INIT;
    counter.index = &key;
    result = qx_mom_del(context_.global, kFlowDb, &sta.base, 0, 0);
    if (answer.counted && result != QX_NO_ROOM && result != QX_FAILED)
      result = qx_mom_del(context_.global, kFlowDb, &counter.base, 0, 0);
  } else {
    sta.status = answer.status;
    sta.rep_uuid = answer.uuid;
    result = qx_mom_set(context_.global, kFlowDb, &sta.base, 0, 0);
  }
  return result != QX_NO_ROOM && result != QX_FAILED;
}

// ---- resynchronisation

// Brings target and database together: what the database holds is asked of the target again where it is not there, and what the
// database no longer holds leaves the target. Nothing leaves unless everything could be read.
bool Flows::resynchronise() {
  owed_.clear();
  for (std::uint32_t slot = 0; slot < table_.slots(); ++slot) {
    table_[slot].seen = false;
    table_[slot].settled = false;
  }
  reading_ = true;
  const bool complete = read_answers() && read_counters() && read_flows();
  reading_ = false;
  if (!complete) {
    PROGRAMMER_LOG(context_, QX_ZLOG_ERROR, "the database cannot be read, trying again");
    return false;
  }
  for (std::uint32_t slot = 0; slot < table_.slots(); ++slot) {
    if (table_[slot].state != FlowState::kFree && !table_[slot].seen) remove(slot);
  }
  target_->all_flows_known();
  PROGRAMMER_LOG(context_, QX_ZLOG_VERBOSE, "in step with the database: %u flows", table_.size());
  return true;
}

bool Flows::read_answers() {
  SPolicyKelim__FlowSta any = S_POLICY_KELIM__FLOW_STA__INIT;
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  any.index = &key;
  return scan(context_, kFlowDb, any, [this](const qx_obj &object) {
    const auto *sta = static_cast<const SPolicyKelim__FlowSta *>(object.value);
    if (sta == nullptr || sta->index == nullptr) return;
    FlowEntry &entry = table_[table_.insert({sta->index->flow_index, sta->index->vsd_id})];
    entry.uuid = sta->rep_uuid;
    entry.status = static_cast<std::uint8_t>(sta->status);
    entry.settled = true;
  });
}

// Counters go on from the stored sums, except those of flows that have counted here all the time.
bool Flows::read_counters() {
  SPolicyKelim__FlowCounter any = S_POLICY_KELIM__FLOW_COUNTER__INIT;
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  any.index = &key;
  return scan(context_, kFlowDb, any, [this](const qx_obj &object) {
    const auto *counter = static_cast<const SPolicyKelim__FlowCounter *>(object.value);
    if (counter == nullptr || counter->index == nullptr) return;
    FlowEntry &entry = table_[table_.insert({counter->index->flow_index, counter->index->vsd_id})];
    entry.counted = true;
    if (entry.state == FlowState::kStored) entry.sums = {counter->packet_sum, counter->byte_sum};
  });
}

bool Flows::read_flows() {
  SPolicyKelim__Flow any = S_POLICY_KELIM__FLOW__INIT;
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  any.index = &key;
  std::vector<std::uint8_t> bytes;
  return scan(context_, kFlowDb, any, [&](const qx_obj &object) {
    if (object.value == nullptr) return;
    const auto *flow = static_cast<const ProtobufCMessage *>(object.value);
    bytes.resize(protobuf_c_message_get_packed_size(flow));
    protobuf_c_message_pack(flow, bytes.data());
    requested(bytes);
  });
}

}  // namespace programmer
