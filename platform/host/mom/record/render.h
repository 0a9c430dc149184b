// Records as people read them: JSON by a walk over the descriptor, addresses written the usual way, enumerations and bitmaps by
// name. Any thread.
#pragma once

#include <protobuf-c/protobuf-c.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/mom/record/record_type.h"

namespace mom {

using Json = nlohmann::ordered_json;

// Top-level and key fields always show; zero fields and absent parts inside other sub-messages are left out.
Json to_json(const ProtobufCMessage &record);

// Any bytes as text that neither a terminal nor a log line trips over; at most `most` of them, then "...".
std::string printable(std::string_view bytes, size_t most = SIZE_MAX);

// Bytes as hexadecimal digits, and back; nothing for a text that is none.
std::string hex(Bytes bytes, std::string_view between = "");
std::optional<std::vector<uint8_t>> unhex(std::string_view text);

}  // namespace mom
