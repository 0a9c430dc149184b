#include "record_reader.h"

namespace records {

bool Reader::varint(std::uint64_t &value) {
  value = 0;
  for (unsigned shift = 0; shift < 64 && !rest_.empty(); shift += 7) {
    const std::uint8_t byte = rest_.front();
    rest_ = rest_.subspan(1);
    value |= std::uint64_t{byte & 0x7fu} << shift;
    if (byte < 0x80) return true;
  }
  return fail();
}

bool Reader::take(std::uint64_t length, Bytes &bytes) {
  if (length > rest_.size()) return fail();
  bytes = rest_.first(length);
  rest_ = rest_.subspan(length);
  return true;
}

bool Reader::next(Field &field) {
  if (broken_ || rest_.empty()) return false;
  std::uint64_t tag = 0;
  std::uint64_t length = 0;
  if (!varint(tag)) return false;
  field = {static_cast<std::uint32_t>(tag >> 3), 0, {}};
  if (field.number == 0) return fail();
  switch (tag & 7) {
    case 0:
      return varint(field.value);
    case 1:
      return take(8, field.bytes);
    case 2:
      return varint(length) && take(length, field.bytes);
    case 5:
      return take(4, field.bytes);
    default:
      return fail();
  }
}

}  // namespace records
