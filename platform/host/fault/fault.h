// Fault switches: with them, tests make a platform call fail the n-th time, with a result of their choice.
//
// They are not mocks: the call's own code runs up to its first side effect and then takes its ordinary failure path. Nothing is
// ever set in production, where a check costs one relaxed load.
//
// Threads: any thread. Use in a service:
//
//   if (int rv = host::fault::check(host::fault::Point::mom_setow)) return rv;
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string_view>

namespace host::fault {

// The calls that can be made to fail; their names are those of the enumerators.
enum class Point : std::uint8_t {
  global_init,
  timer_insert,
  zlog_init,
  rdnd_reg,
  fp_com_check_run,
  ham_init,
  mom_connect,
  mom_connect_sync,
  mom_set_reconnect_cb,
  mom_set,
  mom_setow,
  mom_setnx,
  mom_del,
  mom_del_sync,
  mom_get,
  mom_scan,
  mom_pexpire,
  mom_del_expire,
  mom_del_expire_ow,
  mom_publish,
  mom_subscribe,
  cgst_init,
  cgst_topic,
  ddm_init,
  ddm_phyid,
  ssat_init,
  ssat_reg,
  of_init,
  of_register,
  of_barrier_request,
  of_fetch,
  of_send,
  count_,
};

namespace detail {
extern std::atomic<std::uint32_t> rules_set;
int take(Point point);
}  // namespace detail

// Lets the next `skip` calls of `point` through and makes the `count` calls after them give `rv` (0 is "no fault"). Replaces the
// point's earlier rule.
void fail(Point point, int rv, unsigned skip = 0, unsigned count = 1);

// Removes every rule.
void clear();

// The number of checks of `point` under its present rule, 0 without one: lets a loop that fails the n-th call detect that n has
// passed the last one.
unsigned seen(Point point);

std::string_view name(Point point);
std::optional<Point> from_name(std::string_view name);

// The result that `point` must return now; 0 to continue.
inline int check(Point point) {
  return detail::rules_set.load(std::memory_order_relaxed) == 0 ? 0 : detail::take(point);
}

}  // namespace host::fault
