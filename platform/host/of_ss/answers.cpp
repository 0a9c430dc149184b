#include "host/of_ss/answers.h"

#include <array>

#include "host/mom/hub.h"
#include "programmer/wire.h"
#include "s_policy_kelim.pb-c.h"
#include "southbound.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

// Loop's thread.
std::function<void(Bytes)> g_failed;
std::function<void(std::uint64_t)> g_seen;

// Field numbers of the schema.
enum : std::uint32_t { kKeyIndex = 1, kStaKey = 5, kStaStatus = 6 };

struct Answer {
  std::uint64_t index = 0, status = 0;
};

std::uint64_t index_in(programmer::Bytes key) {
  programmer::WireReader reader(key);
  programmer::WireField field;
  while (reader.next(field))
    if (field.number == kKeyIndex) return field.value;
  return 0;
}

Answer read(programmer::Bytes record) {
  Answer answer;
  programmer::WireReader reader(record);
  programmer::WireField field;
  while (reader.next(field)) {
    if (field.number == kStaKey) answer.index = index_in(field.bytes);
    if (field.number == kStaStatus) answer.status = field.value;
  }
  return answer;
}

void tell(std::uint64_t index, std::uint32_t code) {
  std::array<std::byte, sb::kFlowResultLen> message{};
  sb::put_header(message.data(), kFlowAnswer, 0, message.size(), 0);
  sb::put(message.data(), sb::kFlowIndex, index);
  sb::put(message.data(), sb::kFlowResultCode, code);
  g_failed(message);
}

int answered(void *, const qx_obj *object) {
  const Answer answer = read({object->packed, object->packed_len});
  g_seen(answer.index);
  if (object->cmd != QX_MOM_CMD_SET) return 0;
  const bool no_room = answer.status == S_POLICY_KELIM__STATUS_E__STATUS_RESOURCE;
  if (no_room || answer.status == S_POLICY_KELIM__STATUS_E__STATUS_FAILED)
    tell(answer.index, no_room ? sb::kResultResource : sb::kResultFailed);
  return 0;
}

}  // namespace

void watch_answers(std::function<void(Bytes)> failed, std::function<void(std::uint64_t)> seen) {
  g_failed = std::move(failed);
  g_seen = std::move(seen);
  mom::Hub *hub = mom::hub();
  mom::Database *db = hub ? hub->database(QX_MOM_UDP_DB) : nullptr;
  const mom::RecordType *type = mom::RecordType::of(&s_policy_kelim__flow_sta__descriptor);
  if (db && type) hub->subscribe(hub->slot(*db, *type), true, answered, true);
}

}  // namespace host::of_ss
