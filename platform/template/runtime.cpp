// qx_runtime.h: one thread and one poll(2); timers in order of deadline; other threads and signals wake it through an eventfd.
#include "qx_runtime.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "platform.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A timer's record holds its master in `impl` while it is armed.
struct qx_thread_master {
  std::multimap<Clock::time_point, qx_thread *> timers;
  bool finished = false;
};

namespace {

struct Runtime {
  qx_thread_master master;
  qx_global global{this, &master};
};

Runtime *g_runtime;
std::atomic<bool> g_stop{false};
std::atomic<int> g_wake_fd{-1};

std::mutex g_mutex;
std::vector<std::function<void()>> g_posted;  // under g_mutex

void wake() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto n = write(g_wake_fd, &one, sizeof one);  // if full, the loop is already awake
}

void end_loop(int) {
  g_stop = true;
  wake();
}

void run_posted() {
  std::vector<std::function<void()>> work;
  {
    const std::lock_guard lock(g_mutex);
    work.swap(g_posted);
  }
  for (const auto &one : work) one();
}

// Runs the timers due now; timers that they arm wait for the next turn. A timer may end the others.
void run_timers(qx_thread_master &master) {
  const auto now = Clock::now();
  while (!master.timers.empty() && master.timers.begin()->first <= now) {
    qx_thread *thread = master.timers.extract(master.timers.begin()).mapped();
    thread->impl = nullptr;
    thread->func(thread);
  }
}

void turn(qx_thread_master &master, std::chrono::milliseconds longest) {
  auto wait = longest;
  if (!master.timers.empty())
    wait = std::clamp(std::chrono::ceil<std::chrono::milliseconds>(master.timers.begin()->first - Clock::now()), 0ms, longest);
  pollfd mail = {.fd = g_wake_fd, .events = POLLIN, .revents = 0};
  if (poll(&mail, 1, static_cast<int>(wait.count())) > 0) {
    std::uint64_t count;
    [[maybe_unused]] const auto n = read(mail.fd, &count, sizeof count);
  }
  run_posted();
  run_timers(master);
}

}  // namespace

void platform::post(std::function<void()> work) {
  const std::lock_guard lock(g_mutex);
  if (g_wake_fd < 0) return;
  g_posted.push_back(std::move(work));
  if (g_posted.size() == 1) wake();
}

bool platform::run_until(const std::function<bool()> &condition, std::chrono::milliseconds limit) {
  const auto end = Clock::now() + limit;
  while (!condition()) {
    if (Clock::now() >= end) return false;
    turn(g_runtime->master, 1ms);
  }
  return true;
}

void platform_post(void (*work)(void *arg), void *arg) {
  platform::post([work, arg] { work(arg); });
}

qx_global *qx_global_init(const char *name, void *) {
  if (!name || g_runtime) return nullptr;
  g_wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (g_wake_fd < 0) return nullptr;
  g_stop = false;
  signal(SIGTERM, end_loop);
  signal(SIGINT, end_loop);
  signal(SIGPIPE, SIG_IGN);
  g_runtime = new Runtime;
  return &g_runtime->global;
}

const char *qx_installation(const qx_global *) {
  return "";  // there is one on a machine
}

int qx_global_run(qx_global *global) {
  if (!g_runtime || global != &g_runtime->global) return QX_FAILED;
  while (!g_stop) turn(g_runtime->master, 1h);
  return 0;
}

void qx_global_finish(qx_global *global) {
  if (!g_runtime || global != &g_runtime->global) return;
  platform_southbound_finish();
  platform_store_finish();
  std::vector<std::function<void()>> dropped;  // destroyed after the lock is released
  const std::lock_guard lock(g_mutex);
  dropped.swap(g_posted);
  close(g_wake_fd.exchange(-1));
  delete g_runtime;
  g_runtime = nullptr;
}

int qx_thread_insert_timer_timeval(qx_thread_master *master, qx_thread *thread, int (*func)(qx_thread *), void *arg, long sec,
                                   long usec, const char *name) {
  if (!master || !thread || !func || master->finished || thread->impl) return QX_FAILED;
  *thread = {.impl = master, .master = master, .func = func, .arg = arg, .name = name};
  master->timers.emplace(Clock::now() + std::max(sec, 0L) * 1s + std::max(usec, 0L) * 1us, thread);
  return 0;
}

void qx_thread_master_finish(qx_thread_master *master) {
  if (!master) return;
  master->finished = true;
  master->timers.clear();
}

timespec qx_monotime() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

std::uint64_t qx_timeval_to_us(timespec t) {
  return static_cast<std::uint64_t>(t.tv_sec) * 1'000'000 + static_cast<std::uint64_t>(t.tv_nsec) / 1000;
}

char *qx_time_2_string(char *buf, std::size_t len) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts;
  char seconds[32];
  strftime(seconds, sizeof seconds, "%F %T", localtime_r(&now.tv_sec, &parts));
  snprintf(buf, len, "%s.%03ld", seconds, now.tv_nsec / 1'000'000);
  return buf;
}

void qx_sleep_ms(std::uint32_t ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}
