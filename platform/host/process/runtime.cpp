// The runtime: created from the configuration, run, and released with everything it owns.
#include "qx_runtime.h"

#include <errno.h>
#include <event2/thread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/base/loop.h"
#include "host/base/mutex.h"
#include "host/base/owner_timer.h"
#include "host/base/reload.h"
#include "host/base/services.h"
#include "host/base/timer_queue.h"
#include "host/config/config.h"
#include "host/config/text.h"
#include "host/control/control.h"
#include "host/fault/fault.h"
#include "host/log/log.h"
#include "host/metrics/metrics.h"
#include "host/programming/embedded.h"
#include "kelim_version.h"

struct qx_thread_master {
  explicit qx_thread_master(event_base *base) : timers(base) {}
  host::TimerQueue timers;
  bool finished = false;
};

namespace host {
namespace {

constexpr long kLongestTimer = 1'000'000'000;  // seconds

struct EventBaseDeleter {
  void operator()(event_base *base) const { event_base_free(base); }
};
using EventBasePtr = std::unique_ptr<event_base, EventBaseDeleter>;

EventBasePtr make_base() {
  evthread_use_pthreads();
  EventBasePtr base(event_base_new());
  if (!base) throw std::bad_alloc();
  return base;
}

// SIGPIPE is ignored while the runtime lives: a lost peer shows as an error code of the write.
class IgnorePipe {
 public:
  IgnorePipe() {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &before_);
  }
  ~IgnorePipe() { sigaction(SIGPIPE, &before_, nullptr); }
  IgnorePipe(const IgnorePipe &) = delete;
  IgnorePipe &operator=(const IgnorePipe &) = delete;

 private:
  struct sigaction before_ = {};
};

void end_loop(evutil_socket_t, short, void *) {
  stop_loop();
}

// Work that other threads post to the loop. It outlives the runtime, so that a late post from another thread finds a valid lock.
struct Mailbox {
  Mutex mutex;
  std::vector<std::function<void()>> work KELIM_GUARDED_BY(mutex);
  bool open KELIM_GUARDED_BY(mutex) = false;
  int wake_fd = -1;  // eventfd, made for the first runtime and never closed: threads write to it without the mutex

  // Not to be called with the mutex held: the loop, which wakes at once, would wait for it.
  void wake() const {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto n = ::write(wake_fd, &one, sizeof one);  // if full, the loop is already awake
  }
};

Mailbox &mailbox() {
  static auto *box = new Mailbox;  // never destroyed: threads may post until the end
  return *box;
}

// The mailbox accepts work only while one of these lives.
class OpenMailbox {
 public:
  OpenMailbox() {
    Mailbox &box = mailbox();
    const Lock lock(box.mutex);
    if (box.wake_fd < 0) box.wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (box.wake_fd < 0) throw std::bad_alloc();
    box.open = true;
  }
  ~OpenMailbox() {
    std::vector<std::function<void()>> dropped;  // destroyed after the lock is released, because destructors may post
    Mailbox &box = mailbox();
    const Lock lock(box.mutex);
    dropped.swap(box.work);
    box.open = false;
  }
  OpenMailbox(const OpenMailbox &) = delete;
  OpenMailbox &operator=(const OpenMailbox &) = delete;
};

std::atomic<bool> g_stop{false};
std::atomic<bool> g_handed_over{false};  // since the owner's timer began to run
std::atomic<std::thread::id> g_loop_thread{};
Histogram g_owner_timer_runs;

struct Runtime {
  explicit Runtime(const char *runtime_name);

  std::string name;
  IgnorePipe ignore_pipe;
  EventBasePtr base = make_base();
  OpenMailbox open_mailbox;
  EventPtr mail;
  EventPtr terminate;
  EventPtr interrupt;
  EventPtr hangup;
  TimerQueue timers{base.get()};
  qx_thread_master master{base.get()};
  qx_global global{this, &master};
  TimerQueue::Id owner_timer = 0;  // in the master's queue; the latest that was armed
  std::function<void()> after_owner_timer;
};

// Not destroyed by exit(): other threads may still use the loop while the process ends.
auto &g_runtime = *new std::unique_ptr<Runtime>;

struct StartHook {
  const char *name;
  std::function<int(qx_global *)> start;
};

std::vector<StartHook> &start_hooks() {
  static std::vector<StartHook> hooks;
  return hooks;
}

std::vector<std::function<void()>> g_finish_hooks;
std::string g_start_error;

std::vector<std::function<void()>> take_mail() {
  std::uint64_t count;
  Mailbox &box = mailbox();
  [[maybe_unused]] const auto n = ::read(box.wake_fd, &count, sizeof count);
  std::vector<std::function<void()>> work;
  const Lock lock(box.mutex);
  work.swap(box.work);
  return work;
}

void read_mail(evutil_socket_t, short, void *) {
  for (const auto &work : take_mail()) work();
  if (g_stop.load()) event_base_loopbreak(g_runtime->base.get());
}

EventPtr added(event *e) {
  EventPtr owned(e);
  if (!owned || event_add(e, nullptr) != 0) throw std::bad_alloc();
  return owned;
}

Runtime::Runtime(const char *runtime_name) : name(runtime_name) {
  mail = added(event_new(base.get(), mailbox().wake_fd, EV_READ | EV_PERSIST, read_mail, nullptr));
  terminate = added(evsignal_new(base.get(), SIGTERM, end_loop, nullptr));
  interrupt = added(evsignal_new(base.get(), SIGINT, end_loop, nullptr));
  hangup = added(evsignal_new(
      base.get(), SIGHUP, [](evutil_socket_t, short, void *) { reload(); }, nullptr));
  g_stop = false;
  g_handed_over = false;
  g_loop_thread = std::this_thread::get_id();
}

void tell_after_owner_timer() {
  if (g_runtime->after_owner_timer) g_runtime->after_owner_timer();
}

// Work handed over from here on requests another run; this run finds everything handed over before.
void run_owner_timer(qx_thread &timer) {
  g_handed_over = false;
  const auto begun = std::chrono::steady_clock::now();
  timer.func(&timer);
  g_owner_timer_runs.observe(std::chrono::steady_clock::now() - begun);
  tell_after_owner_timer();
}

void look_for_owner_timer(bool prompt) {
  TimerQueue &timers = g_runtime->master.timers;
  const TimerQueue::Id id = g_runtime->owner_timer;
  if (timers.armed(id)) return prompt ? timers.hasten(id) : void();
  g_handed_over = false;
  tell_after_owner_timer();
}

// Prints one line and sets errno, which tells the caller whether the configuration must change.
bool complain(const std::string &who, const std::string &why, int error = 0) {
  std::fprintf(stderr, "%s: %s\n", who.c_str(), why.c_str());
  errno = error;
  return false;
}

// Starts the host's services. False after one line that says why.
bool start_services(Runtime &runtime) {
  if (const std::string error = log::open(config(), runtime.name); !error.empty()) return complain(runtime.name, error);
  if (const std::string error = control::start(config(), runtime.name); !error.empty()) return complain(runtime.name, error);
  metrics::start(config());
  for (const StartHook &hook : start_hooks()) {
    if (const int rv = hook.start(&runtime.global); rv != 0)
      return complain(runtime.name, g_start_error.empty()
                                        ? std::string(hook.name) + " does not start (" + std::to_string(rv) + ")"
                                        : std::exchange(g_start_error, {}));
  }
  if (const std::string error = programming::start(config(), &runtime.global); !error.empty())
    return complain(runtime.name, error, EINVAL);
  return true;
}

void tell_start() {
  const Config &now = config();
  log::info("{} " KELIM_VERSION " starts: {}, database {}, run directory {}", g_runtime->name,
            now.file.empty() ? "no configuration file" : "configuration " + now.file, masked(now.mom.url), now.run_dir);
}

void release() {
  while (!g_finish_hooks.empty()) {
    const auto stop = std::move(g_finish_hooks.back());
    g_finish_hooks.pop_back();
    stop();
  }
  control::stop();
  g_runtime.reset();
  log::close();
  config_unload();
}

bool make_runtime(const char *name) {
  if (g_runtime) return complain(name, "a runtime named " + g_runtime->name + " exists already");
  if (const int rv = fault::check(fault::Point::global_init)) return complain(name, "injected fault " + std::to_string(rv));
  if (const std::string error = config_load(); !error.empty()) return complain(name, error, EINVAL);
  if (const std::string error = make_run_dir(); !error.empty()) return complain(name, error);
  g_runtime = std::make_unique<Runtime>(name);
  return start_services(*g_runtime);
}

// Runs the loop; QX_FAILED when libevent failed, 0 when it was ended or, with EVLOOP_ONCE in `flags`, after a turn.
int turn(int flags) {
  g_loop_thread = std::this_thread::get_id();
  return event_base_loop(g_runtime->base.get(), flags) == -1 ? QX_FAILED : QX_OK;
}

}  // namespace

event_base *loop_base() {
  return g_runtime ? g_runtime->base.get() : nullptr;
}

void post(std::function<void()> work) {
  Mailbox &box = mailbox();
  Lock lock(box.mutex);
  if (!box.open) return;
  box.work.push_back(std::move(work));
  const bool first = box.work.size() == 1;
  lock.unlock();
  if (first) box.wake();
}

void handed_to_owner(bool prompt) {
  if (!g_handed_over.exchange(true)) post([prompt] { look_for_owner_timer(prompt); });
}

void after_owner_timer(std::function<void()> ran) {
  if (g_runtime) g_runtime->after_owner_timer = std::move(ran);
}

const Histogram &owner_timer_runs() {
  return g_owner_timer_runs;
}

void stop_loop() {
  Mailbox &box = mailbox();
  Lock lock(box.mutex);
  if (!box.open) return;
  g_stop = true;
  lock.unlock();
  box.wake();
}

bool run_until(const std::function<bool()> &condition, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;  // real time, because a test may have stopped the host's clock
  const EventPtr poll(event_new(
      loop_base(), -1, EV_PERSIST, [](evutil_socket_t, short, void *) {}, nullptr));
  const timeval millisecond{.tv_sec = 0, .tv_usec = 1'000};
  event_add(poll.get(), &millisecond);
  bool held = condition();
  while (!held && std::chrono::steady_clock::now() < deadline && !g_stop && turn(EVLOOP_ONCE) == 0) held = condition();
  g_stop = false;
  return held;
}

bool on_loop_thread() {
  return !g_runtime || g_loop_thread.load() == std::this_thread::get_id();
}

#ifndef NDEBUG
void assert_loop_thread() {
  assert(on_loop_thread() && "belongs to the loop's thread");
}
#endif

TimerQueue *detail::host_timers() {
  return g_runtime ? &g_runtime->timers : nullptr;
}

void clock::changed() {
  post([] {
    g_runtime->timers.reschedule();
    g_runtime->master.timers.reschedule();
  });
}

void at_start(const char *name, std::function<int(qx_global *)> start) {
  start_hooks().push_back({name, std::move(start)});
}

void start_error(std::string why) {
  g_start_error = std::move(why);
}

void at_finish(std::function<void()> stop) {
  g_finish_hooks.push_back(std::move(stop));
}

void give_up(const std::string &why) {
  log::error("{} ends, to be started again: {}", runtime_name(), why);
  std::exit(EXIT_FAILURE);
}

qx_global *current_global() {
  return g_runtime ? &g_runtime->global : nullptr;
}

const std::string &runtime_name() {
  static const std::string none;
  return g_runtime ? g_runtime->name : none;
}

}  // namespace host

extern "C" {

qx_global *qx_global_init(const char *name, void *) {
  if (!name) return nullptr;
  const bool first = !host::g_runtime;
  try {
    if (host::make_runtime(name)) return host::current_global();
  } catch (const std::exception &e) {
    host::complain(name, e.what());
  }
  const int error = errno;
  if (first) host::release();
  errno = error;
  return nullptr;
}

int qx_global_run(qx_global *global) {
  if (!global || global != host::current_global()) return QX_FAILED;
  host::tell_start();
  int rv = 0;
  while (!host::g_stop && rv == 0) rv = host::turn(EVLOOP_NO_EXIT_ON_EMPTY);
  host::g_stop = false;
  host::log::info("{} ends", host::runtime_name());
  return rv;
}

const char *qx_installation(const qx_global *global) {
  return global && global == host::current_global() ? host::config().run_dir.c_str() : "";
}

void qx_global_finish(qx_global *global) {
  if (global && global == host::current_global()) host::release();
}

int qx_thread_insert_timer_timeval(struct qx_thread_master *master, qx_thread *thread, int (*func)(qx_thread *), void *arg,
                                   long sec, long usec, const char *name) {
  using namespace std::chrono_literals;
  if (!master || !thread || !func || master->finished) return QX_FAILED;
  if (const int rv = host::fault::check(host::fault::Point::timer_insert)) return rv;
  host::assert_loop_thread();
  if (master->timers.armed(reinterpret_cast<std::uintptr_t>(thread->impl))) return QX_FAILED;
  const auto id = host::TimerQueue::next_id();
  const bool is_owners = name != nullptr && host::g_runtime && host::g_runtime->name == name;
  try {
    const auto delay =
        std::clamp(sec, 0L, host::kLongestTimer) * 1s + std::clamp(usec, 0L, 1'000'000 * host::kLongestTimer) * 1us;
    master->timers.arm(id, host::clock::now() + delay, [thread, id, is_owners] {
      if (reinterpret_cast<std::uintptr_t>(thread->impl) != id) return;  // zeroed and re-armed meanwhile
      thread->impl = nullptr;
      if (is_owners) return host::run_owner_timer(*thread);
      thread->func(thread);
    });
  } catch (const std::bad_alloc &) {
    return QX_FAILED;
  }
  if (is_owners) host::g_runtime->owner_timer = id;
  *thread = {.impl = std::bit_cast<void *>(id), .master = master, .func = func, .arg = arg, .name = name};
  return 0;
}

void qx_thread_master_finish(struct qx_thread_master *master) {
  if (!master) return;
  master->finished = true;
  master->timers.clear();
}
}
