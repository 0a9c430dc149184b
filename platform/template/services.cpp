// The small services: log, single instance, redundancy, ports, debug commands, timing. Each does the minimum that its header
// requires.
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <map>
#include <set>
#include <string>

#include "libddm.h"
#include "libss_fp_com.h"
#include "lsm_if.h"
#include "platform.h"
#include "qx_zlog.h"
#include "rdnd_lib.h"
#include "ssat.h"
#include "ut_ss_fp_appmng.h"

// ---- qx_zlog.h: errors to standard error, one line each

struct qx_zlog_category {
  std::string name;
};

qx_zlog_category *qx_zlog_init(const char *name) {
  static auto &categories = *new std::list<qx_zlog_category>;  // threads may log until the end
  const auto known = std::ranges::find(categories, name, &qx_zlog_category::name);
  return known != categories.end() ? &*known : &*categories.insert(known, {name});
}

void qxdf_zlog(qx_zlog_category *category, const char *, std::size_t, const char *func, std::size_t func_len, long line,
               int level, const char *format, ...) {
  if (!category || level < QX_ZLOG_ERROR) return;
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  std::string whole = text;
  whole.erase(whole.find_last_not_of("\n ") + 1);
  char time[32];
  fprintf(stderr, "%s %s %.*s:%ld %s\n", qx_time_2_string(time, sizeof time), category->name.c_str(), static_cast<int>(func_len),
          func, line, whole.c_str());
}

int at_snprintf(char *buf, std::size_t size, const char *format, ...) {
  if (size == 0) return 0;
  va_list arguments;
  va_start(arguments, format);
  const int wanted = vsnprintf(buf, size, format, arguments);
  va_end(arguments);
  return std::clamp(wanted, 0, static_cast<int>(size) - 1);
}

// ---- libss_fp_com.h

// The lock is held until the process ends. KELIM_RUN_DIR names another directory, for users other than root.
int libss_fp_com_check_run(const char *pid_file) {
  std::string path = pid_file;
  if (const char *directory = getenv("KELIM_RUN_DIR")) path = directory + path.substr(path.rfind('/'));
  const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (file >= 0 && flock(file, LOCK_EX | LOCK_NB) == 0 && ftruncate(file, 0) == 0 && dprintf(file, "%d\n", getpid()) > 0)
    return 0;
  perror(path.c_str());
  return 1;
}

// A switch would arm the timer that feeds its watchdog here; this platform has no watchdog.
int libss_fp_com_ham_init(const char *, qx_zlog_category *) {
  return 0;
}

// ---- rdnd_lib.h: the only supervisor, which begins its work in the first turn of the loop

int rdnd_lib_mom_reg(const rdnd_lib_reg *reg) {
  if (!reg || !reg->name || !reg->role_cb || !reg->state_cb) return QX_INVALID;
  platform::post([take_up = reg->role_cb] {
    if (take_up(nullptr, nullptr) == 0) return;
    fputs("The process could not take up its work.\n", stderr);
    exit(EXIT_FAILURE);
  });
  return 0;
}

// ---- libddm.h, lsm_if.h: 48 ports

int libddm_init(qx_global *, const char *) {
  return 0;
}

int libddm_get_phyid_by_ifx(std::uint32_t ifx, std::uint32_t *phyid) {
  constexpr std::uint32_t kPorts = 48;
  if (!phyid) return QX_INVALID;
  if (ifx < 1 || ifx > kPorts) return QX_NOT_FOUND;
  *phyid = ifx - 1;
  return 0;
}

// The ports of a switch are not interfaces of a machine.
int libddm_for_each_port(void (*)(void *, std::uint32_t, const char *), void *) {
  return 0;
}

std::uint32_t lsm_if_get_type(std::uint32_t) {
  return LSM_IF_TYPE_ETHERNET;
}

// ---- ssat.h: commands are only kept; a switch adds its own way for operators to call them

static std::map<std::string, std::map<std::string, ssat_handler>> &commands() {
  static auto &modules = *new std::map<std::string, std::map<std::string, ssat_handler>>;
  return modules;
}

int ssat_lib_init(qx_global *, const char *name) {
  if (!name) return QX_INVALID;
  commands()[name];
  return 0;
}

int ssat_reg_mod_cmd(const char *module, const char *command, const char *format, ssat_handler handler) {
  if (!module || !command || !format || !handler) return QX_INVALID;
  const auto known = commands().find(module);
  if (known == commands().end()) return QX_NOT_FOUND;
  return known->second.emplace(command, handler).second ? QX_OK : QX_INVALID;
}

// ---- ut_ss_fp_appmng.h

static std::uint64_t now_ns() {
  const timespec now = qx_monotime();
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

void ut_ss_fp_appmng_time_start(ut_ss_fp_appmng_time *record) {
  __atomic_store_n(&record->started, now_ns(), __ATOMIC_RELAXED);
}

// The thread that clears the start counts it, so that none is counted twice.
void ut_ss_fp_appmng_time_stop(ut_ss_fp_appmng_time *record, std::uint32_t) {
  const std::uint64_t started = __atomic_exchange_n(&record->started, 0, __ATOMIC_RELAXED);
  if (started == 0) return;
  const std::uint64_t took = now_ns() - started;
  __atomic_fetch_add(&record->count, 1, __ATOMIC_RELAXED);
  __atomic_fetch_add(&record->total, took, __ATOMIC_RELAXED);
  __atomic_store_n(&record->last, took, __ATOMIC_RELAXED);
  if (took > __atomic_load_n(&record->max, __ATOMIC_RELAXED)) __atomic_store_n(&record->max, took, __ATOMIC_RELAXED);
}

// A switch would make them visible here; a debugger finds them by name.
void ut_ss_fp_appmng_time_publish(const ut_ss_fp_appmng_time *, const char *) {}
