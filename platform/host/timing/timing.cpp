#include "host/timing/timing.h"

#include <algorithm>
#include <atomic>
#include <nlohmann/json.hpp>
#include <vector>

#include "host/base/clock.h"
#include "host/base/mutex.h"
#include "ut_ss_fp_appmng.h"

namespace host::timing {
namespace {

struct Published {
  const ut_ss_fp_appmng_time *record;
  const char *name;
};

Mutex g_mutex;
std::vector<Published> g_published KELIM_GUARDED_BY(g_mutex);

// The records are plain words owned by the process; each word is read and written atomically.
std::atomic_ref<std::uint64_t> word(const std::uint64_t &w) {
  return std::atomic_ref<std::uint64_t>(const_cast<std::uint64_t &>(w));
}

std::uint64_t load(const std::uint64_t &w) {
  return word(w).load(std::memory_order_relaxed);
}

void raise_to(std::uint64_t &most, std::uint64_t value) {
  std::uint64_t now = load(most);
  while (now < value && !word(most).compare_exchange_weak(now, value, std::memory_order_relaxed)) {
  }
}

double us(std::uint64_t ns) {
  return static_cast<double>(ns) / 1000.0;
}

nlohmann::json row(const Published &p) {
  const std::uint64_t count = load(p.record->count), total = load(p.record->total);
  return {{"name", p.name},
          {"count", count},
          {"avg_us", count == 0 ? 0.0 : us(total) / static_cast<double>(count)},
          {"max_us", us(load(p.record->max))},
          {"last_us", us(load(p.record->last))},
          {"total_us", us(total)}};
}

}  // namespace

nlohmann::json view() {
  const Lock lock(g_mutex);
  nlohmann::json rows = nlohmann::json::array();
  for (const Published &p : g_published) rows.push_back(row(p));
  return rows;
}

}  // namespace host::timing

extern "C" {

void ut_ss_fp_appmng_time_start(ut_ss_fp_appmng_time *record) {
  if (!record) return;
  host::timing::word(record->started).store(static_cast<std::uint64_t>(host::clock::now().count()), std::memory_order_relaxed);
}

void ut_ss_fp_appmng_time_stop(ut_ss_fp_appmng_time *record, std::uint32_t) {
  using namespace host::timing;
  if (!record) return;
  const std::uint64_t started = word(record->started).exchange(0, std::memory_order_relaxed);
  const auto now = static_cast<std::uint64_t>(host::clock::now().count());
  if (started == 0 || now < started) return;
  word(record->count).fetch_add(1, std::memory_order_relaxed);
  word(record->total).fetch_add(now - started, std::memory_order_relaxed);
  word(record->last).store(now - started, std::memory_order_relaxed);
  raise_to(record->max, now - started);
}

void ut_ss_fp_appmng_time_publish(const ut_ss_fp_appmng_time *record, const char *name) {
  using namespace host::timing;
  if (!record || !name) return;
  const host::Lock lock(g_mutex);
  if (std::none_of(g_published.begin(), g_published.end(), [&](const Published &p) { return p.record == record; }))
    g_published.push_back({record, name});
}
}
