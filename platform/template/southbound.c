/*
 * of_ss.h: the place of a switch's OpenFlow agent, and its programming service. This one plays a controller that wants one flow,
 * and a programming service that installs everything, and reports its progress on standard output:
 *
 *   every callback registered   -> connected()
 *   fetch (ss_of_ds_fetch)      -> open, start, the flow, end, barrier
 *   barrier reply               -> all before it has been answered
 */
#include <pthread.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>

#include "of_ss.h"
#include "platform.h"
#include "qx_mom.h"
#include "s_policy_kelim.pb-c.h"
#include "southbound.h"

enum { VERSION = 4, TABLE = 0, FLOW = 1, BARRIER = 7 }; /* VERSION and TABLE are echoed in replies */

/* ---- the daemon's callbacks; loop's thread, before the southbound thread starts */

static struct {
  of_ss_msg_cb flow_mod, open, mgmt_ifx, close, start, end, statistic, meter_mod, count_config, pkt_start, pkt_end, con_info,
      barrier;
  of_ss_signal_cb del_all_flow, connected, del_all;
} callbacks;
enum { CALLBACKS = 16 };
static unsigned registered;
static pthread_t thread;

/* ---- input of the southbound thread from other threads; under the mutex */

struct reply {
  struct reply *next;
  uint32_t len;
  unsigned char bytes[];
};

static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t something_new = PTHREAD_COND_INITIALIZER;
static bool running, fetched;
static struct reply *replies, **last_reply = &replies;

void ss_of_ds_fetch(void) {
  pthread_mutex_lock(&mutex);
  fetched = true;
  pthread_cond_signal(&something_new);
  pthread_mutex_unlock(&mutex);
}

int of_ss_send_msg(const void *msg, uint32_t len) {
  if (msg == NULL || len < southbound_kHeaderLen || len > UINT16_MAX) return QX_INVALID;
  struct reply *reply = malloc(sizeof *reply + len);
  if (reply == NULL) return QX_FAILED;
  reply->next = NULL;
  reply->len = len;
  memcpy(reply->bytes, msg, len);
  pthread_mutex_lock(&mutex);
  const bool taken = running;
  if (taken) {
    *last_reply = reply;
    last_reply = &reply->next;
    pthread_cond_signal(&something_new);
  }
  pthread_mutex_unlock(&mutex);
  if (!taken) free(reply);
  return taken ? QX_OK : QX_FAILED;
}

/* ---- the southbound thread; no lock is held during a callback */

/* A flow for IPv4 packets without actions, which drops them. */
static void ask_for_flow(void) {
  const uint32_t eth_type = UINT32_C(0x80000a02); /* OXM class, field 5, two bytes */
  const uint16_t match_len = (uint16_t)southbound_oxm_slot(eth_type);
  unsigned char msg[128] = {0};
  const size_t instructions = southbound_flow_instruction_offset(match_len);
  southbound_put_header(msg, southbound_kFlowMod, VERSION, (uint16_t)(instructions + southbound_kInstructionLen), TABLE);
  southbound_put_u64(msg, southbound_kFlowIndex, FLOW);
  southbound_put_u16(msg, southbound_kFlowPriority, 10);
  southbound_put_u8(msg, southbound_kFlowCommand, southbound_kFlowAdd);
  southbound_put_u16(msg, southbound_kFlowMatchType, 1);
  southbound_put_u16(msg, southbound_kFlowMatchLen, match_len);
  southbound_put_u32(msg, southbound_kFlowOxm, eth_type);
  southbound_put_u16(msg, southbound_kFlowOxm + 4, 0x0800);
  callbacks.flow_mod(msg);
}

static void ask_for_barrier(void) {
  unsigned char msg[southbound_kBarrierLen] = {0};
  southbound_put_header(msg, southbound_kBarrierRequest, VERSION, sizeof msg, TABLE);
  southbound_put_u32(msg, southbound_kBarrierXid, BARRIER);
  callbacks.barrier(msg);
}

static void signal_to(of_ss_msg_cb callback, uint16_t type) {
  unsigned char msg[southbound_kHeaderLen];
  southbound_put_header(msg, type, VERSION, sizeof msg, TABLE);
  callback(msg);
}

/* The controller is connected through one interface. */
static void open_controller(void) {
  unsigned char msg[southbound_kHeaderLen + 4];
  southbound_put_header(msg, southbound_kOpen, VERSION, sizeof msg, TABLE);
  southbound_put_u32(msg, southbound_kHeaderLen, 1);
  callbacks.open(msg);
}

/* The database holds no data that can be trusted: hands over the whole desired state again. */
static void synchronise(void) {
  puts("southbound: fetch, so the flow is handed over between start and end");
  open_controller();
  signal_to(callbacks.start, southbound_kDsStart);
  ask_for_flow();
  signal_to(callbacks.end, southbound_kDsEnd);
  ask_for_barrier();
}

static void take(const struct reply *reply) {
  switch (southbound_get_u16(reply->bytes, southbound_kType)) {
    case southbound_kCapacity:
      printf("southbound: room for %u flows\n", (unsigned)southbound_get_u32(reply->bytes, southbound_kCapacityFlows));
      break;
    case southbound_kFlowResult:
      printf("southbound: flow %llu failed\n", (unsigned long long)southbound_get_u64(reply->bytes, southbound_kFlowIndex));
      break;
    case southbound_kBarrierReply:
      printf("southbound: barrier %u is answered\n", (unsigned)southbound_get_u32(reply->bytes, southbound_kBarrierXid));
      break;
    default:
      break;
  }
}

static void *run_southbound(void *unused) {
  (void)unused;
  setvbuf(stdout, NULL, _IOLBF, 0);
  callbacks.connected();
  pthread_mutex_lock(&mutex);
  while (running) {
    struct reply *const reply = replies;
    const bool to_do = fetched;
    if (reply == NULL && !to_do) {
      pthread_cond_wait(&something_new, &mutex);
      continue;
    }
    if (reply != NULL && (replies = reply->next) == NULL) last_reply = &replies;
    fetched = false;
    pthread_mutex_unlock(&mutex);
    if (reply != NULL) take(reply);
    free(reply);
    if (to_do) synchronise();
    pthread_mutex_lock(&mutex);
  }
  pthread_mutex_unlock(&mutex);
  return NULL;
}

/* ---- the programming service; loop's thread */

static qx_global *process;

static int on_flow(void *conn, const qx_obj *msg) {
  (void)conn;
  if (msg->cmd != QX_MOM_CMD_SET) return 0;
  const SPolicyKelim__Flow *flow = msg->value;
  printf("programming service: flow %llu is installed\n", (unsigned long long)flow->index->flow_index);
  SPolicyKelim__FlowSta result = S_POLICY_KELIM__FLOW_STA__INIT;
  result.index = flow->index;
  result.status = S_POLICY_KELIM__STATUS_E__STATUS_INSTALLED;
  result.rep_uuid = flow->req_uuid;
  return qx_mom_set(process, QX_MOM_UDP_DB, &result.base, 0, 0);
}

/* ---- of_ss.h; loop's thread */

int ss_of_init(qx_global *global) {
  static const qx_mom_spec flows = {{&s_policy_kelim__flow__descriptor, &s_policy_kelim__flow_key__descriptor}, QX_MOM_DECODED};
  process = global;
  return qx_mom_subscribe(global, QX_MOM_UDP_DB, &flows, on_flow) == 0 ? QX_OK : QX_FAILED;
}

void platform_southbound_finish(void) {
  pthread_mutex_lock(&mutex);
  const bool was_running = running;
  running = false;
  pthread_cond_signal(&something_new);
  pthread_mutex_unlock(&mutex);
  if (was_running) pthread_join(thread, NULL);
  for (struct reply *next; replies != NULL; replies = next) {
    next = replies->next;
    free(replies);
  }
  last_reply = &replies;
  registered = 0;
}

static int start_when_complete(void) {
  if (++registered < CALLBACKS || running) return 0;
  running = true;
  if (pthread_create(&thread, NULL, run_southbound, NULL) != 0) running = false;
  return 0;
}

#define REGISTERS(call, type, callback) \
  int call(type cb) {                   \
    if (cb == NULL) return QX_INVALID;  \
    callbacks.callback = cb;            \
    return start_when_complete();       \
  }
REGISTERS(of_ss_regiter_flow_mod, of_ss_msg_cb, flow_mod)
REGISTERS(of_ss_regiter_send_openmsg, of_ss_msg_cb, open)
REGISTERS(of_ss_regiter_mgmt_ifx, of_ss_msg_cb, mgmt_ifx)
REGISTERS(of_ss_regiter_send_closemsg, of_ss_msg_cb, close)
REGISTERS(of_ss_regiter_del_all_flow, of_ss_signal_cb, del_all_flow)
REGISTERS(of_ss_regiter_start, of_ss_msg_cb, start)
REGISTERS(of_ss_regiter_end, of_ss_msg_cb, end)
REGISTERS(of_ss_regiter_flow_statistic_reply, of_ss_msg_cb, statistic)
REGISTERS(of_ss_regiter_meter_mod, of_ss_msg_cb, meter_mod)
REGISTERS(of_ss_socket_connected, of_ss_signal_cb, connected)
REGISTERS(of_ss_flowcount_config, of_ss_msg_cb, count_config)
REGISTERS(of_ss_pkt_start, of_ss_msg_cb, pkt_start)
REGISTERS(of_ss_pkt_end, of_ss_msg_cb, pkt_end)
REGISTERS(of_ss_con_info, of_ss_msg_cb, con_info)
REGISTERS(ofss_barrier_request, of_ss_msg_cb, barrier)
REGISTERS(of_ss_regiter_del_all, of_ss_signal_cb, del_all)
