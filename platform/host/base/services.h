// Hooks of the host's services into the runtime's start and end. Loop's thread.
#pragma once

#include <functional>
#include <string>

#include "qx_runtime.h"

namespace host {

// Registers a service that is started at the end of every qx_global_init, in the order of registration; a non-zero result makes
// qx_global_init fail with `name` in its line. Stays registered for the life of the process.
void at_start(const char *name, std::function<int(qx_global *)> start);

// Sets the reason why the current start fails, shown in place of its number.
void start_error(std::string why);

// Has `stop` called once by the next qx_global_finish, the last registered first, while the loop still exists but no longer runs.
// May be called before qx_global_init.
void at_finish(std::function<void()> stop);

// Ends the process with status 1, after an error line with the reason: for a process whose work could not begin and which would
// only idle in its loop. Its supervisor restarts it.
[[noreturn]] void give_up(const std::string &why);

// The current runtime and its name; null and "" when there is none.
qx_global *current_global();
const std::string &runtime_name();

}  // namespace host
