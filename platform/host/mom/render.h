// Records as people read them: JSON by a walk over the descriptor, addresses written the usual way, enumerations and bitmaps by
// name. Any thread.
#pragma once

#include <protobuf-c/protobuf-c.h>

#include <nlohmann/json.hpp>

namespace mom {

using Json = nlohmann::ordered_json;

// Top-level and key fields always show; zero fields and absent parts inside other sub-messages are left out.
Json to_json(const ProtobufCMessage &record);

}  // namespace mom
