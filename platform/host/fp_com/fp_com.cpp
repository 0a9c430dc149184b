#include "libss_fp_com.h"

#include <errno.h>
#include <string.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <bsd/libutil.h>

#include <cstdio>
#include <memory>
#include <string>

#include "host/config/config.h"
#include "host/fault/fault.h"
#include "host/log/log.h"
#include "host/runtime/loop.h"
#include "host/runtime/services.h"
#include "host/runtime/timer.h"

namespace host {
namespace {

// ---- single instance

constexpr int kCannotRun = 1;  // exit status

struct PidFileDeleter {
  void operator()(pidfh *file) const { pidfile_remove(file); }
};

using PidFile = std::unique_ptr<pidfh, PidFileDeleter>;

// Released with the runtime, or by exit() where the process ends without releasing it.
PidFile g_pid_file;

std::string place_of(const std::string &pid_file) {
  if (!config().run_dir_set) return pid_file;
  return config().run_dir + "/" + pid_file.substr(pid_file.rfind('/') + 1);
}

std::string holder(pid_t pid) {
  return pid > 0 ? "with pid " + std::to_string(pid) : std::string("that has not written its pid yet");
}

// "" or why this process must not run.
std::string take_pid_file(const std::string &pid_file) {
  if (std::string error = config_load(); !error.empty()) return error;
  if (std::string error = config().run_dir_set ? make_run_dir() : ""; !error.empty()) return error;
  const std::string path = place_of(pid_file);
  pid_t other = -1;
  PidFile file(pidfile_open(path.c_str(), 0644, &other));
  if (!file && errno == EEXIST) return path + " is held by a running instance " + holder(other);
  if (!file) return path + " cannot be taken: " + strerror(errno) + "; KELIM_RUN_DIR names another directory for it";
  if (pidfile_write(file.get()) != 0) return path + " cannot be written: " + strerror(errno);
  g_pid_file = std::move(file);
  at_finish([] { g_pid_file.reset(); });
  return "";
}

// ---- health monitoring

// Feeds systemd's watchdog from the loop, so that a stuck loop is seen. While the marker file exists monitoring is off: systemd
// is told to expect nothing, which lets somebody stop the process in a debugger.
class Watchdog {
 public:
  Watchdog(std::string marker, std::uint64_t period_us) : marker_(std::move(marker)), period_us_(period_us) {}

  void beat() {
    const bool off = access(marker_.c_str(), F_OK) == 0;
    if (off != off_) sd_notifyf(0, "WATCHDOG_USEC=%llu", static_cast<unsigned long long>(off ? 0 : period_us_));
    if (off != off_) log::info("health monitoring is {}: {} {}", off ? "off" : "on", marker_, off ? "exists" : "has gone");
    off_ = off;
    if (!off) sd_notify(0, "WATCHDOG=1");
    timer_.arm(std::chrono::microseconds(period_us_ / 3));
  }

 private:
  std::string marker_;
  std::uint64_t period_us_;
  bool off_ = false;
  Timer timer_{[this] { beat(); }};
};

std::unique_ptr<Watchdog> g_watchdog;

int start_watchdog(const char *marker) {
  std::uint64_t period_us = 0;
  const int asked = sd_watchdog_enabled(0, &period_us);
  if (asked < 0) {
    log::error("systemd's watchdog request cannot be read: {}", strerror(-asked));
    return -1;
  }
  // Ready means that the loop turns.
  post([] { sd_notify(0, "READY=1"); });
  at_finish([] {
    sd_notify(0, "STOPPING=1");
    g_watchdog.reset();
  });
  if (asked == 0) return 0;
  g_watchdog = std::make_unique<Watchdog>(marker, period_us);
  g_watchdog->beat();
  return 0;
}

}  // namespace
}  // namespace host

extern "C" {

int libss_fp_com_check_run(const char *pid_file) {
  if (pid_file == nullptr || host::fault::check(host::fault::Point::fp_com_check_run) != 0) return host::kCannotRun;
  const std::string error = host::take_pid_file(pid_file);
  if (error.empty()) return 0;
  std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, error.c_str());
  return host::kCannotRun;
}

int libss_fp_com_ham_init(const char *marker_file, struct qx_zlog_category *) {
  if (marker_file == nullptr) return -1;
  if (const int rv = host::fault::check(host::fault::Point::ham_init)) return rv;
  return host::start_watchdog(marker_file);
}
}
