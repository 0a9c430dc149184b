// Packs records as protobuf-c does, byte for byte, in one pass: from the last field to the first, so that the length of a
// sub-message is known when it is written in front of it. Loop's thread.
#pragma once

#include <protobuf-c/protobuf-c.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <vector>

namespace host::mom {

// A buffer that is written from its end. Whoever writes has made room() first.
class BackwardBuffer {
 public:
  void clear();
  std::span<const std::uint8_t> written() const { return std::span(bytes_).subspan(at_); }
  std::size_t size() const { return bytes_.size() - at_; }
  // False when that many more bytes would be more than a record may have.
  bool room(std::size_t more) { return more <= at_ || grow(more); }
  void put(const void *bytes, std::size_t size) { std::memcpy(put_space(size), bytes, size); }
  void put_varint(std::uint64_t value) {
    std::uint8_t *byte = put_space(value < 0x80 ? 1 : (static_cast<std::size_t>(std::bit_width(value)) + 6) / 7);
    for (; value >= 0x80; value >>= 7) *byte++ = static_cast<std::uint8_t>(value | 0x80);
    *byte = static_cast<std::uint8_t>(value);
  }
  // The start of `size` bytes to be written by the caller.
  std::uint8_t *put_space(std::size_t size) { return bytes_.data() + (at_ -= size); }

 private:
  bool grow(std::size_t more);

  std::vector<std::uint8_t> bytes_ = std::vector<std::uint8_t>(4096);
  std::size_t at_ = bytes_.size();  // of the first byte written
};

class Packer {
 public:
  // The packer for this descriptor; lives as long as the process.
  static const Packer *shared(const ProtobufCMessageDescriptor &descriptor);

  explicit Packer(const ProtobufCMessageDescriptor &descriptor);

  // Writes the record in front of what the buffer holds. False when the record is malformed: a length without data, an array
  // without elements, a sub-message of another type, or too long.
  bool pack(const ProtobufCMessage &record, BackwardBuffer &to) const;

 private:
  enum class Kind : std::uint8_t { number, signed_number, flag, text, bytes, message, messages };
  struct Field {
    Kind kind;
    bool wide;             // whether that number is 8 bytes, not 4
    std::uint32_t number;  // offset of the value, address, length or count: the field is absent if it is 0
    std::uint32_t data;    // offset of the address behind a length or count
    std::uint32_t tag;
    const Packer *child;  // of sub-messages
  };
  static std::optional<Kind> kind_of(const ProtobufCFieldDescriptor &field);
  bool put_field(const ProtobufCMessage &record, const Field &field, std::uint64_t number, BackwardBuffer &to) const;
  bool put_bytes(const Field &field, const void *bytes, std::size_t size, BackwardBuffer &to) const;
  bool put_message(const Field &field, const ProtobufCMessage *message, BackwardBuffer &to) const;
  bool put_messages(const Field &field, const ProtobufCMessage *const *messages, std::size_t count, BackwardBuffer &to) const;
  static bool put_unknown(const ProtobufCMessage &record, BackwardBuffer &to);

  const ProtobufCMessageDescriptor &descriptor_;
  std::vector<Field> fields_;  // the last one first
  std::size_t fixed_ = 0;      // at most that many bytes of the record are neither text, bytes nor sub-messages
  bool plain_ = true;          // false: has a field of another kind, which only protobuf-c packs
};

}  // namespace host::mom
