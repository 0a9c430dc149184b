// Any bytes where others write to the Redis server: payloads of the channels, values of objects and names of what has expired,
// for every record type. A record that is delivered is whole: it is shown, and packed again as protobuf-c does, as the same
// record. A key that is taken is written as a name that reads as the same key.
#include <algorithm>
#include <vector>

#include "host/mom/hub.h"
#include "host/mom/record/render.h"
#include "host/mom/redis/layout.h"
#include "support/require.h"

namespace {

using namespace host::mom;

std::size_t decoded;

int look(const qx_obj *object, void * = nullptr) {
  const bool held = object->cmd == QX_MOM_CMD_HASH_NEW || object->cmd == QX_MOM_CMD_HASH_SET;
  const auto *record =
      held ? static_cast<const qx_mom_hash_value *>(object->value)->record : static_cast<const ProtobufCMessage *>(object->value);
  const Json shown = to_json(*record);
  shown.dump();
  ++decoded;
  const auto packed = RecordType::of(record->descriptor)->pack(*record);
  if (!packed) return 0;  // refused where it would be written
  std::vector<std::uint8_t> expected(protobuf_c_message_get_packed_size(record));
  protobuf_c_message_pack(record, expected.data());
  require(std::ranges::equal(*packed, expected));
  ProtobufCMessage *again = protobuf_c_message_unpack(record->descriptor, nullptr, packed->size(), packed->data());
  require(again && to_json(*again) == shown);
  protobuf_c_message_free_unpacked(again, nullptr);
  return 0;
}

int hear_decoded(void *, const qx_obj *object) {
  return look(object);
}

int hear_packed(void *, const qx_obj *object) {
  hex({static_cast<const std::uint8_t *>(object->packed), object->packed_len});
  return 0;
}

Hub &client() {
  static Hub hub;
  return hub;
}

Slot &slot_of(const RecordType &type) {
  Slot &slot = client().slot(*client().database(QX_MOM_UDP_DB), type);
  for (const auto callback : {hear_decoded, hear_packed})
    if (slot.subscriptions.size() < 2)
      slot.subscriptions.push_back(std::make_unique<Subscription>(Subscription{callback, callback == hear_packed, true}));
  return slot;
}

void gone(Slot &slot, const Key &key) {
  require(slot.type.parse_member(slot.type.member_text(key)) == key);
  const std::size_t before = decoded;
  client().deliver(slot, Change::deleted, slot.type.key_only(key), &key);
  require(decoded == before + 1);
}

void payload(Slot &slot, std::string_view rest) {
  while (!rest.empty()) {
    const std::string_view all = rest;
    const auto next = Notification::take(rest);
    if (!next) return;
    require(all.substr(1, all.size() - rest.size() - 1) == notification_end(next->member, next->packed));
    const auto key = slot.type.parse_member(next->member);
    if (next->change == Change::published)
      client().deliver(slot, next->change, next->packed);
    else if (key && next->change == Change::deleted && !record_in(as_text(next->packed)))
      gone(slot, *key);
    else if (key)
      client().deliver(slot, next->change, next->packed, &*key);
  }
}

// The value of the object that its own record names.
void value(Slot &slot, std::string_view bytes) {
  const auto packed = record_in(bytes);
  ProtobufCMessage *record =
      packed ? protobuf_c_message_unpack(&slot.type.descriptor(), nullptr, packed->size(), packed->data()) : nullptr;
  const Key key = record ? slot.type.key_of(*record).value_or(Key{}) : Key{};
  protobuf_c_message_free_unpacked(record, nullptr);
  if (!packed) return;
  client().present(slot, key, *packed, look, nullptr);
  free_object(client().make_object(slot, key, *packed));
}

void expired(Slot &slot, std::string_view name) {
  if (const auto key = slot.type.parse(name)) gone(slot, *key);
}

constexpr void (*kReaders[])(Slot &, std::string_view) = {payload, value, expired};

}  // namespace

// The first byte chooses the type, the second one the reader.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  if (size < 2) return 0;
  const auto types = RecordType::all();
  const std::vector<std::uint8_t> bytes(data + 2, data + size);  // where a read beyond the end is seen
  kReaders[data[1] % std::size(kReaders)](slot_of(*types[data[0] % types.size()]), as_text(bytes));
  return 0;
}
