#include "host/base/clock.h"

#include <time.h>

#include <atomic>
#include <condition_variable>

#include "host/base/mutex.h"
#include "qx_runtime.h"

namespace host::clock {
namespace {

// Writers and sleepers; reading the clock takes no lock. Never destroyed: threads of the daemon sleep until the process is gone.
auto &g_mutex = *new Mutex;
auto &g_changed = *new std::condition_variable;
std::atomic<std::int64_t> g_offset{0};      // ns that the host clock is ahead of CLOCK_MONOTONIC
std::atomic<std::int64_t> g_stopped_at{0};  // the time at which it stands; 0 while it runs

std::atomic<std::uint64_t> g_sleeps{0};

std::int64_t monotonic() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1'000'000'000 + t.tv_nsec;
}

template <typename Change>
void change(Change apply) {
  {
    const Lock lock(g_mutex);
    apply();
  }
  g_changed.notify_all();
  changed();
}

}  // namespace

Time now() {
  const std::int64_t standing = g_stopped_at.load(std::memory_order_acquire);
  return Time(standing != 0 ? standing : monotonic() + g_offset.load(std::memory_order_relaxed));
}

Time unix_offset() {
  return std::chrono::system_clock::now().time_since_epoch() - now();
}

bool stopped() {
  return g_stopped_at.load(std::memory_order_acquire) != 0;
}

void warp(std::chrono::milliseconds by) {
  change([by] { (stopped() ? g_stopped_at : g_offset).fetch_add(Time(by).count(), std::memory_order_acq_rel); });
}

void stop() {
  change([] { g_stopped_at.store(now().count(), std::memory_order_release); });
}

void resume() {
  change([] {
    if (!stopped()) return;
    g_offset.store(now().count() - monotonic(), std::memory_order_relaxed);
    g_stopped_at.store(0, std::memory_order_release);
  });
}

void sleep_until(Time deadline) {
  Lock lock(g_mutex);
  g_sleeps.fetch_add(1, std::memory_order_release);
  for (Time at = now(); at < deadline; at = now()) lock.wait_for(g_changed, deadline - at);  // repeats while the clock stands
}

std::uint64_t sleeps() {
  return g_sleeps.load(std::memory_order_acquire);
}

}  // namespace host::clock

extern "C" {

struct timespec qx_monotime(void) {
  const auto t = host::clock::now().count();
  return {.tv_sec = t / 1'000'000'000, .tv_nsec = t % 1'000'000'000};
}

std::uint64_t qx_timeval_to_us(struct timespec t) {
  return static_cast<std::uint64_t>(t.tv_sec) * 1'000'000 + static_cast<std::uint64_t>(t.tv_nsec) / 1'000;
}

char *qx_time_2_string(char *buf, std::size_t len) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  tm local;
  localtime_r(&now.tv_sec, &local);
  char text[40];
  const std::size_t n = strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  snprintf(text + n, sizeof text - n, ".%03d", static_cast<int>(now.tv_nsec / 1'000'000));
  if (buf && len > 0) snprintf(buf, len, "%s", text);
  return buf;
}

void qx_sleep_ms(std::uint32_t ms) {
  host::clock::sleep_until(host::clock::now() + std::chrono::milliseconds(ms));
}
}
