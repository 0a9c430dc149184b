// The process runtime: global handle, event loop, one-shot timers, time.
//
// Threads: everything here belongs to the thread that called qx_global_run ("the main SDN thread" of the daemon), except the
// clock reads and qx_sleep_ms, which any thread may call.
//
// The Linux host builds this on libevent. SIGTERM and SIGINT end the loop; the clock that timers and qx_sleep_ms run on is
// CLOCK_MONOTONIC, which a test may warp (platform/host/base/clock.h).
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "qx_result.h"

#ifdef __cplusplus
extern "C" {
#endif

struct qx_thread_master;

// The process's handle. The first two words are fixed; what `priv` points at belongs to the platform.
typedef struct qx_global {
  void *priv;
  struct qx_thread_master *master;
} qx_global;

// A one-shot timer. The caller owns the record and zeroes it before its first use; the platform fills it while the timer is
// armed. `func` runs once, on the loop's thread; the record is free for re-arming before it is called.
typedef struct qx_thread {
  void *impl;
  struct qx_thread_master *master;
  int (*func)(struct qx_thread *);
  void *arg;
  const char *name;
} qx_thread;

// Creates the runtime of this process under `name` (copied); `parent` is null for a separate process. Null on failure, after one
// line on standard error that says why (configuration, loop, log); errno is EINVAL where the configuration was refused. At most
// one runtime lives at a time.
qx_global *qx_global_init(const char *name, void *parent);

// A text that distinguishes this installation from others on the same machine: processes that belong together share it. Valid
// while the runtime lives; empty for null. The Linux host's is the run directory.
const char *qx_installation(const qx_global *global);

// Runs the event loop until the platform ends it. 0, or QX_FAILED when the loop itself failed.
int qx_global_run(qx_global *global);

// Releases the runtime and everything it owns; `global` is invalid afterwards. Null is allowed.
void qx_global_finish(qx_global *global);

// Arms `thread` to call `func` after sec + usec; `name` must outlive the timer (a literal). 0, or QX_FAILED when it cannot be
// armed (null argument, already armed, out of memory, master finished).
//
// A timer armed under the runtime's own name is the owner's timer: a platform may run it early once one of its services has
// handed something over to the owner, so that the work need not wait. The time given is then the longest wait. Other timers never
// run early. The Linux host runs the owner's timer early unless `openflow.prompt` is false.
int qx_thread_insert_timer_timeval(struct qx_thread_master *master, qx_thread *thread, int (*func)(qx_thread *), void *arg,
                                   long sec, long usec, const char *name);

// Ends timer service on this master: armed timers are dropped and further inserts fail. The loop itself keeps running.
void qx_thread_master_finish(struct qx_thread_master *master);

// The monotonic clock; any thread.
struct timespec qx_monotime(void);

// Microseconds of a time value; any thread.
uint64_t qx_timeval_to_us(struct timespec t);

// Writes the local wall-clock time as "2026-01-31 23:59:59.123" into `buf` (truncated to `len`, always terminated when len > 0)
// and returns `buf`; any thread.
char *qx_time_2_string(char *buf, size_t len);

// Sleeps on the runtime's clock; any thread but the loop's.
void qx_sleep_ms(uint32_t ms);

#ifdef __cplusplus
}
#endif
