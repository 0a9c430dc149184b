// The redundancy manager: tells a process when to begin its work.
//
// The Linux host is a single supervisor: the callback runs once, in the first turn of the loop.
#pragma once

#include <stdint.h>

#include "qx_runtime.h"

#ifdef __cplusplus
extern "C" {
#endif

// Called on the loop's thread with the new role and state. A non-zero result says that the process could not begin its work: the
// host logs it and ends the process with status 1, so that its supervisor restarts it.
typedef int (*rdnd_lib_cb)(void *role, void *state);

// Filled by the process; copied by the call, except the list of databases, which must live as long as the process.
typedef struct rdnd_lib_reg {
  struct qx_thread_master *master;
  const char *name;
  qx_global *global;
  rdnd_lib_cb role_cb;
  rdnd_lib_cb state_cb;  // called instead of role_cb on platforms that distinguish states; the Linux host calls role_cb only
  void *reserved_ptr;    // null
  uint32_t reserved;     // 0
  const int32_t *dbs;    // the databases the process works with
  uint32_t db_count;
} rdnd_lib_reg;

// 0, or QX_INVALID for a null record, name or callback.
int rdnd_lib_mom_reg(const rdnd_lib_reg *reg);

#ifdef __cplusplus
}
#endif
