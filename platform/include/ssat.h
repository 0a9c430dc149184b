// The debug-command service: operators call functions of the running process by module and command name.
//
// The Linux host listens on a unix socket in the run directory. Handlers run on the loop's thread; their standard output goes to
// the caller as well. Arguments are checked against the registered format; if they do not match, the caller gets the usage line
// and the handler is not called.
#pragma once

#include <stdint.h>

#include "qx_runtime.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { SSAT_MAX_ARGS = 8 };

// Calls a command with its arguments in the order of its format. The array is valid during the call.
typedef int (*ssat_handler)(const int64_t *args, uint32_t count);

// Opens module `name` (copied). 0, or non-zero when the service is not available or refuses the module.
int ssat_lib_init(qx_global *global, const char *name);

// Registers a command. `format` names each argument and its kind, separated by commas: "index=%d, vsd_id=%d", "dbg_val=%x",
// "sw=%d(0/1)"; "" or "nil" means no arguments. Names are copied. 0, QX_INVALID for a null, malformed or duplicate command,
// QX_NOT_FOUND for an unknown module.
int ssat_reg_mod_cmd(const char *module, const char *command, const char *format, ssat_handler handler);

#ifdef __cplusplus
}
#endif
