#include "host/mom/record/packer.h"

#include <algorithm>
#include <map>
#include <memory>

#include "host/mom/record/member.h"

namespace host::mom {

namespace {

constexpr std::size_t kHeadMax = 10;           // of a tag and a length
constexpr std::size_t kFieldMax = 15;          // of a tag and a number
constexpr std::size_t kRecordMax = 16U << 20;  // a larger record is a malformed argument
constexpr std::size_t kKept = 1U << 20;        // a buffer that grew beyond this is released after use

}  // namespace

// ---- the buffer

void BackwardBuffer::clear() {
  if (bytes_.size() > kKept) bytes_ = std::vector<std::uint8_t>(kKept);
  at_ = bytes_.size();
}

bool BackwardBuffer::grow(std::size_t more) {
  if (more > kRecordMax || size() + more > kRecordMax) return false;
  std::vector<std::uint8_t> larger(2 * (size() + more));
  std::ranges::copy(written(), larger.end() - static_cast<std::ptrdiff_t>(size()));
  at_ = larger.size() - size();
  bytes_ = std::move(larger);
  return true;
}

// ---- the packer

const Packer *Packer::shared(const ProtobufCMessageDescriptor &descriptor) {
  static std::map<const ProtobufCMessageDescriptor *, std::unique_ptr<Packer>> packers;
  const auto [place, added] = packers.try_emplace(&descriptor);
  if (added) place->second = std::make_unique<Packer>(descriptor);
  return place->second.get();
}

std::optional<Packer::Kind> Packer::kind_of(const ProtobufCFieldDescriptor &field) {
  const bool messages = field.label == PROTOBUF_C_LABEL_REPEATED && field.type == PROTOBUF_C_TYPE_MESSAGE;
  if (messages) return Kind::messages;
  if (field.label != PROTOBUF_C_LABEL_NONE || (field.flags & PROTOBUF_C_FIELD_FLAG_ONEOF) != 0) return std::nullopt;
  switch (field.type) {
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_UINT32:
      return Kind::number;
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_ENUM:
      return Kind::signed_number;
    case PROTOBUF_C_TYPE_BOOL:
      return Kind::flag;
    case PROTOBUF_C_TYPE_STRING:
      return Kind::text;
    case PROTOBUF_C_TYPE_BYTES:
      return Kind::bytes;
    case PROTOBUF_C_TYPE_MESSAGE:
      return Kind::message;
    default:
      return std::nullopt;
  }
}

Packer::Packer(const ProtobufCMessageDescriptor &descriptor) : descriptor_(descriptor) {
  for (unsigned i = descriptor.n_fields; i-- > 0;) {
    const ProtobufCFieldDescriptor &field = descriptor.fields[i];
    const auto kind = kind_of(field);
    plain_ = plain_ && kind;
    if (!kind) continue;
    const bool is_number = *kind < Kind::text;
    const bool wide = !is_number || field.type == PROTOBUF_C_TYPE_UINT64 || field.type == PROTOBUF_C_TYPE_INT64;
    const auto *type = static_cast<const ProtobufCMessageDescriptor *>(field.descriptor);
    const Packer *child = field.type == PROTOBUF_C_TYPE_MESSAGE ? shared(*type) : nullptr;
    // A type that contains itself finds its own entry still empty: left to protobuf-c as well.
    if (field.type == PROTOBUF_C_TYPE_MESSAGE && (!child || !child->plain_)) plain_ = false;
    fixed_ += is_number ? kFieldMax : kHeadMax;
    const bool is_array = *kind == Kind::messages;
    const std::uint32_t data = field.offset + (is_array ? 0U : std::uint32_t{offsetof(ProtobufCBinaryData, data)});
    fields_.push_back(
        {*kind, wide, is_array ? field.quantifier_offset : field.offset, data, field.id << 3 | (is_number ? 0U : 2U), child});
  }
}

bool Packer::pack(const ProtobufCMessage &record, BackwardBuffer &to) const {
  if (record.descriptor != &descriptor_) return false;
  if (!plain_) {
    const std::size_t size = protobuf_c_message_get_packed_size(&record);
    if (!to.room(size)) return false;
    protobuf_c_message_pack(&record, to.put_space(size));
    return true;
  }
  if ((record.n_unknown_fields != 0 && !put_unknown(record, to)) || !to.room(fixed_)) return false;
  for (const Field &field : fields_) {
    const auto number = field.wide ? member<std::uint64_t>(record, field.number) : member<std::uint32_t>(record, field.number);
    if (number != 0 && !put_field(record, field, number, to)) return false;
  }
  return true;
}

// There is room for the fields of fixed length, of which a text or a sub-message must leave as much as it found.
bool Packer::put_field(const ProtobufCMessage &record, const Field &field, std::uint64_t number, BackwardBuffer &to) const {
  switch (field.kind) {
    case Kind::number:
      to.put_varint(number);
      break;
    case Kind::signed_number:
      to.put_varint(static_cast<std::uint64_t>(std::int64_t{static_cast<std::int32_t>(number)}));
      break;
    case Kind::flag:
      to.put_varint(1);
      break;
    case Kind::text: {
      const char *text = member<const char *>(record, field.number);
      return *text == '\0' || put_bytes(field, text, std::strlen(text), to);
    }
    case Kind::bytes:
      return put_bytes(field, member<const void *>(record, field.data), number, to);
    case Kind::message:
      return put_message(field, member<const ProtobufCMessage *>(record, field.number), to);
    case Kind::messages:
      return put_messages(field, member<const ProtobufCMessage *const *>(record, field.data), number, to);
  }
  to.put_varint(field.tag);
  return true;
}

bool Packer::put_bytes(const Field &field, const void *bytes, std::size_t size, BackwardBuffer &to) const {
  if (!bytes || size > kRecordMax || !to.room(size + fixed_)) return false;
  to.put(bytes, size);
  to.put_varint(size);
  to.put_varint(field.tag);
  return true;
}

// An element of an array may be null, which is packed as an empty one.
bool Packer::put_message(const Field &field, const ProtobufCMessage *message, BackwardBuffer &to) const {
  const std::size_t end = to.size();
  if ((message && !field.child->pack(*message, to)) || !to.room(fixed_)) return false;
  to.put_varint(to.size() - end);
  to.put_varint(field.tag);
  return true;
}

bool Packer::put_messages(const Field &field, const ProtobufCMessage *const *messages, std::size_t count,
                          BackwardBuffer &to) const {
  if (!messages || count > kRecordMax) return false;
  while (count-- > 0)
    if (!put_message(field, messages[count], to) || !to.room(fixed_)) return false;
  return true;
}

bool Packer::put_unknown(const ProtobufCMessage &record, BackwardBuffer &to) {
  for (unsigned i = record.n_unknown_fields; i-- > 0;) {
    const ProtobufCMessageUnknownField &unknown = record.unknown_fields[i];
    // protobuf-c reads a field numbered 0 when its tag is overlong, but could not read what it would write for it.
    if (unknown.tag == 0 || unknown.len > kRecordMax || !to.room(unknown.len + kHeadMax)) return false;
    to.put(unknown.data, unknown.len);
    to.put_varint(std::uint64_t{unknown.tag} << 3 | unknown.wire_type);
  }
  return true;
}

}  // namespace host::mom
