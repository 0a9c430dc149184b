// Congestion control of database writes, one topic a record type. Loop's thread.
//
// The Linux host counts, per topic, writes and bytes in flight and their high-water mark; over the configured limit qx_mom_set*
// gives QX_NO_ROOM for that type instead of growing without bound. `kelimctl congestion` shows the figures.
#pragma once

#include <stdint.h>

#include "qx_mom.h"

#ifdef __cplusplus
extern "C" {
#endif

// Prepares congestion control of `db` for the process `name`. Repeating it is harmless. 0, or QX_INVALID.
int libcgstctrl_gen_init(void *conn, int32_t db, const char *name);

// Registers a record type. `topic` is read during the call only. Repeating it is harmless. 0, QX_INVALID for a null or malformed
// topic, QX_FAILED before libcgstctrl_gen_init.
int libcgstctrl_gen_topic_reg(void *conn, int32_t db, const char *name, const qx_mom_type *topic);

#ifdef __cplusplus
}
#endif
