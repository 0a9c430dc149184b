#include "host/log/sinks.h"

#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/syslog_sink.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

namespace host::log {
namespace {

int priority(spdlog::level::level_enum level) {
  constexpr std::array<int, spdlog::level::n_levels> priorities = {LOG_DEBUG, LOG_DEBUG, LOG_INFO, LOG_WARNING,
                                                                   LOG_ERR,   LOG_CRIT,  LOG_DEBUG};
  return priorities[level];
}

// The journal's own fields, so that `journalctl KELIM_CATEGORY=policy_error CODE_FUNC=...` finds lines.
class JournalSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 public:
  explicit JournalSink(std::string ident) : ident_(std::move(ident)) {}

 protected:
  void sink_it_(const spdlog::details::log_msg &msg) override {
    const std::array<std::string, 7> fields = {
        "MESSAGE=" + std::string(msg.payload.data(), msg.payload.size()),
        "PRIORITY=" + std::to_string(priority(msg.level)),
        "SYSLOG_IDENTIFIER=" + ident_,
        "KELIM_CATEGORY=" + std::string(msg.logger_name.data(), msg.logger_name.size()),
        std::string("CODE_FILE=") + msg.source.filename,
        std::string("CODE_FUNC=") + msg.source.funcname,
        "CODE_LINE=" + std::to_string(msg.source.line),
    };
    std::array<iovec, fields.size()> parts;
    for (std::size_t i = 0; i < fields.size(); ++i) parts[i] = {const_cast<char *>(fields[i].data()), fields[i].size()};
    sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
  }
  void flush_() override {}

 private:
  std::string ident_;
};

// Bypasses the C library's stream: if standard error is a pipe without a reader, the stream's lock would stay held, and the end
// of the process may need it.
class StderrSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 protected:
  void sink_it_(const spdlog::details::log_msg &msg) override {
    spdlog::memory_buf_t line;
    formatter_->format(msg, line);
    for (std::size_t at = 0; at < line.size();) {
      const ssize_t written = ::write(STDERR_FILENO, line.data() + at, line.size() - at);
      if (written < 0 && errno != EINTR) return;
      at += static_cast<std::size_t>(std::max<ssize_t>(written, 0));
    }
  }
  void flush_() override {}
};

// systemd names the device and inode of the stream that it connected; the standard error of a service's child may lead elsewhere.
bool stderr_is_journal() {
  const char *stream = std::getenv("JOURNAL_STREAM");
  struct stat s;
  if (!stream || fstat(2, &s) != 0) return false;
  return std::to_string(s.st_dev) + ":" + std::to_string(s.st_ino) == stream;
}

using SinkPtr = std::unique_ptr<spdlog::sinks::sink>;

SinkPtr make_stderr(const Config::Log &, const std::string &) {
  return std::make_unique<StderrSink>();
}

SinkPtr make_journal(const Config::Log &, const std::string &ident) {
  return std::make_unique<JournalSink>(ident);
}

SinkPtr make_auto(const Config::Log &config, const std::string &ident) {
  return stderr_is_journal() ? make_journal(config, ident) : make_stderr(config, ident);
}

SinkPtr make_syslog(const Config::Log &, const std::string &ident) {
  return std::make_unique<spdlog::sinks::syslog_sink_mt>(ident, LOG_PID, LOG_DAEMON, true);
}

SinkPtr make_file(const Config::Log &config, const std::string &ident) {
  return std::make_unique<spdlog::sinks::rotating_file_sink_mt>(file_of(config, ident), config.max_bytes, config.files);
}

struct Target {
  std::string_view name;
  SinkPtr (*make)(const Config::Log &, const std::string &ident);
  const char *pattern;
};

// Time, level and category aligned, then the text, then its place in the source.
constexpr const char *kWholeLine = "%Y-%m-%d %H:%M:%S.%e %-7l %-12n %v  (%@ %!)";

constexpr Target kTargets[] = {
    {"auto", make_auto, kWholeLine},  {"stderr", make_stderr, kWholeLine},       {"file", make_file, kWholeLine},
    {"journald", make_journal, "%v"}, {"syslog", make_syslog, "%n: %v (%@ %!)"},
};

}  // namespace

std::string file_of(const Config::Log &config, const std::string &ident) {
  std::string file = config.file;
  for (std::size_t at = 0; (at = file.find("%p", at)) != file.npos; at += ident.size()) file.replace(at, 2, ident);
  return file;
}

std::unique_ptr<spdlog::sinks::sink> make_sink(const Config::Log &config, const std::string &ident) {
  const Target *target = kTargets;
  for (const Target &t : kTargets) {
    if (t.name == config.target) target = &t;
  }
  auto sink = target->make(config, ident);
  sink->set_pattern(target->pattern);
  return sink;
}

}  // namespace host::log
