// The packet path: packets of the data plane to the controllers (OFPT_PACKET_IN) and of the controllers into it (OFPT_PACKET_OUT;
// OpenFlow 1.3.5, 7.4.1 and 7.3.7).
//
// A programming service whose target forwards real packets opens one; the OpenFlow service library is at its other end, in the
// same process or another one. Either end may come, go and come back: the path looks for the other end about once a second. What
// cannot be handed on at once is dropped, and the caller is told, so that he can count it: nobody ever waits for the other end.
//
// Threads: a path belongs to one thread at a time, which need not be the loop's: it waits for the descriptor together with its
// own and calls ss_pkt_path_work, which calls back.
//
// The Linux host's path is a socket in the run directory (SOCK_SEQPACKET).
#pragma once

#include <stdint.h>

#include "qx_runtime.h"

#ifdef __cplusplus
extern "C" {
#endif

// Why a packet goes to the controller (OFPR_*).
enum { SS_PKT_NO_MATCH = 0, SS_PKT_ACTION = 1 };

// The longest frame that a path takes, in bytes: what an OFPT_PACKET_IN has room for.
enum { SS_PKT_FRAME_MAX = 65493 };

// What is known of a packet for the controllers.
typedef struct ss_pkt_in {
  uint64_t cookie;   // of the flow; all ones when it was no flow that sent the packet
  uint32_t in_port;  // OpenFlow's number
  uint8_t table;
  uint8_t reason;  // SS_PKT_*
} ss_pkt_in;

// A packet of a controller. The actions are laid out as those of a flow (southbound.h); they have been checked.
typedef struct ss_pkt_out {
  uint32_t in_port;  // a port, or OFPP_CONTROLLER and its like
  uint32_t actions_len;
  const void *actions;
  const void *frame;
  uint32_t frame_len;  // at least 14
} ss_pkt_out;

// What has become of packets, since the service's start; of one port, or of port 0: those that have none.
typedef struct ss_pkt_counts {
  uint32_t port;
  uint32_t zero;
  uint64_t in;           // handed on to the controllers
  uint64_t in_limited;   // dropped: more than the port's share
  uint64_t in_full;      // dropped: no room on the way
  uint64_t in_unwanted;  // dropped: no controller wants packets
  uint64_t in_too_long;  // dropped: longer than any frame
  uint64_t out;          // sent
  uint64_t out_full;     // dropped: the interface takes no more
  uint64_t out_down;     // dropped: the interface is down or not there
  uint64_t out_refused;  // dropped: what the actions ask for cannot be done, or the interface cannot send such a frame
  uint64_t out_nowhere;  // dropped as asked for: no output, or no flow of the table matches
} ss_pkt_counts;

typedef struct ss_pkt_user {
  void *arg;
  // Whether a controller wants packets; 0 as well when the other end goes. After a connection it is told once in any case.
  void (*wanted)(void *arg, int wanted);
  // To be sent. The memory is good during the call.
  void (*out)(void *arg, const ss_pkt_out *out);
} ss_pkt_user;

typedef struct ss_pkt_path ss_pkt_path;

// `user` is copied. Null when there is no memory or no descriptor left; that nobody is at the other end is no failure.
ss_pkt_path *ss_pkt_path_open(qx_global *global, const ss_pkt_user *user);

// Null is allowed.
void ss_pkt_path_close(ss_pkt_path *path);

// Is readable when there is work to do. It stays the same for the life of the path.
int ss_pkt_path_fd(const ss_pkt_path *path);

// Takes what has come, a bounded part of it at a time, and looks for the other end.
void ss_pkt_path_work(ss_pkt_path *path);

// Hands a packet on, whole. 0; -1 when nobody is at the other end, -14 when there is no room, -4 for null or a frame longer than
// SS_PKT_FRAME_MAX.
int ss_pkt_path_in(ss_pkt_path *path, const ss_pkt_in *about, const void *frame, uint32_t len);

// Tells the other end, for its operator, what has become of packets; it keeps the latest of each port. Results as above; at most
// 300 ports at a time, else -4.
int ss_pkt_path_report(ss_pkt_path *path, const ss_pkt_counts *counts, uint32_t ports);

#ifdef __cplusplus
}
#endif
