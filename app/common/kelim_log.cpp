// The out-of-line half of header/kelim/common/kelim_debug.h: printing log lines, naming timing slots, resetting for tests.
#include <array>
#include <cstdio>
#include <cstring>

#include "kelim/common/kelim_debug.h"

#undef SDN_LOG_SOURCE
#define SDN_LOG_SOURCE "app/common/kelim_debug.cpp"

namespace kelim {

void log_line_begin(const LogClass &log_class, const LogSite &site) {
  char time[30];
  qx_time_2_string(time, sizeof time);
  flockfile(stdout);
  std::printf("[%s][SDN][%s]%s[%d]:", time, log_class.tag, site.func, site.line);
}

// Flushes at once, even into a pipe or a file: it may be the last line before a crash.
void log_line_end() {
  std::fflush(stdout);
  funlockfile(stdout);
}

void log_to_service(const LogClass &log_class, const LogSite &site, const char *text) {
  qx_zlog_category *category = g_policy_error_zlog_category;
  if (!category) return;
  qxdf_zlog(category, site.file, std::strlen(site.file), site.func, std::strlen(site.func), site.line, log_class.service_level,
            "%s", text);
}

}  // namespace kelim

void ssc_sdn_dbg_msg(const void *bytes, std::int64_t length) {
  if (!kelim::kVer.enabled()) return;
  const auto *byte = static_cast<const unsigned char *>(bytes);
  SDN_VER("[\n");
  for (std::int64_t i = 0; i < length; ++i) SDN_VER("%02x \n", byte[i]);
  SDN_VER("]\n\n");
}

namespace {

// Names of the timing slots, in order.
constexpr std::array<const char *, SDN_TIME_SLOTS> kTimeNames = {
    "SDN_DEL_L3INTF_NOTIFY",
    "SDN_DEL_L3INTF_NOTIFY_QUEUE",
    nullptr,
    nullptr,
    "SDN_ADD_FLOW",
    "SDN_ADD_FLOW_QUEUE",
    "SDN_DEL_FLOW",
    "SDN_DEL_FLOW_QUEUE",
    "SDN_ENABLE",
    "SDN_ENABLE_QUEUE",
    "SDN_DISABLE",
    "SDN_DISABLE_QUEUE",
    "SDN_DEL_ALL_FLOW",
    "SDN_DEL_ALL_FLOW_QUEUE",
    "SDN_DS_START",
    "SDN_DS_START_QUEUE",
    "SDN_DS_END",
    "SDN_DS_END_QUEUE",
    "SDN_STATISTIC_FLOW_CNT",
    "SDN_STATISTIC_FLOW_CNT_QUEUE",
    "SDN_ADD_METER",
    "SDN_ADD_METER_QUEUE",
    "SDN_DEL_METER",
    "SDN_DEL_METER_QUEUE",
    "SDN_PORT_MODE_CHANGE",
    "SDN_PORT_MODE_CHANGE_QUEUE",
};

}  // namespace

void ssc_sdn_stat_time_init() {
  ut_ss_fp_appmng_time_publish(&g_ssc_sdn_stat_total_time.time, g_ssc_sdn_stat_total_time.name);
  for (unsigned slot = 0; slot < SDN_TIME_SLOTS; ++slot) {
    if (!kTimeNames[slot]) continue;
    ssc_sdn_stat_time &record = g_ssc_sdn_stat_func_time[slot];
    std::snprintf(record.name, sizeof record.name, "%s", kTimeNames[slot]);
    ut_ss_fp_appmng_time_publish(&record.time, record.name);
  }
}

void kelim_debug_reset_for_tests() {
  ssc_sdn_debug_sw = 0;
  libproxy_sdn_debug_sw = PROXY_DBG_ERROR;
  g_sdn_count_dbg_sw = 0;
  g_policy_error_zlog_level = 6;
  for (auto &counter : sdn_opt_cnt) counter = 0;
  for (auto &counter : libproxy_sdn_op_cnt) counter = 0;
  ssc_sdn_malloc_fail_nth(0);
#ifndef NDEBUG
  g_ssc_sdn_main_thread = std::thread::id{};
#endif
}
