#include "host/mom/record/pack_bound.h"

#include <cstring>
#include <map>
#include <memory>
#include <span>

namespace host::mom {

namespace {

constexpr std::size_t kTagMax = 5;
constexpr std::size_t kLengthMax = 5;
constexpr std::size_t kRecordMax = 16U << 20;  // a larger record is a malformed argument

std::size_t tag_size(std::uint32_t id) {
  std::size_t size = 1;
  for (std::uint32_t wire = id << 3; wire >= 0x80; wire >>= 7) ++size;
  return size;
}

std::size_t scalar_size(ProtobufCType type) {
  switch (type) {
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_SINT32:
      return 5;
    case PROTOBUF_C_TYPE_SFIXED32:
    case PROTOBUF_C_TYPE_FIXED32:
    case PROTOBUF_C_TYPE_FLOAT:
      return 4;
    case PROTOBUF_C_TYPE_SFIXED64:
    case PROTOBUF_C_TYPE_FIXED64:
    case PROTOBUF_C_TYPE_DOUBLE:
      return 8;
    case PROTOBUF_C_TYPE_BOOL:
      return 1;
    default:
      return 10;  // int32 and enum: negative values are ten bytes long
  }
}

bool is_dynamic(const ProtobufCFieldDescriptor &field) {
  return field.label == PROTOBUF_C_LABEL_REPEATED || field.type == PROTOBUF_C_TYPE_STRING ||
         field.type == PROTOBUF_C_TYPE_BYTES || field.type == PROTOBUF_C_TYPE_MESSAGE;
}

std::size_t element_size(ProtobufCType type) {
  switch (type) {
    case PROTOBUF_C_TYPE_STRING:
    case PROTOBUF_C_TYPE_MESSAGE:
      return sizeof(void *);
    case PROTOBUF_C_TYPE_BYTES:
      return sizeof(ProtobufCBinaryData);
    default:
      return 0;  // scalars of an array are not visited one by one
  }
}

template <typename T>
const T &member(const ProtobufCMessage &record, unsigned offset) {
  return *reinterpret_cast<const T *>(reinterpret_cast<const char *>(&record) + offset);
}

}  // namespace

const PackBound *PackBound::shared(const ProtobufCMessageDescriptor &descriptor) {
  static std::map<const ProtobufCMessageDescriptor *, std::unique_ptr<PackBound>> bounds;
  const auto [place, added] = bounds.try_emplace(&descriptor);
  if (added) place->second = std::make_unique<PackBound>(descriptor);
  return place->second.get();
}

PackBound::PackBound(const ProtobufCMessageDescriptor &descriptor) : descriptor_(descriptor) {
  for (unsigned i = 0; i < descriptor.n_fields; ++i) {
    const ProtobufCFieldDescriptor &field = descriptor.fields[i];
    if (field.flags & PROTOBUF_C_FIELD_FLAG_ONEOF) plain_ = false;
    if (!is_dynamic(field)) {
      constant_ += tag_size(field.id) + scalar_size(field.type);
      continue;
    }
    const bool message = field.type == PROTOBUF_C_TYPE_MESSAGE;
    const auto *child_descriptor = static_cast<const ProtobufCMessageDescriptor *>(field.descriptor);
    const PackBound *child = message ? shared(*child_descriptor) : nullptr;
    // A type that contains itself finds its own entry still empty: left to protobuf-c as well.
    if (message && (!child || !child->plain_)) plain_ = false;
    constant_ += kTagMax + kLengthMax;
    dynamic_.push_back({&field, child});
  }
}

std::optional<std::size_t> PackBound::of_element(const void *element, const Dynamic &dynamic) const {
  switch (dynamic.field->type) {
    case PROTOBUF_C_TYPE_STRING: {
      const char *text = *static_cast<const char *const *>(element);
      return text ? std::strlen(text) : 0;
    }
    case PROTOBUF_C_TYPE_BYTES: {
      const auto &bytes = *static_cast<const ProtobufCBinaryData *>(element);
      if (bytes.len && !bytes.data) return std::nullopt;
      return bytes.len;
    }
    case PROTOBUF_C_TYPE_MESSAGE: {
      const auto *child = *static_cast<const ProtobufCMessage *const *>(element);
      return child ? dynamic.child->of(*child) : 0;
    }
    default:
      return scalar_size(dynamic.field->type);
  }
}

std::optional<std::size_t> PackBound::of_field(const ProtobufCMessage &record, const Dynamic &dynamic) const {
  const ProtobufCFieldDescriptor &field = *dynamic.field;
  if (field.label != PROTOBUF_C_LABEL_REPEATED) return of_element(&member<char>(record, field.offset), dynamic);
  const std::size_t count = member<std::size_t>(record, field.quantifier_offset);
  const auto *array = member<const char *>(record, field.offset);
  if (count == 0) return 0;
  if (!array || count > kRecordMax) return std::nullopt;
  std::size_t total = count * (kTagMax + kLengthMax);
  const std::size_t step = element_size(field.type);
  if (step == 0) return total + count * scalar_size(field.type);
  for (std::size_t i = 0; i < count && total <= kRecordMax; ++i) {
    const auto one = of_element(array + i * step, dynamic);
    if (!one) return std::nullopt;
    total += *one;
  }
  return total;
}

std::optional<std::size_t> PackBound::of(const ProtobufCMessage &record) const {
  if (record.descriptor != &descriptor_) return std::nullopt;
  if (!plain_) return protobuf_c_message_get_packed_size(&record);
  std::size_t total = constant_;
  for (const auto &unknown : std::span(record.unknown_fields, record.n_unknown_fields)) {
    // protobuf-c reads a field numbered 0 when its tag is overlong, but could not read what it would write for it.
    if (unknown.tag == 0) return std::nullopt;
    total += kTagMax + unknown.len;
  }
  for (const Dynamic &dynamic : dynamic_) {
    const auto one = of_field(record, dynamic);
    if (!one || (total += *one) > kRecordMax) return std::nullopt;
  }
  return total;
}

}  // namespace host::mom
