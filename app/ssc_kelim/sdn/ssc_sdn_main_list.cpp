#include "ssc_kelim/sdn/ssc_sdn_main_list.h"

#include "kelim/common/kelim_debug.h"

// Main list, intakes and initialisation log under one source path.
#undef SDN_LOG_SOURCE
#define SDN_LOG_SOURCE "app/ssc_kelim/sdn/ssc_kelim_init.cpp"

libss_pthrd_mst *ssc_sdn_mst = nullptr;

std::int32_t ssc_sdn_main_pthread_init() {
  if (ssc_sdn_mst) return 0;
  ssc_sdn_mst = libss_pthrd_create_mst_withname("ssc_sdn_main_pthread_init");
  if (ssc_sdn_mst) return 0;
  SDN_ERROR("ssc_sdn_mst = NULL, libss_pthrd_create_mst happen error");
  return QX_NOT_POSTED;
}

libss_pthrd_hdl *ssc_sdn_main_pthrd_add_handler(libss_pthrd_handler handler, void *data, std::uint32_t value) {
  return libss_pthrd_add_hdl(ssc_sdn_mst, handler, data, value, LIBSS_PTHRD_PLAIN);
}

void ssc_sdn_main_pthrd_handler() {
  if (libss_pthrd_drain(ssc_sdn_mst, 0) == LIBSS_PTHRD_FREED) ssc_sdn_mst = nullptr;
}
