// The layout of the Redis store's data: values of objects and notifications on the channels (redis_store.h). Pure functions, any
// thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/mom/store.h"

namespace host::mom {

std::string_view as_text(PackedBytes bytes);
PackedBytes as_bytes(std::string_view text);

// A value begins with its tag; the packed record follows.
inline constexpr std::size_t kTagSize = 8;
std::string tag_bytes(std::int64_t tag);
// The packed record in a value; std::nullopt when the value is too short to be valid.
std::optional<PackedBytes> record_in(std::string_view value);

// A notification without its leading kind.
void append_notification_end(std::string &out, std::string_view member, PackedBytes packed);
std::string notification_end(std::string_view member, PackedBytes packed);

// A received notification; refers to the payload's memory. For a deletion `packed` is the whole value, tag included.
struct Notification {
  Change change;
  std::string_view member;
  PackedBytes packed;

  // Takes the first notification off the payload; std::nullopt when its layout is unknown.
  static std::optional<Notification> take(std::string_view &payload);
};

}  // namespace host::mom
