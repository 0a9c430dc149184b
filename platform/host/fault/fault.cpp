#include "host/fault/fault.h"

#include <array>

#include "host/base/mutex.h"

namespace host::fault {
namespace {

constexpr auto kPoints = static_cast<std::size_t>(Point::count_);

constexpr std::array<std::string_view, kPoints> kNames = {
    "global_init",       "timer_insert",     "zlog_init",
    "rdnd_reg",          "fp_com_check_run", "ham_init",
    "mom_connect",       "mom_connect_sync", "mom_set_reconnect_cb",
    "mom_set",           "mom_setow",        "mom_setnx",
    "mom_del",           "mom_del_sync",     "mom_get",
    "mom_scan",          "mom_pexpire",      "mom_del_expire",
    "mom_del_expire_ow", "mom_publish",      "mom_subscribe",
    "cgst_init",         "cgst_topic",       "ddm_init",
    "ddm_phyid",         "ssat_init",        "ssat_reg",
    "of_init",           "of_register",      "of_barrier_request",
    "of_fetch",          "of_send",
};
static_assert(!kNames.back().empty(), "every point has a name");

struct Rule {
  bool set = false;
  int rv = 0;
  unsigned skip = 0;
  unsigned count = 0;
  unsigned seen = 0;
};

Mutex g_mutex;
std::array<Rule, kPoints> g_rules KELIM_GUARDED_BY(g_mutex);

Rule &rule(Point point) KELIM_REQUIRES(g_mutex) {
  return g_rules[static_cast<std::size_t>(point)];
}

}  // namespace

std::atomic<std::uint32_t> detail::rules_set{0};

int detail::take(Point point) {
  const Lock lock(g_mutex);
  Rule &r = rule(point);
  if (!r.set) return 0;
  const unsigned n = r.seen++;
  return n >= r.skip && n - r.skip < r.count ? r.rv : 0;
}

void fail(Point point, int rv, unsigned skip, unsigned count) {
  const Lock lock(g_mutex);
  if (!rule(point).set) detail::rules_set.fetch_add(1, std::memory_order_relaxed);
  rule(point) = {true, rv, skip, count, 0};
}

void clear() {
  const Lock lock(g_mutex);
  g_rules.fill({});
  detail::rules_set.store(0, std::memory_order_relaxed);
}

unsigned seen(Point point) {
  const Lock lock(g_mutex);
  return rule(point).seen;
}

std::string_view name(Point point) {
  return point < Point::count_ ? kNames[static_cast<std::size_t>(point)] : std::string_view{};
}

std::optional<Point> from_name(std::string_view name) {
  for (std::size_t i = 0; i < kPoints; ++i) {
    if (kNames[i] == name) return static_cast<Point>(i);
  }
  return std::nullopt;
}

}  // namespace host::fault
