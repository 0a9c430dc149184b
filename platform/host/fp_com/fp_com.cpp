#include "libss_fp_com.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <bsd/libutil.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "host/base/loop.h"
#include "host/base/services.h"
#include "host/base/timer.h"
#include "host/config/config.h"
#include "host/fault/fault.h"
#include "host/fp_com/stdout_guard.h"
#include "host/log/log.h"

namespace host {
namespace {

// ---- single instance

constexpr int kCannotRun = 1;  // exit status

// The locked file with this process's number, removed with this object.
class PidFile {
 public:
  PidFile(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}
  ~PidFile() {
    struct stat there, ours;
    if (lstat(path_.c_str(), &there) == 0 && fstat(fd_, &ours) == 0 && there.st_ino == ours.st_ino && there.st_dev == ours.st_dev)
      unlink(path_.c_str());
    close(fd_);
  }
  PidFile(const PidFile &) = delete;
  PidFile &operator=(const PidFile &) = delete;

  bool is_regular() const {
    struct stat s;
    return fstat(fd_, &s) == 0 && S_ISREG(s.st_mode);
  }
  bool write() const {
    const std::string pid = std::to_string(getpid());
    return ftruncate(fd_, 0) == 0 && pwrite(fd_, pid.data(), pid.size(), 0) == static_cast<ssize_t>(pid.size());
  }

 private:
  std::string path_;
  int fd_;
};

// Released with the runtime, or by exit() if the process ends without releasing it.
std::unique_ptr<PidFile> g_pid_file;

std::string place_of(const std::string &pid_file) {
  if (!config().run_dir_set) return pid_file;
  return config().run_dir + "/" + pid_file.substr(pid_file.rfind('/') + 1);
}

std::string holder(const std::string &path) {
  std::ifstream file(path);
  pid_t pid = 0;
  return file >> pid && pid > 0 ? "with pid " + std::to_string(pid) : std::string("that has not written its pid yet");
}

// Returns "" or why this process must not run.
std::string take_pid_file(const std::string &pid_file) {
  if (std::string error = config_load(); !error.empty()) return error;
  if (std::string error = config().run_dir_set ? make_run_dir() : ""; !error.empty()) return error;
  const std::string path = place_of(pid_file);
  // Following a link would truncate another file.
  const int fd = flopen(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
  if (fd < 0 && errno == EWOULDBLOCK) return path + " is held by a running instance " + holder(path);
  if (fd < 0 && errno == ELOOP) return path + " is a symbolic link; a pid file must be a regular file";
  if (fd < 0) return path + " cannot be opened: " + strerror(errno) + "; KELIM_RUN_DIR can name another directory for it";
  auto file = std::make_unique<PidFile>(path, fd);
  if (!file->is_regular()) return path + " is not a regular file; a pid file must be one";
  if (!file->write()) return path + " cannot be written: " + strerror(errno);
  g_pid_file = std::move(file);
  at_finish([] { g_pid_file.reset(); });
  return "";
}

// ---- health monitoring

// True if the marker is a file of root or of this process's user: in a directory that everybody can write to, files of others
// must not count, nor links to such files.
bool is_ours(const struct stat &s) {
  return S_ISREG(s.st_mode) && s.st_nlink == 1 && (s.st_uid == 0 || s.st_uid == geteuid());
}

// Feeds systemd's watchdog from the loop, so that a stuck loop is detected. While the marker file exists, monitoring is off:
// systemd is told to expect nothing, so that the process can be stopped in a debugger.
class Watchdog {
 public:
  Watchdog(std::string marker, std::uint64_t period_us) : marker_(std::move(marker)), period_us_(period_us) {}

  void beat() {
    struct stat s;
    const bool there = lstat(marker_.c_str(), &s) == 0, off = there && is_ours(s), foreign = there && !off;
    if (foreign && !foreign_)
      log::warn("health monitoring stays on: {} is not a regular file of root or of this process's user", marker_);
    foreign_ = foreign;
    if (off != off_) sd_notifyf(0, "WATCHDOG_USEC=%llu", static_cast<unsigned long long>(off ? 0 : period_us_));
    if (off != off_) log::info("health monitoring is {}: {} {}", off ? "off" : "on", marker_, off ? "exists" : "is gone");
    off_ = off;
    if (!off) sd_notify(0, "WATCHDOG=1");
    timer_.arm(std::chrono::microseconds(period_us_ / 3));
  }

 private:
  std::string marker_;
  std::uint64_t period_us_;
  bool off_ = false;
  bool foreign_ = false;  // the marker belongs to another user
  Timer timer_{[this] { beat(); }};
};

std::unique_ptr<Watchdog> g_watchdog;

int start_watchdog(const char *marker) {
  std::uint64_t period_us = 0;
  const int asked = sd_watchdog_enabled(0, &period_us);
  if (asked < 0) {
    log::error("systemd's watchdog request cannot be read: {}", strerror(-asked));
    return QX_FAILED;
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
  if (!pid_file || host::fault::check(host::fault::Point::fp_com_check_run) != 0) return host::kCannotRun;
  const std::string error = host::take_pid_file(pid_file);
  if (error.empty()) {
    host::guard_stdout();
    return 0;
  }
  std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, error.c_str());
  return host::kCannotRun;
}

int libss_fp_com_ham_init(const char *marker_file, struct qx_zlog_category *) {
  if (!marker_file) return QX_FAILED;
  if (const int rv = host::fault::check(host::fault::Point::ham_init)) return rv;
  return host::start_watchdog(marker_file);
}
}
