// The view "status": answers an operator's first questions on one screen, from parts that the services contribute. Loop's thread.
#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace host::control {

using StatusPart = std::function<nlohmann::ordered_json()>;

// Registers a part until the runtime is released. A part that throws is shown as {"error": "why"}.
void register_status(const std::string &name, StatusPart part);

// Registers the view, with the part "process".
void start_status();
void stop_status();

}  // namespace host::control
