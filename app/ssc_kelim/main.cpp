#include "ssc_kelim/main.h"

#include <cstdlib>
#include <iterator>
#include <span>

#include "common/kelim_debug.h"
#include "kelim/common/kelim_debug.h"
#include "libcgstctrl.h"
#include "libddm.h"
#include "libss_fp_com.h"
#include "rdnd_lib.h"
#include "s_policy_kelim.pb-c.h"
#include "ssc_kelim/sdn/ssc_kelim_adapt.h"
#include "ssc_kelim/sdn/ssc_kelim_data_sync.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_to_ace.h"
#include "ssc_kelim/sdn/ssc_kelim_init.h"
#include "ssc_kelim/sdn/ssc_kelim_mom.h"
#include "ssc_kelim/sdn/ssc_kelim_msg_to_ssd.h"
#include "ssc_kelim/sdn/ssc_kelim_replies.h"
#include "ssc_kelim/sdn/ssc_kelim_requests.h"
#include "ssc_kelim/sdn/ssc_sdn_main_list.h"
#include "ssc_kelim/sdn/ssc_sdn_proxy.h"
#include "ssc_kelim/sdn/ssc_sdn_proxy_dbg.h"

namespace {

constexpr const char *kName = "ssc_kelim";
constexpr const char *kAppLabel = "connect app async";
constexpr const char *kUdpLabel = "connect de global async";
constexpr int kExitOtherServer = 77;  // the supervisor restarts the process

qx_thread g_event_thread;

// ---- start-up: steps that run until one fails

struct Step {
  int (*run)();
  void (*log_failure)(int rv);
};

int run_steps(std::span<const Step> steps) {
  for (const Step &step : steps) {
    const int rv = step.run();
    if (rv == 0) continue;
    step.log_failure(rv);
    return rv;
  }
  return 0;
}

constexpr const char *kAppConnect = "ssc_kelim_app_db_connect";
constexpr Step kAppConnectSteps[] = {
    {[] { return qx_mom_client_connect_sync(g_ssc_kelim_global, QX_MOM_APP_DB); },
     [](int) { SDN_ERROR_AS(kAppConnect, "sync connect APP db fail.\n"); }},
    {[] { return qx_mom_client_connect(g_ssc_kelim_global, QX_MOM_APP_DB, ssc_app_async_connect_cb, kAppLabel); },
     [](int rv) { SDN_ERROR_AS(kAppConnect, "async connect APP db fail. rv:%d\n", rv); }},
    {[] { return qx_mom_client_set_reconnect_cb(g_ssc_kelim_global, QX_MOM_APP_DB, ssc_kelim_app_reconnect_cb, nullptr); },
     [](int rv) { SDN_ERROR_AS(kAppConnect, "qx_mom_client_set_reconnect_cb fail. rv:%d\n", rv); }},
};

constexpr const char *kUdpConnect = "ssc_kelim_udp_db_connect";
constexpr Step kUdpConnectSteps[] = {
    {[] {
       SDN_VER_AS(kUdpConnect, "sync connect to udp db");
       return qx_mom_client_connect_sync(g_ssc_kelim_global, QX_MOM_UDP_DB);
     },
     [](int rv) { SDN_ERROR_AS(kUdpConnect, "sync connect UDP db fail. rv:%d \n", rv); }},
    {[] { return qx_mom_client_connect(g_ssc_kelim_global, QX_MOM_UDP_DB, ssc_udp_async_connect_cb, kUdpLabel); },
     [](int rv) { SDN_ERROR_AS(kUdpConnect, "async connect db fail. rv:%d \n", rv); }},
    {[] { return qx_mom_client_set_reconnect_cb(g_ssc_kelim_global, QX_MOM_UDP_DB, ssc_kelim_udp_reconnect_cb, nullptr); },
     [](int rv) { SDN_ERROR_AS(kUdpConnect, "qx_mom_client_set_reconnect_cb fail. rv:%d \n", rv); }},
};

// Arms the event timer. If that fails, all timers of the process are stopped and the list is no longer drained.
bool arm_event_timer(const char *caller) {
  constexpr long kPeriodMicroseconds = 50000;
  qx_thread_master *master = g_ssc_kelim_global->master;
  if (qx_thread_insert_timer_timeval(master, &g_event_thread, ssc_kelim_event_pthrd, nullptr, 0, kPeriodMicroseconds, kName) == 0)
    return true;
  qx_thread_master_finish(master);
  SDN_ERROR_AS(caller, "qx_thread_insert_event fail.\n");
  return false;
}

constexpr const char *kRole = "ssc_kelim_rdnd_unware_cb";
constexpr Step kStartSteps[] = {
    // The daemon works without its debug commands, so these two never end the chain.
    {[] {
       ut_ssc_sdn_dbg_init(g_ssc_kelim_global);
       libproxy_sdn_debug_init(g_ssc_kelim_global);
       return 0;
     },
     nullptr},
    {[] { return libddm_init(g_ssc_kelim_global, kName); }, [](int rv) { SDN_ERROR_AS(kRole, "ddm init fail. rv:%d\n ", rv); }},
    {[] { return run_steps(kAppConnectSteps); },
     [](int rv) { SDN_ERROR_AS(kRole, "ssc_kelim_app_db_connect error. rv:%d", rv); }},
    {[] {
       SDN_VER_AS(kRole, "sync connect to asic db");
       return qx_mom_client_connect_sync(g_ssc_kelim_global, QX_MOM_ASIC_DB);
     },
     [](int rv) { SDN_ERROR_AS(kRole, "sync connect QX_MOM_ASIC_DB fail. rv = %d\n", rv); }},
    {[] { return kelim_pkt_start(); }, [](int rv) { SDN_ERROR_AS(kRole, "kelim_pkt_start failed. rv = %d\n", rv); }},
    {[] { return run_steps(kUdpConnectSteps); },
     [](int rv) { SDN_ERROR_AS(kRole, "ssc_kelim_udp_db_connect error. rv:%d\n", rv); }},
    {[]() -> int {
       g_event_thread = {};
       return arm_event_timer(kRole) ? QX_OK : QX_FAILED;
     },
     [](int) {}},
};

// ---- subscriptions and congestion-control topics

struct Subscription {
  qx_mom_type type;
  qx_mom_notify_cb callback;
  const char *failure;
};

bool subscribe(std::int32_t db, const Subscription &subscription) {
  const qx_mom_spec spec{subscription.type, QX_MOM_DECODED};
  return qx_mom_subscribe(g_ssc_kelim_global, db, &spec, subscription.callback) == 0;
}

constexpr Subscription kAppSubscription = {
    {&s_policy_kelim__flow_to_ace__descriptor, &s_policy_kelim__parse_flow_key__descriptor},
    flow_to_ace_install_call_back,
    "qx_mom_subscribe flow_to_ace error."};

// Deliberate: a failed subscription to meters is logged with the text for flows, which operators search for.
constexpr Subscription kUdpSubscriptions[] = {
    {{&s_policy_kelim__flow_sta__descriptor, &s_policy_kelim__flow_key__descriptor},
     flow_install_call_back,
     "qx_mom_subscribe flow_entry error."},
    {{&s_policy_kelim__meter__descriptor, &s_policy_kelim__meter_key__descriptor},
     meter_install_call_back,
     "qx_mom_subscribe flow_entry error."},
    {{&s_policy_kelim__flow_counter__descriptor, &s_policy_kelim__flow_key__descriptor},
     flow_counter_call_back,
     "qx_mom_subscribe flow_counter error."},
};

void ssc_kelim_subscribe_app() {
  if (!subscribe(QX_MOM_APP_DB, kAppSubscription)) SDN_ERROR("%s", kAppSubscription.failure);
}

// Stops at the first subscription that fails. 0, or QX_FAILED.
int ssc_kelim_start_subscribe() {
  for (const Subscription &subscription : kUdpSubscriptions) {
    if (subscribe(QX_MOM_UDP_DB, subscription)) continue;
    SDN_ERROR("%s", subscription.failure);
    return QX_FAILED;
  }
  return 0;
}

struct Topic {
  qx_mom_type type;
  const char *name;
};

constexpr Topic kTopics[] = {
    {{&s_policy_kelim__flow__descriptor, &s_policy_kelim__flow_key__descriptor}, "flow_entry"},
    {{&s_policy_kelim__meter__descriptor, &s_policy_kelim__meter_key__descriptor}, "meter_entry"},
    {{&s_policy_kelim__onc_ip__descriptor, &s_policy_kelim__onc_ip_key__descriptor}, "onc_ip_entry"},
    {{&s_policy_kelim__flow_counter__descriptor, &s_policy_kelim__flow_key__descriptor}, "flow_counter_entry"},
};

// Stops at the first topic that fails. 0, or its code.
int ssc_kelim_udp_topic_reg(void *conn) {
  SDN_VER("ENTER");
  for (const Topic &topic : kTopics) {
    const int rv = libcgstctrl_gen_topic_reg(conn, QX_MOM_UDP_DB, kName, &topic.type);
    if (rv == 0) continue;
    SDN_ERROR("libcgstctrl_gen_topic_reg %s failed, rv:%d", topic.name, rv);
    return rv;
  }
  SDN_VER("LEAVE");
  return 0;
}

// ---- reconnection

// Logs a change of the connection and ends the process if it now leads to another server. True if the connect callback must run
// again.
bool is_back(const char *callback, std::int32_t db, std::int32_t type) {
  enum { kOtherServer = 1, kSameServer = 2 };
  SDN_ERROR_AS(callback, "reconnect db:%d type:%d", db, type);
  if (type == kOtherServer) std::exit(kExitOtherServer);
  return type == kSameServer;
}

// ---- results

// Meaning of a flow's status to the controller side.
enum FlowResult : std::uint32_t { kInstalled = 0, kOutOfResources = 1, kFailed = 2 };

void report_flow(const char *callback, const SPolicyKelim__FlowSta &sta) {
  const std::uint64_t flow_index = sta.index->flow_index;
  switch (sta.status) {
    case S_POLICY_KELIM__STATUS_E__STATUS_FAILED:
      SDN_ERROR_AS(callback, "flow index:%lu install failed. status:%d\n", flow_index, static_cast<int>(sta.status));
      ssc_sdn_msg_queue_proc_flow_install_cb(&sta, kFailed);
      break;
    case S_POLICY_KELIM__STATUS_E__STATUS_RESOURCE:
      SDN_ERROR_AS(callback, "flow index:%lu install failed. status:%d\n", flow_index, static_cast<int>(sta.status));
      ssc_sdn_msg_queue_proc_flow_install_cb(&sta, kOutOfResources);
      break;
    case S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED:
      SDN_VER_AS(callback, "flow index:%lu install succeed\n", flow_index);
      ssc_sdn_msg_queue_proc_flow_install_cb(&sta, kInstalled);
      break;
    default:
      break;
  }
}

// Deliberate: a failed meter is reported with code 0, which the reply turns into a plain failure.
void report_meter(const char *callback, const SPolicyKelim__Meter &meter) {
  if (meter.status == S_POLICY_KELIM__STATUS_E__STATUS_FAILED) {
    sdn_send_meter_ret_val_2_proxy(meter.index->vsd_id, meter.index->meter_id, 0);
    SDN_VER_AS(callback, "meter id:%u install failed.\n", meter.index->meter_id);
  } else if (meter.status == S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED) {
    SDN_VER_AS(callback, "meter id:%u install succeed.\n", meter.index->meter_id);
  }
}

// The record of a notification; null if it is missing or has no key.
template <typename Record>
const Record *record_of(const void *value) {
  const auto *record = static_cast<const Record *>(value);
  return record && record->index ? record : nullptr;
}

// The record of a written meter; null, with an error line, if the notification is malformed.
const SPolicyKelim__Meter *written_meter(const char *callback, const qx_obj &msg) {
  const auto *holder = static_cast<const qx_mom_hash_value *>(msg.value);
  const int cmd = static_cast<int>(msg.cmd), flag = static_cast<int>(msg.flag);
  if (!holder) {
    SDN_ERROR_AS(callback, "msg->value is NULL. msg->cmd:%d msg->flag:%d  \n", cmd, flag);
    return nullptr;
  }
  const auto *meter = record_of<SPolicyKelim__Meter>(holder->record);
  if (!meter) {
    SDN_ERROR_AS(callback, "hash value is NULL. msg->cmd:%d msg->flag:%d  \n", cmd, flag);
    return nullptr;
  }
  if (holder->error_code != 0) {
    SDN_ERROR_AS(callback, "error_code:%d msg->cmd:%d msg->flag:%d  \n", holder->error_code, cmd, flag);
    return nullptr;
  }
  return meter;
}

}  // namespace

int ssc_kelim_rdnd_unware_cb(void *, void *) {
  return run_steps(kStartSteps);
}

// Deliberate: 0 even if the subscription fails; flows that need no translation work without it.
int ssc_app_async_connect_cb(void *, const char *label) {
  if (label) SDN_VER("%s", label);
  ssc_kelim_subscribe_app();
  return 0;
}

int ssc_udp_async_connect_cb(void *conn, const char *label) {
  if (label) SDN_VER("%s", label);
  if (const int rv = libcgstctrl_gen_init(conn, QX_MOM_UDP_DB, kName); rv != 0) {
    SDN_ERROR("libcgstctrl_gen_init failed, rv:%d", rv);
  } else if (const int topic_rv = ssc_kelim_udp_topic_reg(conn); topic_rv != 0) {
    SDN_ERROR("fp_udp_cgst_register failed, rv:%d", topic_rv);
  }
  if (const int rv = ssc_kelim_start_subscribe(); rv != 0) {
    SDN_ERROR("ssc_kelim_start_subscribe fail. rv:%d\n", rv);
    return rv;
  }
  const int rv = ssc_kelim_init(g_ssc_kelim_global);
  if (rv != 0) SDN_ERROR("ssc_kelim_init fail. rv:%d\n", rv);
  return rv;
}

int ssc_kelim_app_reconnect_cb(void *conn, std::int32_t db, std::int32_t type) {
  if (!is_back(__func__, db, type)) return 0;
  const int rv = ssc_app_async_connect_cb(conn, kAppLabel);
  if (rv != 0) SDN_ERROR("ssc_app_async_connect_cb error. rv:%d", rv);
  return rv;
}

int ssc_kelim_udp_reconnect_cb(void *conn, std::int32_t db, std::int32_t type) {
  if (!is_back(__func__, db, type)) return 0;
  const int rv = ssc_udp_async_connect_cb(conn, kUdpLabel);
  if (rv != 0) SDN_ERROR("ssc_udp_async_connect_cb error. rv:%d", rv);
  return rv;
}

int flow_install_call_back(void *, const qx_obj *msg) {
  const auto *sta = record_of<SPolicyKelim__FlowSta>(msg->value);
  if (!sta) return 0;
  if (msg->cmd == QX_MOM_CMD_SET) report_flow(__func__, *sta);
  if (msg->cmd == QX_MOM_CMD_DEL) SDN_VER("del flow index:%lu\n", sta->index->flow_index);
  return 0;
}

// Deliberate: of the three subscriptions on database 8, this one's data-fetch signal drives the handshake.
int meter_install_call_back(void *, const qx_obj *msg) {
  switch (msg->cmd) {
    case QX_MOM_CMD_DATA_FETCH:
      libproxy_fp_sdn_ds_fetch();
      return 0;
    case QX_MOM_CMD_HASH_NEW:
    case QX_MOM_CMD_HASH_SET: {
      const SPolicyKelim__Meter *meter = written_meter(__func__, *msg);
      if (!meter) return QX_FAILED;
      report_meter(__func__, *meter);
      return 0;
    }
    case QX_MOM_CMD_DEL:
      if (const auto *meter = record_of<SPolicyKelim__Meter>(msg->value)) SDN_VER("del meter id:%u\n", meter->index->meter_id);
      return 0;
    default:
      return 0;
  }
}

int flow_to_ace_install_call_back(void *, const qx_obj *msg) {
  const auto *record = record_of<SPolicyKelim__FlowToAce>(msg->value);
  if (msg->cmd == QX_MOM_CMD_SET && record) {
    ssc_kelim_add_flow_to_ace(record);
    ssc_sdn_update_ds_node_and_check(record->index->flow_index, 1);
  }
  if (msg->cmd != QX_MOM_CMD_DEL) return 0;
  if (!record) {
    SDN_ERROR("value is null.");
    return QX_INVALID;
  }
  ssc_kelim_del_flow_to_ace(record);
  return 0;
}

int ssc_kelim_event_pthrd(qx_thread *) {
  ssc_sdn_main_pthrd_handler();
  return arm_event_timer(__func__) ? QX_OK : QX_NOT_POSTED;
}

int main() {
  // The databases to register with the redundancy manager, which keeps the pointer.
  static constexpr std::int32_t kDatabases[] = {QX_MOM_UDP_DB, QX_MOM_APP_DB};

  g_ssc_kelim_global = nullptr;
  if (const int rv = libss_fp_com_check_run("/var/run/ssc_kelim.pid"); rv != 0) return rv;
  g_ssc_kelim_global = qx_global_init(kName, nullptr);
  if (!g_ssc_kelim_global) return QX_FAILED;
  g_policy_error_zlog_category = qx_zlog_init("policy_error");
  if (libss_fp_com_ham_init("/var/tmp/ssc_kelim_no_ham", g_policy_error_zlog_category) != 0) SDN_VER("ham init fail");

  const rdnd_lib_reg registration = {
      .master = g_ssc_kelim_global->master,
      .name = kName,
      .global = g_ssc_kelim_global,
      .role_cb = ssc_kelim_rdnd_unware_cb,
      .state_cb = ssc_kelim_rdnd_unware_cb,  // Deliberate: every role and state is the same to this daemon
      .reserved_ptr = nullptr,
      .reserved = 0,
      .dbs = kDatabases,
      .db_count = std::size(kDatabases),
  };
  rdnd_lib_mom_reg(&registration);
  qx_global_run(g_ssc_kelim_global);

  g_policy_error_zlog_category = nullptr;  // goes with the runtime
  qx_global_finish(g_ssc_kelim_global);
  g_ssc_kelim_global = nullptr;
  return 0;
}
