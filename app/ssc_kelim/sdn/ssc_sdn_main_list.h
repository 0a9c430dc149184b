// The main SDN handler list, which carries requests to the main SDN thread.
#pragma once

#include <cstdint>

#include "libss_pthrd.h"

// The list that the event timer drains. It is created once, before the callbacks are registered.
extern libss_pthrd_mst *ssc_sdn_mst;

// Creates the main SDN list, once a process. 0, or QX_NOT_POSTED.
std::int32_t ssc_sdn_main_pthread_init();
// Appends to the main SDN list; result as libss_pthrd_add_hdl. Any thread.
libss_pthrd_hdl *ssc_sdn_main_pthrd_add_handler(libss_pthrd_handler handler, void *data, std::uint32_t value);
// One drain of the main SDN list. Main SDN thread.
void ssc_sdn_main_pthrd_handler();
