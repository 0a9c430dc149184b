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
#include <list>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "host/config/config.h"
#include "host/fault/fault.h"
#include "host/log/sinks.h"
#include "host/runtime/clock.h"

struct qx_zlog_category {
  std::string name;
};

namespace host::log {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kQueueLines = 8192;  // waiting for the writer
constexpr std::size_t kRecentLines = 256;  // watched for repetition
constexpr clock::Time kRepeatWindow = 1s;
constexpr std::size_t kLongestText = 2048;  // bytes of a printf-style line

struct Line {
  explicit Line(const LineView &v)
      : level(v.level), category(v.category), file(v.file), function(v.function), line(v.line), text(v.text) {}

  Level level;
  std::chrono::system_clock::time_point time = std::chrono::system_clock::now();
  std::string category;
  std::string file;
  std::string function;
  long line;
  std::string text;
};

// Lines of the last second, oldest first, with how often each came again.
class Repeats {
 public:
  // Whether the line came within the window already; it is counted then, otherwise watched from now on.
  bool again(const LineView &view) {
    const std::size_t key = hash(view);
    const auto it = by_key_.find(key);
    if (it != by_key_.end() && same(it->second->first, view)) {
      ++it->second->count;
      return true;
    }
    if (it != by_key_.end()) return false;  // two lines of one hash: the later one is not watched
    recent_.push_back({Line(view), clock::now() + kRepeatWindow, key, 0});
    by_key_.emplace(key, std::prev(recent_.end()));
    return false;
  }

  // Hands out the counts of lines whose window is over, of the oldest beyond the limit, or of all.
  template <typename Emit>
  void expire(bool all, Emit emit) {
    const clock::Time now = recent_.empty() ? clock::Time{} : clock::now();
    while (!recent_.empty() && (all || recent_.front().until <= now || recent_.size() > kRecentLines)) {
      Recent &oldest = recent_.front();
      if (oldest.count > 0) {
        oldest.first.text += " (repeated " + std::to_string(oldest.count) + (oldest.count == 1 ? " time)" : " times)");
        oldest.first.time = std::chrono::system_clock::now();
        emit(std::move(oldest.first));
      }
      by_key_.erase(oldest.key);
      recent_.pop_front();
    }
  }

  bool empty() const { return recent_.empty(); }

 private:
  struct Recent {
    Line first;
    clock::Time until;
    std::size_t key;
    std::uint64_t count;
  };

  static std::size_t hash(const LineView &v) {
    const std::hash<std::string_view> h;
    return h(v.text) ^ (h(v.category) * 31) ^ (h(v.file) * 37) ^ (static_cast<std::size_t>(v.line) * 0x9e3779b97f4a7c15u);
  }

  static bool same(const Line &a, const LineView &b) {
    return a.level == b.level && a.line == b.line && a.text == b.text && a.category == b.category && a.file == b.file;
  }

  std::list<Recent> recent_;
  std::unordered_map<std::size_t, std::list<Recent>::iterator> by_key_;
};

class Service {
 public:
  std::string open(const Config &config, const std::string &ident);
  void close();
  void flush();
  bool take(const LineView &view);  // false while it is not open
  bool is_open();

 private:
  void run();
  void write_out(const Line &line);
  void push(Line &&line);

  std::mutex mutex_;
  std::condition_variable work_;     // for the writer
  std::condition_variable written_;  // for flush
  std::deque<Line> queue_;
  Repeats repeats_;
  std::uint64_t dropped_ = 0;
  bool open_ = false;
  bool busy_ = false;  // the writer holds lines of its own
  bool closing_ = false;
  std::unique_ptr<spdlog::sinks::sink> sink_;
  std::atomic<Level> threshold_{Level::debug};
  std::atomic<bool> off_{false};
  std::thread writer_;
};

// Not destroyed by exit(): other threads may log until the very end.
Service &service() {
  static auto *one = new Service;
  return *one;
}

std::function<void(const LineView &)> g_tap;
std::atomic<bool> g_tapped{false};

// The writer takes no signals: they are the loop's.
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
    sink_ = make_sink(config.log, ident);
  } catch (const spdlog::spdlog_ex &e) {
    return "log." + config.log.target + " cannot be opened: " + e.what();
  }
  const auto level = kLevels.find(config.log.level);
  off_ = level == kLevels.end();
  threshold_ = off_ ? Level::error : level->second;
  std::lock_guard lock(mutex_);
  open_ = true;
  closing_ = false;
  writer_ = start_quietly([this] { run(); });
  return "";
}

void Service::close() {
  {
    std::lock_guard lock(mutex_);
    if (!open_) return;
    repeats_.expire(true, [this](Line &&line) { push(std::move(line)); });
    open_ = false;
    closing_ = true;
  }
  work_.notify_one();
  writer_.join();
  sink_.reset();
}

void Service::flush() {
  std::unique_lock lock(mutex_);
  if (!open_) return;
  repeats_.expire(true, [this](Line &&line) { push(std::move(line)); });
  work_.notify_one();
  written_.wait(lock, [this] { return queue_.empty() && !busy_; });
}

bool Service::take(const LineView &view) {
  if (off_.load(std::memory_order_relaxed) || view.level < threshold_.load(std::memory_order_relaxed)) return true;
  std::lock_guard lock(mutex_);
  if (!open_) return false;
  repeats_.expire(false, [this](Line &&line) { push(std::move(line)); });
  // Lines for debugging tell by their order, byte after byte of a message for example.
  if (view.level == Level::debug || !repeats_.again(view)) push(Line(view));
  return true;
}

bool Service::is_open() {
  std::lock_guard lock(mutex_);
  return open_;
}

void Service::push(Line &&line) {
  if (queue_.size() >= kQueueLines) {
    ++dropped_;
    return;
  }
  queue_.push_back(std::move(line));
  if (queue_.size() == 1) work_.notify_one();
}

void Service::run() {
  std::unique_lock lock(mutex_);
  const auto something = [this] { return !queue_.empty() || closing_; };
  while (true) {
    if (repeats_.empty()) {
      work_.wait(lock, something);
    } else {
      work_.wait_for(lock, kRepeatWindow, something);
      repeats_.expire(false, [this](Line &&line) { push(std::move(line)); });
    }
    if (queue_.empty() && closing_) return;
    std::deque<Line> lines;
    lines.swap(queue_);
    const std::uint64_t dropped = std::exchange(dropped_, 0);
    busy_ = true;
    lock.unlock();
    for (const Line &line : lines) write_out(line);
    if (dropped > 0) {
      const std::string text = std::to_string(dropped) + " lines dropped: the log target is too slow";
      write_out(Line({Level::warning, "kelim_host", __FILE__, __func__, __LINE__, text}));
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

void Service::write_out(const Line &line) {
  constexpr std::array<spdlog::level::level_enum, 4> levels = {spdlog::level::debug, spdlog::level::info, spdlog::level::warn,
                                                               spdlog::level::err};
  const spdlog::source_loc where{line.file.c_str(), static_cast<int>(line.line), line.function.c_str()};
  try {
    sink_->log({line.time, where, line.category, levels[static_cast<std::size_t>(line.level)], line.text});
    sink_->flush();
  } catch (const spdlog::spdlog_ex &) {  // the disk is full, for one
    to_stderr({line.level, line.category, line.file, line.function, line.line, line.text});
  }
}

}  // namespace

std::string open(const Config &config, const std::string &ident) {
  static const int at_exit = std::atexit(close);  // for a process that ends without releasing its runtime
  return at_exit == 0 ? service().open(config, ident) : "out of memory";
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

void set_tap(std::function<void(const LineView &)> tap) {
  g_tap = std::move(tap);
  g_tapped = static_cast<bool>(g_tap);
}

void write(const LineView &line) {
  if (g_tapped.load(std::memory_order_acquire)) g_tap(line);
  if (!service().take(line)) to_stderr(line);
}

void detail::host_line(Level level, const char *file, const char *function, int line, fmt::string_view format,
                       fmt::format_args args) {
  fmt::memory_buffer text;
  fmt::vformat_to(fmt::appender(text), format, args);
  write({level, "kelim_host", file, function, line, {text.data(), text.size()}});
}

}  // namespace host::log

extern "C" {

struct qx_zlog_category *qx_zlog_init(const char *name) {
  static std::mutex mutex;
  static auto &categories = *new std::map<std::string, qx_zlog_category>;  // whoever holds one may log until the very end
  if (name == nullptr || host::fault::check(host::fault::Point::zlog_init) != 0 || !host::log::is_open()) return nullptr;
  std::lock_guard lock(mutex);
  return &categories.try_emplace(name, qx_zlog_category{name}).first->second;
}

void qxdf_zlog(struct qx_zlog_category *category, const char *file, size_t file_len, const char *func, size_t func_len, long line,
               int level, const char *format, ...) {
  if (category == nullptr || format == nullptr) return;
  char text[host::log::kLongestText];
  va_list args;
  va_start(args, format);
  const int n = vsnprintf(text, sizeof text, format, args);
  va_end(args);
  std::string_view whole(text, n < 0 ? 0 : std::min(static_cast<size_t>(n), sizeof text - 1));
  while (whole.ends_with('\n')) whole.remove_suffix(1);
  host::log::write({level >= QX_ZLOG_ERROR ? host::log::Level::error : host::log::Level::debug, category->name,
                    file != nullptr ? std::string_view(file, file_len) : std::string_view(),
                    func != nullptr ? std::string_view(func, func_len) : std::string_view(), line, whole});
}

int at_snprintf(char *buf, size_t size, const char *format, ...) {
  if (buf == nullptr || size == 0 || format == nullptr) return 0;
  va_list args;
  va_start(args, format);
  const int n = vsnprintf(buf, size, format, args);
  va_end(args);
  if (n < 0) return 0;
  return static_cast<int>(std::min(static_cast<size_t>(n), size - 1));
}
}
