// Process entry and lifecycle: start-up chain, database connections, the watchers of install results and the event timer that
// drains the main SDN list.
//
// Everything here runs on the event loop's thread, which is the main SDN thread. Nothing is retried: a failing step is logged,
// its code is returned to the caller, and the daemon keeps running without it.
#pragma once

#include <cstdint>

#include "qx_mom.h"
#include "qx_runtime.h"

// The redundancy manager's callback, for both of its slots: every role is handled alike. Connects the databases and starts the
// event timer. 0, or the first failing step's code.
int ssc_kelim_rdnd_unware_cb(void *role, void *state);

// Asynchronous connections of databases 4 and 8 have come up; the label (may be null) is the one given when connecting.
int ssc_app_async_connect_cb(void *conn, const char *label);  // 0 always
int ssc_udp_async_connect_cb(void *conn, const char *label);  // 0, QX_FAILED, or the code of ssc_kelim_init

// Reconnection callbacks of those databases. Type 1 (another server process) ends this process with status 77, type 2 (the same
// server process is back) runs the connect callback again and returns its result, other types return 0.
int ssc_kelim_app_reconnect_cb(void *conn, std::int32_t db, std::int32_t type);
int ssc_kelim_udp_reconnect_cb(void *conn, std::int32_t db, std::int32_t type);

// Watchers of the records that the programming services write back.
int flow_install_call_back(void *conn, const qx_obj *msg);   // flow_sta, database 8; 0 always
int meter_install_call_back(void *conn, const qx_obj *msg);  // meter, database 8; QX_FAILED for a malformed notification
int flow_to_ace_install_call_back(void *conn,
                                  const qx_obj *msg);  // flow_to_ace, database 4; QX_INVALID for a delete without a record

// The event timer: one drain of the main SDN list, then armed again for 50 ms later. 0, or QX_NOT_POSTED when it cannot be armed.
int ssc_kelim_event_pthrd(qx_thread *thread);
