// Application timing: one record per operation. Any thread.
//
// Start and stop of one record may run on different threads, and a start may lack its stop; the total stays meaningful: a stop
// without a start counts nothing, a second start replaces the first.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Times in nanoseconds of the monotonic clock. Written with relaxed atomics by the calls below; read it the same way from other
// threads.
typedef struct ut_ss_fp_appmng_time {
  uint64_t started;  // 0 while not running
  uint64_t count;
  uint64_t total;
  uint64_t max;
  uint64_t last;
} ut_ss_fp_appmng_time;

void ut_ss_fp_appmng_time_start(ut_ss_fp_appmng_time *record);

// `reserved` is 0.
void ut_ss_fp_appmng_time_stop(ut_ss_fp_appmng_time *record, uint32_t reserved);

// Announces a record under its name (both live as long as the process) so that the platform can show it. Repeated calls are
// harmless.
void ut_ss_fp_appmng_time_publish(const ut_ss_fp_appmng_time *record, const char *name);

#ifdef __cplusplus
}
#endif
