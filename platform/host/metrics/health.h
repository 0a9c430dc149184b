// Whether the process can do its work: what each service says of itself, for /healthz, /readyz and the status view. Loop's
// thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace host::health {

// A process that is not alive has to be started anew; one that is not ready waits for something outside of it.
enum class Kind { alive, ready };

// "" or why not.
using Check = std::function<std::string()>;

// Registers one until the runtime is released.
void add_check(Kind kind, const char *name, Check check);

// What the checks of the kind find wrong, "database: ..." each; nothing when all is well.
std::vector<std::string> failing(Kind kind);

}  // namespace host::health
