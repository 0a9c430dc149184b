// An upper bound of a record's packed length that needs no walk over its scalars: a constant for each descriptor, plus the actual
// length of text, bytes and sub-messages. Loop's thread.
#pragma once

#include <protobuf-c/protobuf-c.h>

#include <cstddef>
#include <optional>
#include <vector>

namespace host::mom {

class PackBound {
 public:
  // The bound for this descriptor; lives as long as the process.
  static const PackBound *shared(const ProtobufCMessageDescriptor &descriptor);

  explicit PackBound(const ProtobufCMessageDescriptor &descriptor);

  // std::nullopt when the record is malformed: a length without data, an array without elements, a sub-message of another type.
  std::optional<std::size_t> of(const ProtobufCMessage &record) const;

 private:
  struct Dynamic {
    const ProtobufCFieldDescriptor *field;
    const PackBound *child;  // of sub-messages
  };
  std::optional<std::size_t> of_field(const ProtobufCMessage &record, const Dynamic &dynamic) const;
  std::optional<std::size_t> of_element(const void *member, const Dynamic &dynamic) const;

  const ProtobufCMessageDescriptor &descriptor_;
  std::size_t constant_ = 0;
  std::vector<Dynamic> dynamic_;
  bool plain_ = true;  // false: uses a feature (oneof) that only protobuf-c's own size pass handles
};

}  // namespace host::mom
