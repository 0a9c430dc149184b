#include "ssc_kelim/sdn/ssc_kelim_init.h"

#include "kelim/common/kelim_debug.h"
#include "ssc_kelim/sdn/ssc_kelim_adapt.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_db.h"
#include "ssc_kelim/sdn/ssc_kelim_intake.h"
#include "ssc_kelim/sdn/ssc_kelim_mom.h"
#include "ssc_kelim/sdn/ssc_sdn_main_list.h"
#include "ssc_kelim/sdn/ssc_sdn_msg_queue.h"
#include "ssc_kelim/sdn/ssc_sdn_proxy.h"

std::int32_t ssc_kelim_init(qx_global *global) {
  if (!global) return QX_INVALID;
  [[maybe_unused]] static const bool timing_named = (ssc_sdn_stat_time_init(), true);
  ssc_kelim_flow_info_init();
  if (const std::int32_t rv = ssc_kelim_pack_send_task_init(); rv != 0) {
    SDN_ERROR("ssc_kelim_pack_send_task_init error");
    return rv;
  }
  ssc_sdn_msg_queue_init();
  if (const std::int32_t rv = ssc_sdn_main_pthread_init(); rv != 0) {
    SDN_ERROR("ssc_sdn_main_pthread_init fail");
    return rv;
  }
  if (const std::int32_t rv = libproxy_fp_sdn_dep_init(global); rv != 0) {
    SDN_ERROR("libproxy_fp_sdn_dep_init fail");
    return rv;
  }
  return 0;
}

void ssc_kelim_init_reset_for_tests() {
  g_ssc_kelim_global = nullptr;
  ssc_kelim_intake_reset_for_tests();
}
