// Records as readable text, so that a test can state a whole record: every member that is not at its default, in schema order.
// Numbers in hexadecimal, bytes as hexadecimal digits, messages in braces, lists in brackets; an address wrapper as its bare
// value.
#pragma once

#include <protobuf-c/protobuf-c.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace record_text {

inline std::string hex(std::uint64_t number) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(number));
  return text;
}

inline std::string digits(const void *bytes, std::size_t len) {
  std::string out;
  for (std::size_t i = 0; i < len; ++i) out += hex(0x100u + static_cast<const std::uint8_t *>(bytes)[i]).substr(3);
  return out;
}

inline std::string text(const ProtobufCMessage *message);

// One value; empty for a default.
inline std::string value_text(const ProtobufCFieldDescriptor &field, const void *at) {
  std::uint64_t number = 0;
  switch (field.type) {
    case PROTOBUF_C_TYPE_MESSAGE: {
      const auto *message = *static_cast<ProtobufCMessage *const *>(at);
      if (!message) return "";
      const std::string inner = text(message);
      const bool wrapper = message->descriptor->n_fields == 1 && std::strcmp(message->descriptor->fields[0].name, "data") == 0;
      if (!wrapper) return "{" + inner + "}";
      return inner.empty() ? "0" : inner.substr(std::strlen("data="));
    }
    case PROTOBUF_C_TYPE_BYTES: {
      const auto *bytes = static_cast<const ProtobufCBinaryData *>(at);
      return digits(bytes->data, bytes->len);
    }
    case PROTOBUF_C_TYPE_STRING: {
      const char *string = *static_cast<char *const *>(at);
      return string && *string ? "'" + std::string(string) + "'" : "";
    }
    default:
      std::memcpy(&number, at, field.type == PROTOBUF_C_TYPE_UINT64 ? 8 : 4);
      return number ? hex(number) : "";
  }
}

inline std::string text(const ProtobufCMessage *message) {
  std::string out;
  for (unsigned i = 0; i < message->descriptor->n_fields; ++i) {
    const ProtobufCFieldDescriptor &field = message->descriptor->fields[i];
    const char *at = reinterpret_cast<const char *>(message) + field.offset;
    std::string value;
    if (field.label == PROTOBUF_C_LABEL_REPEATED) {
      std::size_t count;
      std::memcpy(&count, reinterpret_cast<const char *>(message) + field.quantifier_offset, sizeof count);
      const auto *items = *reinterpret_cast<ProtobufCMessage *const *const *>(at);
      for (std::size_t n = 0; n < count; ++n) value += value_text(field, items + n);
      if (count) value = "[" + value + "]";
    } else {
      value = value_text(field, at);
    }
    if (!value.empty()) out += (out.empty() ? "" : " ") + std::string(field.name) + "=" + value;
  }
  return out;
}

}  // namespace record_text
