// The log service. Any thread; lines of one thread keep their order.
//
// The Linux host writes to journald, syslog or a rotating file (spdlog) with category, source path, function and line as fields,
// and lets a source line write up to ten different texts a second, with one line that counts the suppressed ones; verbose lines
// are all written, because their order shows what happened.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct qx_zlog_category;

// Levels the daemon uses.
enum { QX_ZLOG_VERBOSE = 20, QX_ZLOG_ERROR = 100 };

// Opens (or finds) the category `name`; it lives until the runtime is released. Null when the service is not available.
struct qx_zlog_category *qx_zlog_init(const char *name);

// Logs one line. `file` and `func` need no terminator; the text is formatted and copied before the call returns. A null category
// is ignored. A trailing line end in the text is dropped.
void qxdf_zlog(struct qx_zlog_category *category, const char *file, size_t file_len, const char *func, size_t func_len, long line,
               int level, const char *format, ...) __attribute__((format(printf, 8, 9)));

// snprintf that returns the number of characters actually written (never more than size - 1) and always terminates when size > 0.
int at_snprintf(char *buf, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif
