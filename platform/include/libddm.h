// The device data manager: where an interface index lies in the hardware. Loop's thread.
//
// The Linux host answers from the configured port table, or from the machine's own interfaces when none is configured.
#pragma once

#include <stdint.h>

#include "qx_runtime.h"

#ifdef __cplusplus
extern "C" {
#endif

// 0, or non-zero when the manager is not there.
int libddm_init(qx_global *global, const char *name);

// The physical id of an interface index. 0 and *phyid; QX_NOT_FOUND when the index is unknown, QX_INVALID for a null result
// pointer.
int libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid);

// Calls `visit` for every port that is configured, in order of its interface index; `name` is the interface's and good during the
// call. Ports that nobody has configured are left out: who programs interfaces must not take those that carry his own traffic. 0.
int libddm_for_each_port(void (*visit)(void *arg, uint32_t ifx, const char *name), void *arg);

#ifdef __cplusplus
}
#endif
