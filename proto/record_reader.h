// A bounded walk over one packed record, field by field, without unpacking it (Protocol Buffers encoding: tag = number << 3 |
// wire type). Plain value, any thread; allocates nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace records {

using Bytes = std::span<const std::uint8_t>;

struct Field {
  std::uint32_t number = 0;
  std::uint64_t value = 0;  // of a varint
  Bytes bytes;              // of any other field, inside the record
};

class Reader {
 public:
  explicit Reader(Bytes record) : rest_(record) {}

  // Reads the next field. False at the end, or where the bytes are not a valid record; broken() tells which.
  bool next(Field &field);
  bool broken() const { return broken_; }

 private:
  bool varint(std::uint64_t &value);
  bool take(std::uint64_t length, Bytes &bytes);
  bool fail() {
    broken_ = true;
    return false;
  }

  Bytes rest_;
  bool broken_ = false;
};

}  // namespace records
