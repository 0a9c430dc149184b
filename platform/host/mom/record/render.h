// Records in readable form: JSON by a walk over the descriptor, addresses in their usual notation, enumerations and bitmaps by
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

namespace host::mom {

using Json = nlohmann::ordered_json;

// Top-level and key fields are always shown; zero fields and absent parts of other sub-messages are left out.
Json to_json(const ProtobufCMessage &record);

// Any bytes as text that is safe for terminals and log lines: at most `most` of them, then "...".
std::string printable(std::string_view bytes, std::size_t most = SIZE_MAX);

// Bytes as hexadecimal digits, and back; std::nullopt for text that is not hexadecimal.
std::string hex(PackedBytes bytes, std::string_view between = "");
std::optional<std::vector<std::uint8_t>> unhex(std::string_view text);

}  // namespace host::mom
