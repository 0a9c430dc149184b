// The OpenFlow service library: terminates the controller connections and calls into the daemon.
//
// Threads: the registered callbacks run on the library's own thread, with no lock of the library held; of_ss_send_msg may be
// called from any thread. Everything else here is called on the loop's thread. Messages are laid out as southbound.h says. A
// message handed to a callback is the library's and lives until the callback returns; its `len` is the number of bytes there are.
#pragma once

#include <stdint.h>

#include "qx_runtime.h"

#ifdef __cplusplus
extern "C" {
#endif

// Takes one southbound message; its result is 0 or a negative code.
typedef int (*of_ss_msg_cb)(void *msg);
// Takes nothing.
typedef void (*of_ss_signal_cb)(void);

// Prepares the library. Controller connections are opened once every callback is registered. 0, or -1.
int ss_of_init(qx_global *global);

// Each registers one callback, replacing an earlier one. 0, or -4 for null.
int of_ss_regiter_flow_mod(of_ss_msg_cb cb);
int of_ss_regiter_send_openmsg(of_ss_msg_cb cb);
int of_ss_regiter_mgmt_ifx(of_ss_msg_cb cb);
int of_ss_regiter_send_closemsg(of_ss_msg_cb cb);
int of_ss_regiter_del_all_flow(of_ss_signal_cb cb);
int of_ss_regiter_start(of_ss_msg_cb cb);
int of_ss_regiter_end(of_ss_msg_cb cb);
int of_ss_regiter_flow_statistic_reply(of_ss_msg_cb cb);
int of_ss_regiter_meter_mod(of_ss_msg_cb cb);
int of_ss_socket_connected(of_ss_signal_cb cb);
int of_ss_flowcount_config(of_ss_msg_cb cb);
int of_ss_pkt_start(of_ss_msg_cb cb);
int of_ss_pkt_end(of_ss_msg_cb cb);
int of_ss_con_info(of_ss_msg_cb cb);
int ofss_barrier_request(of_ss_msg_cb cb);
int of_ss_regiter_del_all(of_ss_signal_cb cb);

// The database side has (re)started and holds nothing of ours that can be trusted: the library replays its whole desired state
// between a data-synchronisation start and end, back to back. Any thread.
void ss_of_ds_fetch(void);

// Sends a reply of the daemon towards the controller, `len` bytes long whatever its header says. The bytes are copied before the
// call returns; replies keep their order. 0, -4 for null or a length that no message has (8 to 65535), -1 when the library is not
// running. Any thread.
int of_ss_send_msg(const void *msg, uint32_t len);

#ifdef __cplusplus
}
#endif
