#include "host/of_ss/answers.h"

#include <array>

#include "host/mom/hub.h"
#include "programmer/wire.h"
#include "s_policy_kelim.pb-c.h"
#include "southbound.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

std::function<void(Bytes)> g_failed;  // loop's thread

// Field numbers of the schema.
enum : std::uint32_t { kKeyIndex = 1, kStaKey = 5, kStaStatus = 6 };

std::uint64_t number_in(programmer::Bytes record, std::uint32_t number) {
  programmer::WireReader reader(record);
  programmer::WireField field;
  while (reader.next(field))
    if (field.number == number) return field.value;
  return 0;
}

void tell(std::uint64_t index, std::uint32_t code) {
  std::array<std::byte, sb::kFlowResultLen> message{};
  sb::put_header(message.data(), kFlowAnswer, 0, message.size(), 0);
  sb::put(message.data(), sb::kFlowIndex, index);
  sb::put(message.data(), sb::kFlowResultCode, code);
  g_failed(message);
}

int answered(void *, const qx_obj *answer) {
  if (answer->cmd != QX_MOM_CMD_SET) return 0;
  const programmer::Bytes record(answer->packed, answer->packed_len);
  const std::uint64_t status = number_in(record, kStaStatus);
  const bool no_room = status == S_POLICY_KELIM__STATUS_E__STATUS_RESOURCE;
  if (!no_room && status != S_POLICY_KELIM__STATUS_E__STATUS_FAILED) return 0;
  programmer::WireReader reader(record);
  programmer::WireField field;
  while (reader.next(field)) {
    if (field.number != kStaKey) continue;
    tell(number_in(field.bytes, kKeyIndex), no_room ? sb::kResultResource : sb::kResultFailed);
  }
  return 0;
}

}  // namespace

void watch_answers(std::function<void(Bytes)> failed) {
  g_failed = std::move(failed);
  mom::Hub *hub = mom::hub();
  mom::Database *db = hub ? hub->database(QX_MOM_UDP_DB) : nullptr;
  const mom::RecordType *type = mom::RecordType::of(&s_policy_kelim__flow_sta__descriptor);
  if (db && type) hub->subscribe(hub->slot(*db, *type), true, answered, true);
}

}  // namespace host::of_ss
