// The log service behind qx_zlog.h, and the host's own lines in category "kelim_host".
//
// A line is formatted and queued on the caller's thread and written by a thread of the service, so that a slow journal or
// terminal does not stall the loop. The queue is bounded; what does not fit is counted and the count logged. A source line writes
// up to ten different texts within a second of the host's clock; what it says more in that second is counted, and one line gives
// the count. Lines for debugging are all written. Threads: any thread, except open and close.
#pragma once

#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>

#include "qx_zlog.h"

namespace host {
struct Config;
}

namespace host::log {

enum class Level : std::uint8_t { debug, info, warning, error };

// A line on its way; valid during the call that receives it.
struct LineView {
  Level level;
  std::string_view category;
  std::string_view file;
  std::string_view function;
  long line;
  std::string_view text;
};

// Opens the service as configured, under the process name `ident`. "" or the error. Loop's thread.
std::string open(const Config &config, const std::string &ident);

// Writes what is queued and the counts of repeated lines, and ends the service. A target that takes nothing for two seconds costs
// the lines that are left. Loop's thread.
void close();

bool is_open();

// Returns once everything logged before is written, counts of repeated lines included, or the target takes nothing for two
// seconds.
void flush();

// Whether a line of that place, category and level will be written as far as its text does not matter; it is counted where its
// source line has said enough. Asked before a text is formatted.
bool wants(const LineView &place);

// Logs a line; without an open service it goes to standard error.
void write(const LineView &line);

// The least severe level that is kept: "debug", "info", "warning", "error", or "off" for none. Any of these may be set, by any
// thread; other names count as "off".
void set_level(std::string_view name);
std::string_view level();

struct Counts {
  std::array<std::uint64_t, 4> lines{};  // kept, by level
  std::uint64_t dropped = 0;             // the target was too slow
};

// Since the process began.
Counts counts();

// Tests: what is told of every line, before levels and collapsing, on the thread that logs it; null for nothing. Not to be
// changed while other threads log.
void set_tap(std::function<void(const LineView &)> tap);

// A format string and the place that used it.
template <typename... Args>
struct Format {
  template <typename Text>
  FMT_CONSTEVAL Format(const Text &format, const char *from = __builtin_FILE(), const char *in = __builtin_FUNCTION(),
                       int at = __builtin_LINE())
      : text(format), file(from), function(in), line(at) {}

  fmt::format_string<Args...> text;
  const char *file;
  const char *function;
  int line;
};

namespace detail {
void host_line(Level level, const char *file, const char *function, int line, fmt::string_view format, fmt::format_args args);
}

// The host's own lines: host::log::error("cannot bind {}: {}", path, strerror(errno)).
template <typename... Args>
void info(Format<std::type_identity_t<Args>...> f, Args &&...args) {
  detail::host_line(Level::info, f.file, f.function, f.line, f.text, fmt::make_format_args(args...));
}
template <typename... Args>
void warn(Format<std::type_identity_t<Args>...> f, Args &&...args) {
  detail::host_line(Level::warning, f.file, f.function, f.line, f.text, fmt::make_format_args(args...));
}
template <typename... Args>
void error(Format<std::type_identity_t<Args>...> f, Args &&...args) {
  detail::host_line(Level::error, f.file, f.function, f.line, f.text, fmt::make_format_args(args...));
}

}  // namespace host::log
