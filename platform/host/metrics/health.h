// Health of the process, from checks that the services register, for /healthz, /readyz and the status view. Loop's thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace host::health {

// A process that is not alive must be restarted; one that is not ready waits for something external.
enum class Kind { alive, ready };

// Returns "" or why not.
using Check = std::function<std::string()>;

// Registers one until the runtime is released.
void add_check(Kind kind, const char *name, Check check);

// The failing checks of the kind, as "database: ..." each; empty when all is well.
std::vector<std::string> failing(Kind kind);

}  // namespace host::health
