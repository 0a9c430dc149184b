#include "host/mom/redis/layout.h"

#include <algorithm>
#include <utility>

namespace host::mom {

namespace {

constexpr std::size_t kLengthSize = 4;  // of a record's length in a notification

struct Kind {
  char letter;
  Change change;
};
constexpr Kind kKinds[] = {
    {'W', Change::rewritten}, {'C', Change::created}, {'R', Change::rewritten}, {'D', Change::deleted}, {'P', Change::published}};

const Kind *kind_of(char letter) {
  const auto found = std::find_if(std::begin(kKinds), std::end(kKinds), [&](const Kind &kind) { return kind.letter == letter; });
  return found == std::end(kKinds) ? nullptr : found;
}

}  // namespace

std::string_view as_text(PackedBytes bytes) {
  return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

PackedBytes as_bytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

std::string tag_bytes(std::int64_t tag) {
  std::string bytes(kTagSize, '\0');
  for (char &byte : bytes) byte = static_cast<char>(std::exchange(tag, tag >> 8));
  return bytes;
}

std::optional<PackedBytes> record_in(std::string_view value) {
  if (value.size() < kTagSize) return std::nullopt;
  return as_bytes(value.substr(kTagSize));
}

void append_notification_end(std::string &out, std::string_view member, PackedBytes packed) {
  out.append(member).push_back('\0');
  for (std::size_t byte = 0; byte < kLengthSize; ++byte) out.push_back(static_cast<char>(packed.size() >> 8 * byte));
  out.append(as_text(packed));
}

std::string notification_end(std::string_view member, PackedBytes packed) {
  std::string end;
  append_notification_end(end, member, packed);
  return end;
}

std::optional<Notification> Notification::take(std::string_view &payload) {
  const Kind *kind = payload.empty() ? nullptr : kind_of(payload.front());
  const std::size_t end = payload.find('\0');
  if (!kind || end == std::string_view::npos || payload.size() - end - 1 < kLengthSize) return std::nullopt;
  const PackedBytes rest = as_bytes(payload.substr(end + 1));
  std::size_t length = 0;
  for (std::size_t byte = 0; byte < kLengthSize; ++byte) length |= std::size_t{rest[byte]} << 8 * byte;
  if (rest.size() - kLengthSize < length) return std::nullopt;
  const Notification notification = {kind->change, payload.substr(1, end - 1), rest.subspan(kLengthSize, length)};
  payload.remove_prefix(end + 1 + kLengthSize + length);
  return notification;
}

}  // namespace host::mom
