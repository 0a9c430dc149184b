#include "host/of_ss/shortage.h"

#include <algorithm>
#include <unordered_set>

#include "host/mom/hub.h"
#include "host/runtime/loop.h"
#include "programmer/wire.h"
#include "s_policy_kelim.pb-c.h"

namespace host::of_ss {
namespace {

namespace sb = southbound;

constexpr std::size_t kMostShort = 65536;  // answers to flows that nobody asks about any more

// Flows whose latest answer was "out of resources" and whose failure the daemon has not reported yet. Loop's thread.
std::unordered_set<std::uint64_t> g_short;

// Field numbers of the schema.
enum : std::uint32_t { kKeyIndex = 1, kStaKey = 5, kStaStatus = 6 };

std::uint64_t number_in(programmer::Bytes record, std::uint32_t number) {
  programmer::WireReader reader(record);
  programmer::WireField field;
  while (reader.next(field))
    if (field.number == number) return field.value;
  return 0;
}

int answered(void *, const qx_obj *answer) {
  if (answer->cmd != QX_MOM_CMD_SET) return 0;
  const programmer::Bytes record(answer->packed, answer->packed_len);
  const bool no_room = number_in(record, kStaStatus) == S_POLICY_KELIM__STATUS_E__STATUS_RESOURCE;
  if (!no_room && g_short.empty()) return 0;
  programmer::WireReader reader(record);
  programmer::WireField field;
  while (reader.next(field)) {
    if (field.number != kStaKey) continue;
    const std::uint64_t index = number_in(field.bytes, kKeyIndex);
    if (no_room && g_short.size() < kMostShort) g_short.insert(index);
    if (!no_room) g_short.erase(index);
  }
  return 0;
}

}  // namespace

void watch_shortages() {
  g_short.clear();
  mom::Hub *hub = mom::hub();
  mom::Database *db = hub ? hub->database(QX_MOM_UDP_DB) : nullptr;
  const mom::RecordType *type = mom::RecordType::of(&s_policy_kelim__flow_sta__descriptor);
  if (db && type) hub->subscribe(hub->slot(*db, *type), true, answered, true);
}

std::span<const std::byte> with_reason(std::span<const std::byte> message, std::array<std::byte, sb::kFlowResultLen> &room) {
  const void *bytes = message.data();
  if (message.size() != room.size() || sb::get<std::uint16_t>(bytes, sb::kType) != sb::kFlowResult || !on_loop_thread() ||
      g_short.erase(sb::get<std::uint64_t>(bytes, sb::kFlowIndex)) == 0) {
    return message;
  }
  std::ranges::copy(message, room.begin());
  sb::put(room.data(), sb::kFlowResultCode, sb::kResultResource);
  return room;
}

}  // namespace host::of_ss
