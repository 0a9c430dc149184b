// The log service behind qx_zlog.h, and the host's own lines in category "kelim_host".
//
// A line is formatted and queued on the caller's thread and written by a thread of the service, so that a slow journal or
// terminal does not stall the loop. The queue is bounded; lines that do not fit are counted and the count is logged. A source
// line writes up to ten different texts within a second of the host's clock; further lines in that second are counted, and one
// line reports the count. Debug lines are all written. Threads: any thread, except open and close.
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

// A line to be logged; valid during the call that receives it.
struct LineView {
  Level level;
  std::string_view category;
  std::string_view file;
  std::string_view function;
  long line;
  std::string_view text;
};

// Opens the service as configured, under the process name `ident`. Returns "" or the error. Loop's thread.
std::string open(const Config &config, const std::string &ident);

// Writes the queued lines and the counts of repeated ones, and ends the service. If the target accepts nothing for two seconds,
// the remaining lines are lost. Loop's thread.
void close();

bool is_open();

// Returns once everything logged so far is written, counts of repeated lines included, or the target has accepted nothing for two
// seconds.
void flush();

// True unless a line of that place, category and level is dropped whatever its text; a line of a source line that has used up its
// share is counted. Called before a text is formatted.
bool wants(const LineView &place);

// Logs a line; without an open service it goes to standard error.
void write(const LineView &line);

// Sets the least severe level that is logged: "debug", "info", "warning", "error", or "off" for none. Other names count as "off".
// Any thread.
void set_level(std::string_view name);
std::string_view level();

struct Counts {
  std::array<std::uint64_t, 4> lines{};  // logged, by level
  std::uint64_t dropped = 0;             // the target was too slow
};

// Since the start of the process.
Counts counts();

// Tests: has `tap` called with every line, before levels and collapsing, on the thread that logs it; null removes it. Must not be
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
