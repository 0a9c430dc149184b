// A record type: its names, its key and its packing. Read from the descriptor once and kept for the life of the process. Loop's
// thread.
//
// The canonical text of an object is "package.name:field:field", integers in decimal, text with everything but letters, digits
// and "._-/" written as %XX.
#pragma once

#include <protobuf-c/protobuf-c.h>

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/mom/record/key.h"
#include "host/mom/record/packer.h"

namespace host::mom {

using PackedBytes = std::span<const std::uint8_t>;

class RecordType {
 public:
  // Null when the descriptor is not a record type: not a message descriptor, a name without package, or a key with a field of
  // unordered type.
  static const RecordType *of(const ProtobufCMessageDescriptor *descriptor);

  // The type with this full name, among those of the schema and those used so far; null if there is none.
  static const RecordType *named(std::string_view name);

  // Every type of the schema that can be stored or published, in name order.
  static std::vector<const RecordType *> all();

  const ProtobufCMessageDescriptor &descriptor() const { return *descriptor_; }
  std::string_view name() const { return name_; }
  std::string_view package() const { return name_.substr(0, package_len_); }
  std::string_view short_name() const { return name_.substr(package_len_ + 1); }
  std::size_t id() const { return id_; }  // dense, from 0
  bool has_key() const { return index_ != nullptr; }
  bool has_long_keys() const { return long_keys_; }

  // Hash-class types are delivered as a holder of record and error code.
  bool hash_class() const { return hash_class_; }

  // True when the subscription's key type is this type's (or neither has one).
  bool key_matches(const ProtobufCMessageDescriptor *key) const;

  // The key of a record; std::nullopt when it has none or its key is too long.
  std::optional<Key> key_of(const ProtobufCMessage &record) const;

  // True when a stored record has the key under which it is stored, `expected`, or any key if that is null. Always true for types
  // without key.
  bool belongs(const ProtobufCMessage &record, const Key *expected) const;

  // True when the record stands for every object of the type: it has no key, or a key of zeros.
  bool is_template(const ProtobufCMessage &record) const;

  std::string text(const Key &key) const;
  std::string member_text(const Key &key) const;  // without the type's name
  // The reverse of the two; std::nullopt when the text is not a key of this type.
  std::optional<Key> parse(std::string_view text) const;
  std::optional<Key> parse_member(std::string_view text) const;

  // A packed record with this key and nothing else.
  std::vector<std::uint8_t> key_only(const Key &key) const;

  // Packs into a buffer that the next call of any type overwrites; std::nullopt when the record is malformed.
  std::optional<PackedBytes> pack(const ProtobufCMessage &record) const;

 private:
  struct KeyField {
    std::uint32_t offset;
    std::uint8_t width;  // in bytes, 0 for text
    bool is_signed;

    std::uint64_t sign_bit() const { return is_signed ? std::uint64_t{1} << (width * 8 - 1) : 0; }
    std::uint64_t number_in(const ProtobufCMessage &key) const;
    std::string_view text_in(const ProtobufCMessage &key) const;
    std::string text_of(std::uint64_t number) const;
    std::optional<std::uint64_t> parse(std::string_view number) const;
  };
  RecordType(const ProtobufCMessageDescriptor &descriptor, std::size_t id);
  bool read_key_fields();
  const ProtobufCMessage *index_of(const ProtobufCMessage &record) const;

  const ProtobufCMessageDescriptor *descriptor_;
  std::string_view name_;
  std::size_t package_len_;
  std::size_t id_;
  const ProtobufCFieldDescriptor *index_ = nullptr;
  const ProtobufCMessageDescriptor *key_ = nullptr;
  std::vector<KeyField> key_fields_;
  bool long_keys_ = false;
  bool hash_class_ = false;
  const Packer *packer_ = nullptr;
};

}  // namespace host::mom
