// How the host's services take part in the life of the runtime. Loop's thread.
#pragma once

#include <functional>
#include <string>

#include "qx_runtime.h"

namespace host {

// Registers a service that is started at the end of every qx_global_init, in the order of registration; a result that is not 0
// makes qx_global_init fail with `name` in its line. Stays registered for the life of the process.
void at_start(const char *name, std::function<int(qx_global *)> start);

// Why the start that is running fails: shown in place of its number.
void start_error(std::string why);

// Has `stop` called once by the next qx_global_finish, the last registered first, while the loop still exists but no longer runs.
// May be called before qx_global_init.
void at_finish(std::function<void()> stop);

// Ends the process with status 1, after an error line with the reason: for work that was not taken up, without which the process
// would turn its loop and do nothing. Its supervisor starts it again.
[[noreturn]] void give_up(const std::string &why);

// The living runtime and the name it was made under; null and "" when there is none.
qx_global *current_global();
const std::string &runtime_name();

}  // namespace host
