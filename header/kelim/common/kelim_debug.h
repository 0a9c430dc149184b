// Vocabulary shared by every module of the daemon: message types, the log facility, debug switches, operation counters, timing
// records and the checked allocator. Everything here may be used from any thread; nothing takes a lock.
//
// The dumps and debug commands that show and set these are in app/common/kelim_debug.h.
#pragma once

#include <array>
#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "qx_runtime.h"
#include "qx_zlog.h"
#include "ut_ss_fp_appmng.h"

namespace kelim {

// A word that several threads read and write without a lock: relaxed loads and stores, a plain increment. When two threads
// increment at the same instant, one increment may be lost, which every user accepts.
template <typename T>
class Word {
 public:
  constexpr Word() = default;
  constexpr Word(T value) : value_(value) {}
  Word(const Word &) = delete;
  Word &operator=(const Word &) = delete;

  operator T() const { return load(); }
  T load() const { return value_.load(std::memory_order_relaxed); }
  T operator=(T value) {
    value_.store(value, std::memory_order_relaxed);
    return value;
  }
  void operator++() { *this = load() + 1; }

 private:
  std::atomic<T> value_{};
};

}  // namespace kelim

// ---- message types

enum sdn_msg_type : std::uint32_t {
  SDN_ADD_FLOW_MSG = 0,
  SDN_DEL_FLOW_MSG = 1,
  SDN_ADD_METER_MSG = 2,
  SDN_DEL_METER_MSG = 3,
  SDN_ENABLE_MSG = 4,
  SDN_DISABLE_MSG = 5,
  SDN_DEL_ALL_FLOW_MSG = 6,
  SDN_START_MSG = 7,
  SDN_END_MSG = 8,
  SDN_SCPORT_CLI_END_MSG = 9,  // no producer; keeps the numbering
  SDN_STAT_MSG = 10,
  SDN_PORT_MODE_CHANGE_MSG = 11,  // no producer; keeps the numbering
  SDN_ADD_ONC = 12,
  SDN_DEL_ONC = 13,
  SDN_BARRIER = 14,
  SDN_DEL_ALL = 15,
  SDN_OPT_MSG_MAX = 16,
};

// Printable names, indexed by sdn_msg_type.
inline constexpr std::array<const char *, SDN_OPT_MSG_MAX + 1> sdn_oprate_name = {
    "SDN_ADD_FLOW_MSG", "SDN_DEL_FLOW_MSG",         "SDN_ADD_METER_MSG", "SDN_DEL_METER_MSG", "SDN_ENABLE_MSG",
    "SDN_DISABLE_MSG",  "SDN_DEL_ALL_FLOW_MSG",     "SDN_START_MSG",     "SDN_END_MSG",       "SDN_SCPORT_CLI_END_MSG",
    "SDN_STAT_MSG",     "SDN_PORT_MODE_CHANGE_MSG", "SDN_ADD_ONC",       "SDN_DEL_ONC",       "SDN_BARRIER",
    "SDN_DEL_ALL",      "SDN_OPT_MSG_MAX"};

// The name for a log line, whatever the number.
inline const char *sdn_oprate_text(std::uint32_t type) {
  return sdn_oprate_name[type < SDN_OPT_MSG_MAX ? type : SDN_OPT_MSG_MAX];
}

// ---- debug switches

enum : std::uint32_t {
  SDN_DBG_VER = 1,
  SDN_DBG_ERROR = 2,
  SDN_DBG_DS = 4,
  SDN_DBG_BARRIER = 8,
  SDN_DBG_COUNT = 16,
  SDN_DBG_PACKET = 32,
  SDN_DBG_ASSERT = 64,
  SDN_DBG_VER_SERVICE = 128,  // VER lines also to the log service

  PROXY_DBG_VER = 1,
  PROXY_DBG_ERROR = 2,
  PROXY_DBG_NOTICE = 4,
  PROXY_DBG_BARRIER = 8,
};

inline kelim::Word<std::uint32_t> ssc_sdn_debug_sw{0};
inline kelim::Word<std::uint32_t> libproxy_sdn_debug_sw{PROXY_DBG_ERROR};
inline kelim::Word<std::uint32_t> g_sdn_count_dbg_sw{0};

// 0 keeps every line from the log service, 1 to 4 lets ERROR lines through, more lets VER lines through too.
inline kelim::Word<std::uint32_t> g_policy_error_zlog_level{6};
// The log service's category "policy_error"; null until start-up has opened it.
inline kelim::Word<qx_zlog_category *> g_policy_error_zlog_category{nullptr};

// ---- log facility
//
// SDN_ERROR(format, ...) and its siblings log under the calling function's name and line; the _AS forms log under another name. A
// class that is off costs one bit test and evaluates no argument. Texts are printed exactly as given, so they carry their own
// line ends.
//
// SDN_*   lines of the daemon: ERROR and VER to standard output and to the log service, DS, BARRIER and NOTICE to standard
// output. PROXY_* lines of the southbound layer, to standard output only, under the switch word of that layer.

namespace kelim {

// Where a line comes from: file (under the source root), function, line. The strings are literals.
struct LogSite {
  const char *file;
  const char *func;
  int line;
};

inline constexpr std::uint32_t kNever = UINT32_MAX;

struct LogClass {
  const char *tag;
  const Word<std::uint32_t> *sw;  // the switch word that turns printing on
  std::uint32_t print_bits;
  std::uint32_t service_bits;   // of ssc_sdn_debug_sw; 0: the log service needs no switch
  std::uint32_t service_above;  // the log service's level must be above this; kNever: the class never goes there
  int service_level;

  bool to_stdout() const { return (*sw & print_bits) != 0; }
  bool to_service() const {
    return service_above != kNever && g_policy_error_zlog_level > service_above &&
           (service_bits == 0 || (ssc_sdn_debug_sw & service_bits) != 0);
  }
  bool enabled() const {
    if (service_bits != 0 && sw == &ssc_sdn_debug_sw) return (*sw & (print_bits | service_bits)) != 0;
    return to_stdout() || to_service();
  }
};

inline constexpr LogClass kError{"ERROR", &ssc_sdn_debug_sw, SDN_DBG_ERROR, 0, 0, QX_ZLOG_ERROR};
inline constexpr LogClass kVer{"VER", &ssc_sdn_debug_sw, SDN_DBG_VER, SDN_DBG_VER_SERVICE, 4, QX_ZLOG_VERBOSE};
inline constexpr LogClass kDs{"DS", &ssc_sdn_debug_sw, SDN_DBG_DS, 0, kNever, 0};
inline constexpr LogClass kBarrier{"BARRIER", &ssc_sdn_debug_sw, SDN_DBG_BARRIER, 0, kNever, 0};
inline constexpr LogClass kNotice{"NOTICE", &libproxy_sdn_debug_sw, PROXY_DBG_NOTICE, 0, kNever, 0};
// Traces under the counting switch, which is on with any value.
inline constexpr LogClass kCount{"COUNT", &g_sdn_count_dbg_sw, ~std::uint32_t{0}, 0, kNever, 0};

inline constexpr LogClass kProxyError{"ERROR", &libproxy_sdn_debug_sw, PROXY_DBG_ERROR, 0, kNever, 0};
inline constexpr LogClass kProxyVer{"VER", &libproxy_sdn_debug_sw, PROXY_DBG_VER, 0, kNever, 0};
inline constexpr LogClass kProxyBarrier{"BARRIER", &libproxy_sdn_debug_sw, PROXY_DBG_BARRIER, 0, kNever, 0};
// Errors of the southbound layer's diagnostics, which go to the log service as well.
inline constexpr LogClass kProxyServiceError{"ERROR", &libproxy_sdn_debug_sw, PROXY_DBG_ERROR, 0, 0, QX_ZLOG_ERROR};

// Prints "[time][SDN][tag]func[line]:" and holds standard output until log_line_end, so that lines of two threads do not mix.
void log_line_begin(const LogClass &log_class, const LogSite &site);
void log_line_end();
// Hands a formatted text to the log service.
void log_to_service(const LogClass &log_class, const LogSite &site, const char *text);

// Lets the compiler check a format that is passed on.
[[gnu::format(printf, 1, 2)]] inline void log_check_format(const char *, ...) {}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
template <typename... Args>
[[gnu::cold, gnu::noinline]] void log_write(const LogClass &log_class, const LogSite &site, const char *format, Args... args) {
  if (log_class.to_stdout()) {
    log_line_begin(log_class, site);
    std::printf(format, args...);
    log_line_end();
  }
  if (log_class.to_service()) {
    char text[1024] = {};
    at_snprintf(text, sizeof text, format, args...);
    log_to_service(log_class, site, text);
  }
}
#pragma GCC diagnostic pop

}  // namespace kelim

// The source path in log lines. A module of several files redefines it after its includes, so that its lines carry one path.
#define SDN_LOG_SOURCE __FILE__

#define SDN_LOG_AS(log_class, name, ...)                                                        \
  do {                                                                                          \
    if ((log_class).enabled()) [[unlikely]] {                                                   \
      if (false) kelim::log_check_format(__VA_ARGS__);                                          \
      kelim::log_write(log_class, kelim::LogSite{SDN_LOG_SOURCE, name, __LINE__}, __VA_ARGS__); \
    }                                                                                           \
  } while (false)

#define SDN_ERROR_AS(name, ...) SDN_LOG_AS(kelim::kError, name, __VA_ARGS__)
#define SDN_VER_AS(name, ...) SDN_LOG_AS(kelim::kVer, name, __VA_ARGS__)
#define SDN_DS_AS(name, ...) SDN_LOG_AS(kelim::kDs, name, __VA_ARGS__)
#define SDN_BARRIER_LINE_AS(name, ...) SDN_LOG_AS(kelim::kBarrier, name, __VA_ARGS__)
#define SDN_NOTICE_AS(name, ...) SDN_LOG_AS(kelim::kNotice, name, __VA_ARGS__)
#define SDN_COUNT_AS(name, ...) SDN_LOG_AS(kelim::kCount, name, __VA_ARGS__)

#define SDN_ERROR(...) SDN_ERROR_AS(__func__, __VA_ARGS__)
#define SDN_VER(...) SDN_VER_AS(__func__, __VA_ARGS__)
#define SDN_DS(...) SDN_DS_AS(__func__, __VA_ARGS__)
#define SDN_BARRIER_LINE(...) SDN_BARRIER_LINE_AS(__func__, __VA_ARGS__)
#define SDN_NOTICE(...) SDN_NOTICE_AS(__func__, __VA_ARGS__)
#define SDN_COUNT(...) SDN_COUNT_AS(__func__, __VA_ARGS__)

#define PROXY_ERROR(...) SDN_LOG_AS(kelim::kProxyError, __func__, __VA_ARGS__)
#define PROXY_VER_AS(name, ...) SDN_LOG_AS(kelim::kProxyVer, name, __VA_ARGS__)
#define PROXY_VER(...) PROXY_VER_AS(__func__, __VA_ARGS__)
#define PROXY_NOTICE(...) SDN_LOG_AS(kelim::kNotice, __func__, __VA_ARGS__)
#define PROXY_BARRIER(...) SDN_LOG_AS(kelim::kProxyBarrier, __func__, __VA_ARGS__)
#define PROXY_SERVICE_ERROR(...) SDN_LOG_AS(kelim::kProxyServiceError, __func__, __VA_ARGS__)

// VER hex dump: a line "[", a line a byte, "]" and a blank line. Nothing between the brackets for a length of 0 or below.
void ssc_sdn_dbg_msg(const void *bytes, std::int64_t length);

// ---- operation counters

// First slot of each group of three in sdn_opt_cnt; the group's slots are received, handled (or replied) and failed.
enum sdn_opt_group : unsigned {
  SDN_OPT_FLOW_ADD = 0,
  SDN_OPT_FLOW_DEL = 3,
  SDN_OPT_METER_ADD = 6,
  SDN_OPT_METER_DEL = 9,
  SDN_OPT_ENABLE = 12,
  SDN_OPT_DISABLE = 15,
  SDN_OPT_DEL_ALL_FLOW = 18,
  SDN_OPT_DS_START = 21,
  SDN_OPT_DS_END = 24,
  SDN_OPT_STATISTIC = 30,
  SDN_OPT_ONC_ADD = 36,
  SDN_OPT_ONC_DEL = 39,
  SDN_OPT_BARRIER = 42,
  SDN_OPT_DEL_ALL = 45,
};
inline constexpr unsigned SDN_OPT_RECEIVED = 0, SDN_OPT_HANDLED = 1, SDN_OPT_FAILED = 2;

// Slots of libproxy_sdn_op_cnt.
enum libproxy_sdn_op : unsigned {
  PROXY_OP_CONNECT = 0,
  PROXY_OP_CONFIG = 1,
  PROXY_OP_FLOW_ADD = 2,
  PROXY_OP_FLOW_DEL = 3,
  PROXY_OP_METER_ADD = 4,
  PROXY_OP_METER_DEL = 5,
  PROXY_OP_OPEN = 6,
  PROXY_OP_CLOSE = 7,
  PROXY_OP_DEL_ALL_FLOW = 8,
  PROXY_OP_DS_START = 9,
  PROXY_OP_DS_END = 10,
  PROXY_OP_PKT_START = 11,
  PROXY_OP_PKT_END = 12,
  PROXY_OP_FETCH = 13,
  PROXY_OP_STATISTIC = 14,
  PROXY_OP_ONC_ADD = 15,
  PROXY_OP_ONC_DEL = 16,
  PROXY_OP_BARRIER = 17,
  PROXY_OP_DEL_ALL = 18,
  PROXY_OP_CAPACITY = 19,
};

inline kelim::Word<std::uint64_t> sdn_opt_cnt[48];          // the daemon's
inline kelim::Word<std::uint64_t> libproxy_sdn_op_cnt[20];  // the southbound layer's

// ---- timing records

// Slots of g_ssc_sdn_stat_func_time. A plain slot times an intake on the caller's thread, the slot after it (SDN_TIME_QUEUE) the
// handler on the main SDN thread. Slots 0 to 3, 24 and 25 stay idle.
enum sdn_time_slot : unsigned {
  SDN_TIME_ADD_FLOW = 4,
  SDN_TIME_DEL_FLOW = 6,
  SDN_TIME_ENABLE = 8,
  SDN_TIME_DISABLE = 10,
  SDN_TIME_DEL_ALL_FLOW = 12,
  SDN_TIME_DS_START = 14,
  SDN_TIME_DS_END = 16,
  SDN_TIME_STATISTIC = 18,
  SDN_TIME_ADD_METER = 20,
  SDN_TIME_DEL_METER = 22,
  SDN_TIME_SLOTS = 26,
};
inline constexpr unsigned SDN_TIME_QUEUE = 1;

struct ssc_sdn_stat_time {
  ut_ss_fp_appmng_time time;
  char name[100];
};
inline ssc_sdn_stat_time g_ssc_sdn_stat_total_time = {{}, "TOTAL_TIME"};
inline ssc_sdn_stat_time g_ssc_sdn_stat_func_time[SDN_TIME_SLOTS];

// Names the slots and announces the named ones to the platform. Once a process.
void ssc_sdn_stat_time_init();

inline void ssc_sdn_time_start(unsigned slot) {
  ut_ss_fp_appmng_time_start(&g_ssc_sdn_stat_func_time[slot].time);
}
inline void ssc_sdn_time_stop(unsigned slot) {
  ut_ss_fp_appmng_time_stop(&g_ssc_sdn_stat_func_time[slot].time, 0);
}

// ---- checked allocator

namespace kelim {
inline Word<std::uint32_t> malloc_fail_countdown{0};
}

// For tests: the n-th call of ssc_sdn_malloc from now fails, once; 0 switches it off.
inline void ssc_sdn_malloc_fail_nth(std::uint32_t n) {
  kelim::malloc_fail_countdown = n;
}

// A block of the system allocator, or null after one ERROR line that names the caller. Every request path allocates here. The
// owner releases the block with ssc_sdn_free.
inline void *ssc_sdn_malloc(std::size_t size, const char *caller, int caller_line) {
  const std::uint32_t countdown = kelim::malloc_fail_countdown;
  if (countdown != 0) [[unlikely]]
    kelim::malloc_fail_countdown = countdown - 1;
  void *block = countdown == 1 ? nullptr : std::malloc(size);
  if (block == nullptr) [[unlikely]]
    SDN_ERROR("MALLOC ERR![%s][%d]", caller, caller_line);
  return block;
}

// Null is allowed.
inline void ssc_sdn_free(void *block) {
  std::free(block);
}

// ---- main SDN thread

// Queue, flow cache and data-sync stage belong to the main SDN thread. Debug builds remember the first thread that enters one of
// them and assert that no other does; a release build does nothing.
#ifdef NDEBUG
inline void ssc_sdn_assert_main_thread() {}
#else
inline std::atomic<std::thread::id> g_ssc_sdn_main_thread{};
inline void ssc_sdn_assert_main_thread() {
  std::thread::id none{};
  const std::thread::id self = std::this_thread::get_id();
  [[maybe_unused]] const bool first = g_ssc_sdn_main_thread.compare_exchange_strong(none, self);
  assert((first || none == self) && "called outside the main SDN thread");
}
#endif

// For tests: resets the switches, the counters, the allocation seam and the remembered main thread.
void kelim_debug_reset_for_tests();
