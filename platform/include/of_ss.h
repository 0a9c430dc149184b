// The OpenFlow service library: terminates the controller connections and calls into the daemon.
//
// The handshake. Both sides come up in any order, and nothing is handed over before both are ready:
//   1. When its databases are connected, the daemon calls ss_of_init and registers its sixteen callbacks, once a process.
//   2. The library calls `connected` as soon as it can serve controllers.
//   3. After that, and when the database has loaded (the data-fetch signal of the subscription to meters), the daemon sends
//      kCapacity and calls ss_of_ds_fetch; again at each later data-fetch signal.
//   4. After a fetch the library hands over its whole desired state, back to back: kOpen if a controller is connected,
//      kDsStart, every meter, every flow, kDsEnd. At the start all flow and meter records are put under an expiry of 100 ms; a
//      record loses it when it is handed over again. Records that keep it are removed at the deadline; kDsEnd clears it for
//      meters.
//   5. From then on it hands over requests as they arrive. A barrier is answered when nothing before it is unanswered.
//
// Threads: the registered callbacks run on the library's own thread, with no lock of the library held; of_ss_send_msg may be
// called from any thread. Everything else here is called on the loop's thread. Messages are laid out as southbound.h says. A
// message handed to a callback is the library's and lives until the callback returns; its `len` is its size in bytes.
#pragma once

#include <stdint.h>

#include "qx_runtime.h"

#ifdef __cplusplus
extern "C" {
#endif

// Takes one southbound message; its result is 0 or a negative code.
typedef int (*of_ss_msg_cb)(void *msg);
// A signal without a message.
typedef void (*of_ss_signal_cb)(void);

// Prepares the library. Controller connections are opened once every callback is registered. 0, or QX_FAILED.
int ss_of_init(qx_global *global);

// Each registers one callback, replacing an earlier one. 0, or QX_INVALID for null. The comments name the message that each takes
// (southbound.h) and the reply that follows. A request with a reply gets it also when it is refused, and the callback returns 0;
// a negative result means that no reply is possible, as for a null message.
int of_ss_regiter_flow_mod(of_ss_msg_cb cb);         // kFlowMod: kFlowResult if it fails; success shows in a barrier's reply
int of_ss_regiter_send_openmsg(of_ss_msg_cb cb);     // kOpen
int of_ss_regiter_mgmt_ifx(of_ss_msg_cb cb);         // kMgmtIfx
int of_ss_regiter_send_closemsg(of_ss_msg_cb cb);    // kClose
int of_ss_regiter_del_all_flow(of_ss_signal_cb cb);  // no message: every flow record is deleted, unknown ones too
int of_ss_regiter_start(of_ss_msg_cb cb);            // kDsStart
int of_ss_regiter_end(of_ss_msg_cb cb);              // kDsEnd
// kStatRequest: kStatReply, none for a flow without counters
int of_ss_regiter_flow_statistic_reply(of_ss_msg_cb cb);
int of_ss_regiter_meter_mod(of_ss_msg_cb cb);    // kMeterMod: kMeterResult if it fails
int of_ss_socket_connected(of_ss_signal_cb cb);  // no message: step 2 of the handshake
int of_ss_flowcount_config(of_ss_msg_cb cb);     // kFlowCountConfig: cells of a kPackedReport
int of_ss_pkt_start(of_ss_msg_cb cb);            // kPktStart
int of_ss_pkt_end(of_ss_msg_cb cb);              // kPktEnd
int of_ss_con_info(of_ss_msg_cb cb);             // kOncInfo
int ofss_barrier_request(of_ss_msg_cb cb);       // kBarrierRequest: kBarrierReply
int of_ss_regiter_del_all(of_ss_signal_cb cb);   // no message: every flow and meter record is deleted

// The database side has (re)started and holds no data that can be trusted: the library replays its whole desired state between a
// data-synchronisation start and end, back to back. Any thread.
void ss_of_ds_fetch(void);

// Sends a reply of the daemon towards the controller, `len` bytes long whatever its header says. The bytes are copied before the
// call returns; replies keep their order. 0, QX_INVALID for null or a length outside 8 to 65535, QX_FAILED when the library is
// not running. Any thread.
int of_ss_send_msg(const void *msg, uint32_t len);

#ifdef __cplusplus
}
#endif
