#include "host/log/log.h"

#include <pthread.h>
#include <signal.h>
#include <spdlog/details/log_msg.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <thread>
#include <utility>

#include "host/base/mutex.h"
#include "host/base/reload.h"
#include "host/config/config.h"
#include "host/fault/fault.h"
#include "host/log/repeats.h"
#include "host/log/sinks.h"

struct qx_zlog_category {
  std::string name;
};

namespace host::log {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kQueueLines = 8192;   // waiting for the writer
constexpr auto kStuckTarget = 2s;           // without accepting a line; longest wait for a target
constexpr auto kCountsDue = 1s;             // longest wait of counts for another line
constexpr std::size_t kLongestText = 2048;  // bytes of a printf-style line

class Service {
 public:
  std::string open(const Config &config, const std::string &ident);
  void close();
  Reloaded reopen();
  void flush();
  bool wants(const LineView &place);
  bool take(const LineView &said);  // false while it is not open
  bool is_open();
  bool is_stuck() const { return stuck_; }
  void set_level(std::string_view name);
  std::string_view level() const;
  Counts counts() {
    const Lock lock(mutex_);
    return counts_;
  }

 private:
  bool keeps(Level level) const;
  void expire(bool all) KELIM_REQUIRES(mutex_);
  template <typename Done>
  bool wait_for_writer(Lock &lock, Done done) KELIM_REQUIRES(mutex_);
  void run();
  static void write_out(spdlog::sinks::sink &sink, const Line &line);
  void push(Line &&line) KELIM_REQUIRES(mutex_);

  Mutex mutex_;
  std::condition_variable work_;     // for the writer
  std::condition_variable written_;  // for flush and close
  std::deque<Line> queue_ KELIM_GUARDED_BY(mutex_);
  Repeats repeats_ KELIM_GUARDED_BY(mutex_);
  std::uint64_t dropped_ KELIM_GUARDED_BY(mutex_) = 0;  // not yet reported
  Counts counts_ KELIM_GUARDED_BY(mutex_);
  bool open_ KELIM_GUARDED_BY(mutex_) = false;
  bool busy_ KELIM_GUARDED_BY(mutex_) = false;  // the writer is writing lines taken from the queue
  bool closing_ KELIM_GUARDED_BY(mutex_) = false;
  bool ended_ KELIM_GUARDED_BY(mutex_) = false;                          // the writer has finished
  std::atomic<bool> stuck_{false};                                       // the writer did not finish in time
  std::string ident_;                                                    // the program's name
  std::shared_ptr<spdlog::sinks::sink> sink_;                            // shared, so that a stuck writer keeps it
  std::unique_ptr<spdlog::sinks::sink> fresh_ KELIM_GUARDED_BY(mutex_);  // replaces it before the next line
  std::atomic<std::uint64_t> lines_out_{0};
  std::atomic<Level> threshold_{Level::debug};
  std::atomic<bool> off_{false};
  std::thread writer_;
};

// Not destroyed by exit(): other threads may log until the end.
Service &service() {
  static auto *one = new Service;
  return *one;
}

std::function<void(const LineView &)> g_tap;
std::atomic<bool> g_tapped{false};

// The writer blocks all signals: they belong to the loop.
std::thread start_quietly(std::function<void()> run) {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  std::thread thread(std::move(run));
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_setname_np(thread.native_handle(), "kelim_log");
  return thread;
}

const std::map<std::string_view, Level> kLevels = {
    {"debug", Level::debug}, {"info", Level::info}, {"warning", Level::warning}, {"error", Level::error}};

std::string Service::open(const Config &config, const std::string &ident) {
  try {
    ident_ = ident;
    sink_ = make_sink(config.log, ident);
  } catch (const spdlog::spdlog_ex &e) {
    return "log." + config.log.target + " cannot be opened: " + e.what();
  }
  set_level(config.log.level);
  const Lock lock(mutex_);
  open_ = true;
  closing_ = false;
  ended_ = false;
  stuck_ = false;
  fresh_.reset();
  writer_ = start_quietly([this] { run(); });
  return "";
}

void Service::set_level(std::string_view name) {
  const auto level = kLevels.find(name);
  off_ = level == kLevels.end();
  threshold_ = off_ ? Level::error : level->second;
}

std::string_view Service::level() const {
  const auto is_it = [this](const auto &known) { return known.second == threshold_; };
  return off_ ? "off" : std::ranges::find_if(kLevels, is_it)->first;
}

// Applies a changed level at run time.
Reloaded take_level(const Config &fresh) {
  if (level() == fresh.log.level) return {};
  set_level(fresh.log.level);
  return {.text = "the log level is " + fresh.log.level};
}

void Service::close() {
  {
    const Lock lock(mutex_);
    if (!open_) return;
    expire(true);
    open_ = false;
    closing_ = true;
  }
  work_.notify_one();
  // Standard error may be a pipe without a reader: the writer then never returns, and is abandoned with its sink.
  Lock lock(mutex_);
  if (wait_for_writer(lock, [this]() KELIM_REQUIRES(mutex_) { return ended_; })) {
    lock.unlock();
    writer_.join();
  } else {
    stuck_ = true;
    queue_.clear();
    writer_.detach();
  }
  sink_.reset();
}

// After the file was moved away, logging continues in a new file of that name.
Reloaded Service::reopen() {
  const Config::Log &key = config().log;
  if (key.target != "file") return {};
  try {
    auto sink = make_sink(key, ident_);
    const Lock lock(mutex_);
    fresh_ = std::move(sink);
  } catch (const spdlog::spdlog_ex &e) {
    return {.text = std::string("log.file cannot be opened anew: ") + e.what(), .done = false};
  }
  return {.text = "the log file " + file_of(key, ident_) + " is opened anew"};
}

void Service::flush() {
  Lock lock(mutex_);
  if (!open_) return;
  expire(true);
  work_.notify_one();
  wait_for_writer(lock, [this]() KELIM_REQUIRES(mutex_) { return queue_.empty() && !busy_; });
}

// False if the target has stopped accepting lines.
template <typename Done>
bool Service::wait_for_writer(Lock &lock, Done done) {
  for (std::uint64_t before = lines_out_; !lock.wait_for(written_, kStuckTarget, done); before = lines_out_)
    if (lines_out_ == before) return false;
  return true;
}

bool Service::keeps(Level level) const {
  return !off_.load(std::memory_order_relaxed) && level >= threshold_.load(std::memory_order_relaxed);
}

// Debug lines are never collapsed: their order matters, as in a message logged byte by byte.
bool Service::wants(const LineView &place) {
  if (!keeps(place.level)) return false;
  if (place.level == Level::debug) return true;
  const Lock lock(mutex_);
  expire(false);
  return !repeats_.is_full(place);
}

// Texts logged as errors although every healthy connection, or flow that does not begin with its in_port, causes them: to spare
// operators false alerts they become debug lines, but are collapsed like errors.
struct Healthy {
  std::string_view function, text;  // the text's beginning
};
constexpr Healthy kHealthy[] = {{"ssc_sdn_proc_enable_msg", "recev  openflow msg version="},
                                {"ssc_kelim_pick_out_inport_phyid", "OXM_VALUE = "}};

bool is_healthy(const LineView &line) {
  return std::ranges::any_of(
      kHealthy, [&](const Healthy &one) { return line.function == one.function && line.text.starts_with(one.text); });
}

bool Service::take(const LineView &said) {
  const bool healthy = is_healthy(said);
  LineView view = said;
  if (healthy) view.level = Level::debug;
  if (!keeps(view.level)) return true;
  const Lock lock(mutex_);
  if (!open_) return false;
  expire(false);
  if ((view.level == Level::debug && !healthy) || !repeats_.hides(view)) push(Line(view));
  return true;
}

void Service::expire(bool all) {
  repeats_.expire(all, [this](Line &&line) {
    mutex_.assert_held();
    push(std::move(line));
  });
}

bool Service::is_open() {
  const Lock lock(mutex_);
  return open_;
}

void Service::push(Line &&line) {
  if (queue_.size() >= kQueueLines) {
    ++dropped_;
    ++counts_.dropped;
    return;
  }
  ++counts_.lines[static_cast<std::size_t>(line.level)];
  queue_.push_back(std::move(line));
  if (queue_.size() == 1) work_.notify_one();
}

void Service::run() {
  Lock lock(mutex_);
  const auto something = [this]() KELIM_REQUIRES(mutex_) { return !queue_.empty() || closing_; };
  while (true) {
    if (repeats_.empty()) {
      lock.wait(work_, something);
    } else {
      lock.wait_for(work_, kCountsDue, something);
      expire(false);
    }
    if (queue_.empty() && closing_) {
      ended_ = true;
      written_.notify_all();
      return;
    }
    std::deque<Line> lines;
    lines.swap(queue_);
    const std::uint64_t dropped = std::exchange(dropped_, 0);
    busy_ = true;
    if (fresh_) sink_ = std::move(fresh_);
    const auto sink = sink_;
    lock.unlock();
    for (const Line &line : lines) {
      write_out(*sink, line);
      ++lines_out_;
    }
    if (dropped > 0) {
      const std::string text = std::to_string(dropped) + " lines dropped: the log target is too slow";
      write_out(*sink, Line({Level::warning, "kelim_host", __FILE__, __func__, __LINE__, text}));
    }
    lock.lock();
    busy_ = false;
    written_.notify_all();
  }
}

void to_stderr(const LineView &view) {
  std::fprintf(stderr, "%.*s: %.*s\n", static_cast<int>(view.category.size()), view.category.data(),
               static_cast<int>(view.text.size()), view.text.data());
}

void Service::write_out(spdlog::sinks::sink &sink, const Line &line) {
  constexpr std::array<spdlog::level::level_enum, 4> levels = {spdlog::level::debug, spdlog::level::info, spdlog::level::warn,
                                                               spdlog::level::err};
  const spdlog::source_loc where{line.file.c_str(), static_cast<int>(line.line), line.function.c_str()};
  try {
    sink.log({line.time, where, line.category, levels[static_cast<std::size_t>(line.level)], line.text});
    sink.flush();
  } catch (const spdlog::spdlog_ex &) {  // for example, the disk is full
    to_stderr({line.level, line.category, line.file, line.function, line.line, line.text});
  }
}

}  // namespace

std::string open(const Config &config, const std::string &ident) {
  static const int at_exit = std::atexit(close);  // for a process that ends without releasing its runtime
  if (at_exit != 0) return "out of memory";
  at_reload({.keys = {"log.level"}, .take = take_level});
  at_reload({.keys = {}, .take = [](const Config &) { return service().reopen(); }});
  return service().open(config, ident);
}

void close() {
  service().close();
}

bool is_open() {
  return service().is_open();
}

void flush() {
  service().flush();
}

Counts counts() {
  return service().counts();
}

void set_level(std::string_view name) {
  service().set_level(name);
}

std::string_view level() {
  return service().level();
}

void set_tap(std::function<void(const LineView &)> tap) {
  g_tap = std::move(tap);
  g_tapped = static_cast<bool>(g_tap);
}

bool wants(const LineView &place) {
  return g_tapped.load(std::memory_order_relaxed) || service().wants(place);
}

void write(const LineView &line) {
  if (g_tapped.load(std::memory_order_acquire)) g_tap(line);
  if (!service().take(line) && !service().is_stuck()) to_stderr(line);
}

void detail::host_line(Level level, const char *file, const char *function, int line, fmt::string_view format,
                       fmt::format_args args) {
  LineView view{level, "kelim_host", file, function, line, {}};
  if (!wants(view)) return;
  fmt::memory_buffer text;
  fmt::vformat_to(fmt::appender(text), format, args);
  view.text = {text.data(), text.size()};
  write(view);
}

}  // namespace host::log

extern "C" {

struct qx_zlog_category *qx_zlog_init(const char *name) {
  static host::Mutex mutex;
  static auto &categories = *new std::map<std::string, qx_zlog_category>;  // holders may log until the end
  if (!name || host::fault::check(host::fault::Point::zlog_init) != 0 || !host::log::is_open()) return nullptr;
  const host::Lock lock(mutex);
  return &categories.try_emplace(name, qx_zlog_category{name}).first->second;
}

void qxdf_zlog(struct qx_zlog_category *category, const char *file, std::size_t file_len, const char *func, std::size_t func_len,
               long line, int level, const char *format, ...) {
  if (!category || !format) return;
  host::log::LineView view{level >= QX_ZLOG_ERROR ? host::log::Level::error : host::log::Level::debug,
                           category->name,
                           file ? std::string_view(file, file_len) : std::string_view(),
                           func ? std::string_view(func, func_len) : std::string_view(),
                           line,
                           {}};
  if (!host::log::wants(view)) return;
  char text[host::log::kLongestText];
  va_list args;
  va_start(args, format);
  const int n = vsnprintf(text, sizeof text, format, args);
  va_end(args);
  view.text = {text, n < 0 ? 0 : std::min(static_cast<std::size_t>(n), sizeof text - 1)};
  while (view.text.ends_with('\n')) view.text.remove_suffix(1);
  host::log::write(view);
}

int at_snprintf(char *buf, std::size_t size, const char *format, ...) {
  if (!buf || size == 0 || !format) return 0;
  va_list args;
  va_start(args, format);
  const int n = vsnprintf(buf, size, format, args);
  va_end(args);
  if (n < 0) return 0;
  return static_cast<int>(std::min(static_cast<std::size_t>(n), size - 1));
}
}
