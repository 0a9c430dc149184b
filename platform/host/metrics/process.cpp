#include "host/metrics/process.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "host/base/owner_timer.h"
#include "host/log/log.h"
#include "host/metrics/metrics.h"
#include "host/timing/timing.h"
#include "kelim_version.h"

namespace host::metrics {
namespace {

double seconds_of(const timeval &time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

std::uint64_t resident_bytes() {
  unsigned long pages = 0;
  if (const std::unique_ptr<FILE, int (*)(FILE *)> file(fopen("/proc/self/statm", "re"), fclose); file)
    if (std::fscanf(file.get(), "%*u %lu", &pages) != 1) pages = 0;
  return pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

// Without the one used for counting.
std::uint64_t open_descriptors() {
  std::uint64_t entries = 0;
  const std::unique_ptr<DIR, int (*)(DIR *)> directory(opendir("/proc/self/fd"), closedir);
  while (const dirent *entry = directory ? readdir(directory.get()) : nullptr) entries += entry->d_name[0] != '.';
  return entries ? entries - 1 : 0;
}

void write_process(Page &page, double started) {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  page.begin({"process_cpu_seconds_total", Kind::counter, "Processor time of the process, in user and system mode."});
  page.seconds(seconds_of(used.ru_utime) + seconds_of(used.ru_stime));
  page.begin({"process_start_time_seconds", Kind::gauge, "Start of the process, in seconds since 1970."});
  page.seconds(started);
  page.single({"process_resident_memory_bytes", Kind::gauge, "Resident memory of the process."}, resident_bytes());
  page.single({"process_open_fds", Kind::gauge, "Open file descriptors."}, open_descriptors());
  page.single({"process_max_fds", Kind::gauge, "Limit of open file descriptors."}, descriptors.rlim_cur);
}

void write_log(Page &page) {
  const log::Counts counts = log::counts();
  page.begin({"kelim_log_lines_total", Kind::counter, "Log lines written, by level."});
  constexpr const char *kLevels[] = {"debug", "info", "warning", "error"};  // as log::Level
  for (std::size_t level = 0; level < counts.lines.size(); ++level) page.sample(counts.lines[level], {{"level", kLevels[level]}});
  page.single({"kelim_log_lines_dropped_total", Kind::counter, "Log lines dropped because the log target was too slow."},
              counts.dropped);
}

void write_operations(Page &page) {
  const nlohmann::json rows = timing::view();
  if (rows.empty()) return;
  page.begin({"kelim_operation_seconds", Kind::summary, "Duration of the daemon's operations."});
  for (const nlohmann::json &row : rows)
    page.summary(row.at("total_us").get<double>() / 1e6, row.at("count").get<std::uint64_t>(),
                 {{"operation", row.at("name").get_ref<const std::string &>()}});
}

}  // namespace

void add_process_source() {
  const auto now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  add_source([started = now](Page &page) {
    page.begin({"kelim_build_info", Kind::gauge, "Always 1; the version is its label."});
    page.sample(1, {{"version", KELIM_VERSION}});
    write_process(page, started);
    write_log(page);
    page.begin({"kelim_drain_seconds", Kind::histogram, "Duration of the daemon's drains of its handler list."});
    page.histogram(owner_timer_runs());
    write_operations(page);
  });
}

}  // namespace host::metrics
