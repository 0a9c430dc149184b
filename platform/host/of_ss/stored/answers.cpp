#include "host/of_ss/stored/answers.h"
#include "host/of_ss/desired/results.h"

#include <array>

#include "host/mom/hub.h"
#include "record_reader.h"
#include "s_policy_kelim.pb-c.h"
#include "southbound.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

// Loop's thread.
std::function<void(Bytes)> g_take;
Seen g_seen;

// Field numbers of the schema.
enum : std::uint32_t { kKeyIndex = 1, kStaKey = 5, kStaStatus = 6, kCounterKey = 5, kPacketSum = 9, kByteSum = 10 };

struct Answer {
  std::uint64_t index = 0, status = 0;
};

std::uint64_t index_in(records::Bytes key) {
  records::Reader reader(key);
  records::Field field;
  while (reader.next(field))
    if (field.number == kKeyIndex) return field.value;
  return 0;
}

Answer read(records::Bytes record) {
  Answer answer;
  records::Reader reader(record);
  records::Field field;
  while (reader.next(field)) {
    if (field.number == kStaKey) answer.index = index_in(field.bytes);
    if (field.number == kStaStatus) answer.status = field.value;
  }
  return answer;
}

void tell(std::uint16_t type, std::uint64_t index, std::uint32_t code = 0) {
  std::array<std::byte, sb::kFlowResultLen> message{};
  sb::put_header(message.data(), static_cast<sb::MsgType>(type), 0, message.size(), 0);
  sb::put(message.data(), sb::kFlowIndex, index);
  sb::put(message.data(), sb::kFlowResultCode, code);
  g_take(message);
}

int answered(void *, const qx_obj *object) {
  if (object->cmd != QX_MOM_CMD_SET && object->cmd != QX_MOM_CMD_DEL) return 0;
  const Answer answer = read({object->packed, object->packed_len});
  const bool is_there = object->cmd == QX_MOM_CMD_SET;
  g_seen(answer.index, is_there ? std::optional(static_cast<std::uint32_t>(answer.status)) : std::nullopt);
  if (!is_there) return 0;
  const bool no_room = answer.status == S_POLICY_KELIM__STATUS_E__STATUS_RESOURCE;
  if (no_room || answer.status == S_POLICY_KELIM__STATUS_E__STATUS_FAILED)
    tell(kFlowAnswer, answer.index, no_room ? sb::kResultResource : sb::kResultFailed);
  return 0;
}

// A published record, which is not stored, reports an idle flow (idle_watch.h of the programming service).
int counted(void *, const qx_obj *counter) {
  if (counter->cmd != QX_MOM_CMD_SET && counter->cmd != QX_MOM_CMD_PUBLISH) return 0;
  std::array<std::byte, sb::kStatReplyLen> message{};
  const std::uint16_t type = counter->cmd == QX_MOM_CMD_SET ? std::uint16_t{sb::kStatReply} : kFlowIdle;
  sb::put_header(message.data(), type, 0, message.size(), 0);
  records::Reader reader({counter->packed, counter->packed_len});
  records::Field field;
  while (reader.next(field)) {
    if (field.number == kCounterKey) sb::put(message.data(), sb::kStatIndex, index_in(field.bytes));
    if (field.number == kPacketSum) sb::put(message.data(), sb::kStatPackets, field.value);
    if (field.number == kByteSum) sb::put(message.data(), sb::kStatBytes, field.value);
  }
  g_take(message);
  return 0;
}

void watch(mom::Hub &hub, const ProtobufCMessageDescriptor &record, qx_mom_notify_cb callback) {
  hub.subscribe(hub.slot(*hub.database(QX_MOM_UDP_DB), *mom::RecordType::of(&record)), true, callback, true);
}

}  // namespace

void watch_answers(std::function<void(Bytes)> take, Seen seen) {
  g_take = std::move(take);
  g_seen = std::move(seen);
  mom::Hub *hub = mom::hub();
  if (!hub) return;
  watch(*hub, s_policy_kelim__flow_sta__descriptor, answered);
  watch(*hub, s_policy_kelim__flow_counter__descriptor, counted);
}

}  // namespace host::of_ss
