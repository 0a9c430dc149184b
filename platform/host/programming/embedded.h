// The programming service inside this process: started with the runtime if configured. Loop's thread.
#pragma once

#include <string>

#include "qx_runtime.h"

namespace host {
struct Config;
}

namespace host::programming {

// Starts the service as configured and has it stopped when the runtime is released. Returns "" or the error, which names the key.
std::string start(const Config &config, qx_global *global);

}  // namespace host::programming
