// The bytes of what the Redis store keeps and publishes: values of objects, and notifications on the channels (redis_store.h).
// Pure functions, any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/mom/store.h"

namespace mom {

std::string_view as_text(Bytes bytes);
Bytes as_bytes(std::string_view text);

// The beginning of a value: its tag. The packed record follows.
inline constexpr size_t kTagSize = 8;
std::string tag_bytes(int64_t tag);
// The packed record of a value; nothing when that is too short to be one of ours.
std::optional<Bytes> record_in(std::string_view value);

// A notification without its kind.
void append_notification_end(std::string &out, std::string_view member, Bytes packed);
std::string notification_end(std::string_view member, Bytes packed);

// One as it came, in the payload's memory. Of a deletion `packed` is the whole value.
struct Notification {
  Change change;
  std::string_view member;
  Bytes packed;

  // Takes the first one off the payload; nothing when that has no known layout.
  static std::optional<Notification> take(std::string_view &payload);
};

}  // namespace mom
