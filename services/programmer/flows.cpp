#include "programmer/flows.h"

#include <functional>
#include <string_view>

#include "southbound.h"

namespace programmer {
namespace {

constexpr std::uint64_t kPayAgainUs = 10'000;  // wait before retrying when the database accepts no writes

constexpr SPolicyKelim__StatusE kStatusOf[] = {
    S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED,  // Outcome::installed
    S_POLICY_KELIM__STATUS_E__STATUS_FAILED,     // Outcome::failed
    S_POLICY_KELIM__STATUS_E__STATUS_RESOURCE,   // Outcome::resource
};

// The parts of a packed flow record that the service reads. Everything but key, status and stamp is content: while it is
// unchanged, the hardware need not be touched.
struct FlowRecord {
  FlowKey key;
  std::uint64_t uuid = 0;
  std::uint64_t content = 0;
  std::uint16_t idle_timeout_s = 0;  // 0: none
};

// Field numbers of the schema.
enum : std::uint32_t { kKeyIndex = 1, kKeyVsd = 2, kFlowKeyField = 5, kFlowStatus = 6, kFlowData = 8, kFlowUuid = 12 };

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

std::uint16_t idle_timeout_in(Bytes flow_mod) {
  constexpr std::size_t at = southbound::kFlowIdleTimeout;
  return flow_mod.size() < at + sizeof(std::uint16_t) ? 0 : southbound::get<std::uint16_t>(flow_mod.data(), at);
}

// False for bytes that are not a flow record, or for a record without a key. The table fetches the key's place meanwhile.
bool read_flow(Bytes bytes, FlowRecord &flow, const KnownFlows &table) {
  records::Reader reader(bytes);
  records::Field field;
  bool good = true;
  while (reader.next(field)) {
    if (field.number == kFlowKeyField) {
      good = good && read_key(field.bytes, flow.key);
      table.prefetch(flow.key);
    } else if (field.number == kFlowUuid) {
      flow.uuid = field.value;
    } else if (field.number != kFlowStatus) {
      flow.content = flow.content * 0x9e3779b97f4a7c15u + hash(field);
      if (field.number == kFlowData) flow.idle_timeout_s = idle_timeout_in(field.bytes);
    }
  }
  return good && !reader.broken() && flow.key != FlowKey{};
}

}  // namespace

FlowRecords::FlowRecords(Context &context)
    : context_(context),
      pay_timer_(
          context.global->master, [](void *self) { static_cast<FlowRecords *>(self)->pay(); }, this, "programmer owed answers"),
      catch_up_(
          context.global->master, [](void *self) { return static_cast<FlowRecords *>(self)->resynchronise(); }, this,
          "programmer flows again") {}

void FlowRecords::notified(const qx_obj &msg) {
  if (msg.cmd == QX_MOM_CMD_SET) requested(packed(msg));
  if (msg.cmd == QX_MOM_CMD_DEL) removed(packed(msg));
  if (msg.cmd == QX_MOM_CMD_PUBLISH) doubted(packed(msg));
  if (msg.cmd == QX_MOM_CMD_DATA_FETCH) catch_up_.now();
}

// ---- requests

void FlowRecords::requested(Bytes record) {
  FlowRecord flow;
  if (!read_flow(record, flow, table_)) return report_fault(context_, "flow record", record);
  const std::uint32_t slot = table_.insert(flow.key);
  KnownFlow &entry = table_[slot];
  entry.seen = true;
  const bool unchanged = entry.content == flow.content && entry.state >= KnownFlowState::installed;
  if (unchanged && entry.settled && entry.uuid == flow.uuid) {
    entry.settled = reading_;
    return;
  }
  if (unchanged && entry.state == KnownFlowState::installed) {
    ++untouched_;
    return settle(entry, flow.uuid, S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED);
  }
  entry.state = KnownFlowState::asked;
  entry.content = flow.content;
  idle_->watch(slot, flow.idle_timeout_s);
  target_->install_flow({flow.key, slot, flow.uuid, entry.sums}, record);
}

void FlowRecords::flow_answered(const FlowRequest &request, Outcome outcome) {
  KnownFlow &entry = table_[request.slot];
  entry.state = outcome == Outcome::installed ? KnownFlowState::installed : KnownFlowState::refused;
  ++answered_[static_cast<std::size_t>(outcome)];
  settle(entry, request.uuid, kStatusOf[static_cast<std::size_t>(outcome)]);
}

// Writes the answer, unless the database already holds the same one.
void FlowRecords::settle(KnownFlow &entry, std::uint64_t uuid, SPolicyKelim__StatusE status) {
  if (entry.settled && entry.uuid == uuid && entry.status == status) return;
  entry.uuid = uuid;
  entry.status = static_cast<std::uint8_t>(status);
  // A request read by a scan may be notified once more, because its notification was already in flight.
  entry.settled = reading_;
  tell({entry.key(), uuid, status});
}

void FlowRecords::removed(Bytes record) {
  FlowRecord flow;
  if (!read_flow(record, flow, table_)) return report_fault(context_, "deleted flow record", record);
  const std::uint32_t slot = table_.find(flow.key);
  if (slot != KnownFlows::kNone) remove(slot);
}

// Handles a publication by a process that has found the flow's answer but no flow: its deletion would never be notified.
void FlowRecords::doubted(Bytes record) {
  constexpr int kNoSuchObject = QX_NOT_FOUND;
  FlowRecord flow;
  if (!read_flow(record, flow, table_)) return report_fault(context_, "flow record in doubt", record);
  const std::uint32_t slot = table_.find(flow.key);
  if (slot == KnownFlows::kNone) return;
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = flow.key.index;
  key.vsd_id = flow.key.vsd;
  SPolicyKelim__Flow wanted = S_POLICY_KELIM__FLOW__INIT;
  wanted.index = &key;
  qx_obj *stored = nullptr;
  if (qx_mom_get_sync(context_.global, kFlowDb, &wanted.base, 0, &stored) == kNoSuchObject) remove(slot);
  qx_mom_qx_obj_free(stored);
}

void FlowRecords::remove(std::uint32_t slot) {
  const Answer gone{table_[slot].key(), 0, S_POLICY_KELIM__STATUS_E__STATUS_NONE, table_[slot].counted};
  target_->remove_flow(slot);
  table_.erase(slot);
  ++removed_;
  tell(gone);
}

// ---- answers

// Answers leave in order: once the database has rejected one, the others wait behind it.
void FlowRecords::tell(const Answer &answer) {
  if (owed_.empty() && write(answer)) return;
  owed_.push_back(answer);
  pay_timer_.arm(kPayAgainUs);
}

void FlowRecords::pay() {
  while (!owed_.empty() && write(owed_.front())) owed_.pop_front();
  if (!owed_.empty()) pay_timer_.arm(kPayAgainUs);
}

// False when the database accepts no writes now, so that retrying makes sense.
bool FlowRecords::write(const Answer &answer) {
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

// Reconciles target and database: flows in the database that the target lacks are installed again, and flows that are no longer
// in the database are removed from the target. Nothing is removed unless everything could be read.
bool FlowRecords::resynchronise() {
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
    if (table_[slot].state != KnownFlowState::free && !table_[slot].seen) remove(slot);
  }
  target_->all_flows_known();
  PROGRAMMER_LOG(context_, QX_ZLOG_VERBOSE, "in step with the database: %u flows", table_.size());
  return true;
}

bool FlowRecords::read_answers() {
  SPolicyKelim__FlowSta any = S_POLICY_KELIM__FLOW_STA__INIT;
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  any.index = &key;
  return scan(context_, kFlowDb, any, [this](const qx_obj &object) {
    const auto *sta = static_cast<const SPolicyKelim__FlowSta *>(object.value);
    if (!sta || !sta->index) return;
    KnownFlow &entry = table_[table_.insert({sta->index->flow_index, sta->index->vsd_id})];
    entry.uuid = sta->rep_uuid;
    entry.status = static_cast<std::uint8_t>(sta->status);
    entry.settled = true;
  });
}

// Counters continue from the stored sums, except those of flows that this service has been counting all the time.
bool FlowRecords::read_counters() {
  SPolicyKelim__FlowCounter any = S_POLICY_KELIM__FLOW_COUNTER__INIT;
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  any.index = &key;
  return scan(context_, kFlowDb, any, [this](const qx_obj &object) {
    const auto *counter = static_cast<const SPolicyKelim__FlowCounter *>(object.value);
    if (!counter || !counter->index) return;
    KnownFlow &entry = table_[table_.insert({counter->index->flow_index, counter->index->vsd_id})];
    entry.counted = true;
    if (entry.state == KnownFlowState::stored) entry.sums = {counter->packet_sum, counter->byte_sum};
  });
}

bool FlowRecords::read_flows() {
  SPolicyKelim__Flow any = S_POLICY_KELIM__FLOW__INIT;
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  any.index = &key;
  std::vector<std::uint8_t> bytes;
  return scan(context_, kFlowDb, any, [&](const qx_obj &object) {
    if (!object.value) return;
    const auto *flow = static_cast<const ProtobufCMessage *>(object.value);
    bytes.resize(protobuf_c_message_get_packed_size(flow));
    protobuf_c_message_pack(flow, bytes.data());
    requested(bytes);
  });
}

}  // namespace programmer
