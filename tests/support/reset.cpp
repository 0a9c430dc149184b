#include "support/reset.h"

#include "host/base/clock.h"
#include "host/config/config.h"
#include "host/fault/fault.h"
#include "host/log/log.h"
#include "host/of_ss/testing.h"
#include "kelim/common/kelim_debug.h"
#include "ssc_kelim/sdn/ssc_kelim_adapt.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_db.h"
#include "ssc_kelim/sdn/ssc_kelim_init.h"
#include "ssc_kelim/sdn/ssc_kelim_requests.h"
#include "ssc_kelim/sdn/ssc_sdn_msg_queue.h"
#include "ssc_kelim/sdn/ssc_sdn_proxy.h"

void reset_process(qx_global *global) {
  host::fault::clear();
  host::clock::resume();
  if (global) qx_global_finish(global);
  // Switches first, since they also hold which thread is the main SDN thread, and last for what the others count.
  kelim_debug_reset_for_tests();
  ssc_sdn_msg_queue_reset_for_tests();
  ssc_kelim_flow_db_reset_for_tests();
  ssc_kelim_requests_reset_for_tests();
  ssc_kelim_adapt_reset_for_tests();
  libproxy_fp_sdn_reset_for_tests();
  ssc_kelim_init_reset_for_tests();
  kelim_debug_reset_for_tests();
  host::of_ss::of_ss_reset_for_tests();
  host::log::set_tap(nullptr);
  host::config_reset();
}
