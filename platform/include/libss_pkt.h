// The packet path: carries packets from the data plane to the controllers (OFPT_PACKET_IN) and from the controllers to the data
// plane (OFPT_PACKET_OUT; OpenFlow 1.3.5, 7.4.1 and 7.3.7).
//
// A programming service whose target forwards real packets opens one; the OpenFlow service library is at its other end, in the
// same process or another one. Either end may disappear and return: the path looks for the other end about once a second. A
// packet that cannot be handed on at once is dropped, and the caller is told so that it can count the loss: neither end ever
// waits for the other.
//
// Threads: a path belongs to one thread at a time, which need not be the loop's: that thread polls the path's descriptor with its
// own and calls ss_pkt_path_work, which runs the callbacks.
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

// The longest frame that a path accepts, in bytes: the most that fits into an OFPT_PACKET_IN.
enum { SS_PKT_FRAME_MAX = 65493 };

// The metadata of a packet for the controllers.
typedef struct ss_pkt_in {
  uint64_t cookie;   // of the flow; all ones when no flow sent the packet
  uint32_t in_port;  // OpenFlow port number
  uint8_t table;
  uint8_t reason;  // SS_PKT_*
} ss_pkt_in;

// A packet from a controller. The actions are laid out like those of a flow (southbound.h) and have been checked.
typedef struct ss_pkt_out {
  uint32_t in_port;  // a port number, or a reserved one such as OFPP_CONTROLLER
  uint32_t actions_len;
  const void *actions;
  const void *frame;
  uint32_t frame_len;  // at least 14
} ss_pkt_out;

// Packets by outcome since the service's start, for one port; port 0: packets without a port.
typedef struct ss_pkt_counts {
  uint32_t port;
  uint32_t zero;
  uint64_t in;           // handed on to the controllers
  uint64_t in_limited;   // dropped: more than the port's share
  uint64_t in_full;      // dropped: the path is full
  uint64_t in_unwanted;  // dropped: no controller wants packets
  uint64_t in_too_long;  // dropped: longer than any frame
  uint64_t out;          // sent
  uint64_t out_full;     // dropped: the interface takes no more
  uint64_t out_down;     // dropped: the interface is down or not there
  uint64_t out_refused;  // dropped: the actions cannot be carried out, or the interface cannot send the frame
  uint64_t out_nowhere;  // dropped as requested: no output action, or no matching flow in the table
} ss_pkt_counts;

// The objects of statistics, with the meaning of `id`, `part` and `other`.
enum {
  SS_PKT_TABLE = 1,  // a table: packets looked up; `other`: packets that matched
  SS_PKT_METER = 2,  // a meter: its packets and bytes
  SS_PKT_BAND = 3,   // a band of meter `id`, `part` counted from 0: packets and bytes that it was applied to
  SS_PKT_QUEUE = 4   // queue `part` of port `id`: packets and bytes sent; `other`: packets dropped
};
typedef struct ss_pkt_statistic {
  uint32_t kind;  // SS_PKT_TABLE and so on
  uint32_t id;
  uint32_t part;
  uint32_t gone;  // 1: the object no longer exists; the counts are 0
  uint64_t packets;
  uint64_t bytes;
  uint64_t other;
} ss_pkt_statistic;

typedef struct ss_pkt_user {
  void *arg;
  // Reports whether a controller wants packets; also 0 when the other end disappears. It is called at least once after each
  // connection.
  void (*wanted)(void *arg, int wanted);
  // Sends a packet. The memory is valid during the call.
  void (*out)(void *arg, const ss_pkt_out *out);
} ss_pkt_user;

typedef struct ss_pkt_path ss_pkt_path;

// `user` is copied. Null when memory or descriptors run out; a missing other end is not a failure.
ss_pkt_path *ss_pkt_path_open(qx_global *global, const ss_pkt_user *user);

// Null is allowed.
void ss_pkt_path_close(ss_pkt_path *path);

// The descriptor to poll, readable when there is work to do. It stays the same for the life of the path.
int ss_pkt_path_fd(const ss_pkt_path *path);

// Processes what has arrived, a bounded amount per call, and looks for the other end.
void ss_pkt_path_work(ss_pkt_path *path);

// Hands on a whole packet. 0; -1 when the other end is missing, -14 when there is no room, -4 for null or a frame longer than
// SS_PKT_FRAME_MAX.
int ss_pkt_path_in(ss_pkt_path *path, const ss_pkt_in *about, const void *frame, uint32_t len);

// Reports packet counts to the other end for its operators; it keeps the latest of each port. Results as above; -4 also for more
// than 300 ports in one call.
int ss_pkt_path_report(ss_pkt_path *path, const ss_pkt_counts *counts, uint32_t ports);

// Reports statistics to the other end, which answers its controllers with the latest of each (OpenFlow 1.3.5, 7.3.5). The caller
// reports all of them after each connection, later only those that have changed. Results as above; -4 also for more than
// SS_PKT_STATISTICS_MAX in one call.
enum { SS_PKT_STATISTICS_MAX = 1000 };
int ss_pkt_path_statistics(ss_pkt_path *path, const ss_pkt_statistic *statistics, uint32_t number);

#ifdef __cplusplus
}
#endif
