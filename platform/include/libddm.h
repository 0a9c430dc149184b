// The device data manager: maps interface indexes to physical ids. Loop's thread.
//
// The Linux host answers from the configured port table, or from the machine's own interfaces when none is configured.
#pragma once

#include <stdint.h>

#include "qx_runtime.h"

#ifdef __cplusplus
extern "C" {
#endif

// 0, or non-zero when the manager is not available.
int libddm_init(qx_global *global, const char *name);

// Writes the physical id of an interface index to *phyid. 0; QX_NOT_FOUND when the index is unknown, QX_INVALID for a null result
// pointer.
int libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid);

// Calls `visit` for every configured port in ascending order of interface index; `name` is the interface's and valid during the
// call. Ports that are not configured are left out: a programming service must not take over interfaces that carry the machine's
// own traffic. Returns 0.
int libddm_for_each_port(void (*visit)(void *arg, uint32_t ifx, const char *name), void *arg);

#ifdef __cplusplus
}
#endif
