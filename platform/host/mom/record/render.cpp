#include "host/mom/record/render.h"

#include <arpa/inet.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "p_libpub.pb-c.h"
#include "s_policy_kelim.pb-c.h"

namespace host::mom {

namespace {

struct Bitmap {
  std::string_view field;
  const ProtobufCEnumDescriptor *bits;
};
constexpr std::array kBitmaps = {
    Bitmap{"flow_field_bitmap", &s_policy_kelim__flow_field_e__descriptor},
    Bitmap{"flow_action_bitmap", &s_policy_kelim__flow_action_e__descriptor},
    Bitmap{"rule_bitmap", &s_policy_kelim__flow_ace_rule_e__descriptor},
    Bitmap{"action_bitmap", &s_policy_kelim__flow_ace_action_e__descriptor},
};

std::span<const std::uint8_t> span_of(const ProtobufCBinaryData &data) {
  return {data.data, data.data ? data.len : 0};
}

std::string mac_text(const ProtobufCMessage &record) {
  return hex(span_of(reinterpret_cast<const PLibpub__Mac &>(record).data), ":");
}

std::string dotted(std::uint32_t host_order) {
  char text[INET_ADDRSTRLEN] = "";
  const in_addr address{htonl(host_order)};
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

std::string ipv4_text(const ProtobufCMessage &record) {
  return dotted(reinterpret_cast<const PLibpub__Ipv4 &>(record).data);
}

std::string bytes_address(std::span<const std::uint8_t> bytes, int family, std::size_t size) {
  if (bytes.size() != size) return hex(bytes);
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(family, bytes.data(), text, sizeof text);
  return text;
}

std::string ipv4b_text(const ProtobufCMessage &record) {
  return bytes_address(span_of(reinterpret_cast<const PLibpub__Ipv4b &>(record).data), AF_INET, sizeof(in_addr));
}

std::string ipv6_text(const ProtobufCMessage &record) {
  return bytes_address(span_of(reinterpret_cast<const PLibpub__Ipv6 &>(record).data), AF_INET6, sizeof(in6_addr));
}

// Sub-messages that are shown as one string.
struct Wrapper {
  const ProtobufCMessageDescriptor *type;
  std::string (*text)(const ProtobufCMessage &);
};
constexpr std::array kWrappers = {
    Wrapper{&p_libpub__mac__descriptor, mac_text},
    Wrapper{&p_libpub__ipv4__descriptor, ipv4_text},
    Wrapper{&p_libpub__ipv4b__descriptor, ipv4b_text},
    Wrapper{&p_libpub__ipv6__descriptor, ipv6_text},
};

Json bitmap_json(std::uint64_t value, const ProtobufCEnumDescriptor &bits) {
  Json names = Json::array();
  for (int bit = 0; bit < 64; ++bit) {
    if (!(value >> bit & 1)) continue;
    const ProtobufCEnumValue *name = protobuf_c_enum_descriptor_get_value(&bits, bit);
    names.push_back(name ? std::string(name->name) : "bit " + std::to_string(bit));
  }
  return names;
}

Json number_json(const ProtobufCFieldDescriptor &field, std::uint64_t value) {
  for (const Bitmap &bitmap : kBitmaps) {
    if (bitmap.field == field.name) return bitmap_json(value, *bitmap.bits);
  }
  return value;
}

Json enum_json(const ProtobufCFieldDescriptor &field, int value) {
  const auto *type = static_cast<const ProtobufCEnumDescriptor *>(field.descriptor);
  const ProtobufCEnumValue *name = protobuf_c_enum_descriptor_get_value(type, value);
  return name ? Json(name->name) : Json(value);
}

Json message_json(const ProtobufCMessage &record, bool whole);

template <typename T>
const T &read(const void *element) {
  return *static_cast<const T *>(element);
}

std::string_view text_member(const char *text) {
  return text ? text : "";
}

Json element_json(const ProtobufCFieldDescriptor &field, const void *element) {
  switch (field.type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
      return read<std::int32_t>(element);
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
      return read<std::int64_t>(element);
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
      return number_json(field, read<std::uint32_t>(element));
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
      return number_json(field, read<std::uint64_t>(element));
    case PROTOBUF_C_TYPE_FLOAT:
      return read<float>(element);
    case PROTOBUF_C_TYPE_DOUBLE:
      return read<double>(element);
    case PROTOBUF_C_TYPE_BOOL:
      return read<protobuf_c_boolean>(element) != 0;
    case PROTOBUF_C_TYPE_ENUM:
      return enum_json(field, read<int>(element));
    case PROTOBUF_C_TYPE_STRING:
      return printable(text_member(read<const char *>(element)));
    case PROTOBUF_C_TYPE_BYTES:
      return hex(span_of(read<ProtobufCBinaryData>(element)));
    case PROTOBUF_C_TYPE_MESSAGE:
      break;
  }
  const auto *child = read<const ProtobufCMessage *>(element);
  return child ? message_json(*child, std::string_view(field.name) == "index") : Json();
}

std::size_t element_size(ProtobufCType type) {
  switch (type) {
    case PROTOBUF_C_TYPE_STRING:
    case PROTOBUF_C_TYPE_MESSAGE:
      return sizeof(void *);
    case PROTOBUF_C_TYPE_BYTES:
      return sizeof(ProtobufCBinaryData);
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
    case PROTOBUF_C_TYPE_DOUBLE:
      return 8;
    default:
      return 4;
  }
}

Json field_json(const ProtobufCMessage &record, const ProtobufCFieldDescriptor &field) {
  const char *base = reinterpret_cast<const char *>(&record);
  if (field.label != PROTOBUF_C_LABEL_REPEATED) return element_json(field, base + field.offset);
  Json list = Json::array();
  const auto *array = read<const char *>(base + field.offset);
  for (std::size_t i = 0; i < read<std::size_t>(base + field.quantifier_offset); ++i) {
    list.push_back(element_json(field, array + i * element_size(field.type)));
  }
  return list;
}

bool is_nothing(const Json &value) {
  return value.is_null() || value == Json(0) || value == Json(false) ||
         (value.is_string() && value.get_ref<const std::string &>().empty()) || (value.is_array() && value.empty());
}

Json message_json(const ProtobufCMessage &record, bool whole) {
  for (const Wrapper &wrapper : kWrappers) {
    if (wrapper.type == record.descriptor) return wrapper.text(record);
  }
  Json out = Json::object();
  for (const auto &field : std::span(record.descriptor->fields, record.descriptor->n_fields)) {
    Json value = field_json(record, field);
    // A controller's address, whose first byte is the least significant one.
    if (record.descriptor == &s_policy_kelim__onc_ip_key__descriptor && std::string_view(field.name) == "ip") {
      value = dotted(__builtin_bswap32(value.get<std::uint32_t>()));
    }
    if (whole || !is_nothing(value)) out[field.name] = std::move(value);
  }
  return out;
}

}  // namespace

Json to_json(const ProtobufCMessage &record) {
  return message_json(record, true);
}

std::string printable(std::string_view bytes, std::size_t most) {
  std::string out(bytes.substr(0, most));
  for (char &c : out) {
    if (c < 0x20 || c >= 0x7f) c = '?';
  }
  return bytes.size() > most ? out + "..." : out;
}

std::string hex(PackedBytes bytes, std::string_view between) {
  static constexpr std::string_view kDigits = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * (2 + between.size()));
  for (const std::uint8_t byte : bytes) {
    if (!out.empty()) out += between;
    out += {kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return out;
}

std::optional<std::vector<std::uint8_t>> unhex(std::string_view text) {
  std::vector<std::uint8_t> bytes(text.size() / 2);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const char *digits = text.data() + 2 * i;
    if (const auto [end, error] = std::from_chars(digits, digits + 2, bytes[i], 16); error != std::errc{} || end != digits + 2)
      return std::nullopt;
  }
  return text.size() % 2 == 0 ? std::optional(std::move(bytes)) : std::nullopt;
}

}  // namespace host::mom
