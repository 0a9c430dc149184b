#include "ssc_kelim/sdn/ssc_kelim_adapt.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <utility>

#include "kelim/common/kelim_debug.h"
#include "of_ss.h"
#include "qx_runtime.h"
#include "southbound.h"
#include "ssc_kelim/sdn/ssc_kelim_flow_db.h"
#include "ssc_kelim/sdn/ssc_kelim_mom.h"

std::atomic<std::uint32_t> g_apply_fail, g_ace_fail, g_acl_fail;

ssc_kelim_fp_handler_fn ssc_kelim_fp_handler[17] = {
    nullptr, ssc_kelim_on_acl_fail, nullptr, ssc_kelim_on_ace_fail, nullptr, ssc_kelim_on_apply_fail,
};

namespace {

constexpr std::int32_t kDefaultCells = 100;
constexpr std::uint32_t kSendPeriodMs = 5000;
constexpr std::uint16_t kReportVersion = 4;
constexpr std::int32_t kMaxCells = (UINT16_MAX - southbound::kCells) / southbound::kCellLen;

// ---- reports and their lists

struct pack_link {
  pack_link *next, *prev;
};

// A report under construction; the message follows it in the same block.
struct pack_buffer : pack_link {
  std::uint32_t reserved;  // 0
  std::int32_t capacity;   // cells that the block has room for; the maximum may have been raised since

  std::byte *msg() { return reinterpret_cast<std::byte *>(this + 1); }
  std::uint16_t len() { return southbound::get<std::uint16_t>(msg(), southbound::kLen); }
  std::int32_t cells() { return static_cast<std::int32_t>((len() - southbound::kCells) / southbound::kCellLen); }
};

// A circular list, empty when the head points at itself.
struct pack_list : pack_link {
  pack_list() : pack_link{this, this} {}
  bool empty() const { return next == this; }
  pack_buffer *first() { return static_cast<pack_buffer *>(next); }
  pack_buffer *last() { return static_cast<pack_buffer *>(prev); }
  void append(pack_buffer *buffer) {
    buffer->next = this;
    buffer->prev = prev;
    prev->next = buffer;
    prev = buffer;
  }
  static void unlink(pack_buffer *buffer) {
    buffer->prev->next = buffer->next;
    buffer->next->prev = buffer->prev;
  }
  void take_all(pack_list &from) {
    while (!from.empty()) {
      pack_buffer *buffer = from.first();
      unlink(buffer);
      append(buffer);
    }
  }
  void free_all() {
    for (pack_link *link = next; link != this;) ssc_sdn_free(static_cast<pack_buffer *>(std::exchange(link, link->next)));
    next = prev = this;
  }
};

}  // namespace

kelim::Mutex g_ssc_sdn_pack_max_cell_num_mutex;
std::int32_t g_ssc_sdn_pack_max_cell_num = kDefaultCells;

namespace {

// Taken before g_ssc_sdn_pack_max_cell_num_mutex where both are held.
kelim::Mutex g_ssc_sdn_pack_mutex KELIM_ACQUIRED_BEFORE(g_ssc_sdn_pack_max_cell_num_mutex);
pack_list g_ssc_sdn_pack_lst_head KELIM_GUARDED_BY(g_ssc_sdn_pack_mutex);
pack_list g_ssc_sdn_pack_lst_head_tmp;  // used by the sending thread only
pthread_t g_ssc_sdn_pack_send_thread;
bool g_pack_send_started;

std::int32_t max_cells() {
  const kelim::Lock lock(g_ssc_sdn_pack_max_cell_num_mutex);
  return std::clamp(g_ssc_sdn_pack_max_cell_num, 1, kMaxCells);
}

// Takes the last report off the list if it has room, which hides it from the sending thread until it is put back. Null if no
// report has room.
pack_buffer *take_last_with_room() {
  const kelim::Lock lock(g_ssc_sdn_pack_mutex);
  if (g_ssc_sdn_pack_lst_head.empty()) return nullptr;
  pack_buffer *last = g_ssc_sdn_pack_lst_head.last();
  if (last->cells() >= std::min(max_cells(), last->capacity)) return nullptr;
  pack_list::unlink(last);
  return last;
}

pack_buffer *new_buffer() {
  const std::int32_t capacity = max_cells();
  const std::size_t bytes = sizeof(pack_buffer) + southbound::kCells + southbound::kCellLen * static_cast<std::size_t>(capacity);
  void *block = ssc_sdn_malloc(bytes, "ssc_sdn_pack_msg", __LINE__);
  if (!block) return nullptr;
  std::memset(block, 0, bytes);
  auto *buffer = static_cast<pack_buffer *>(block);
  buffer->capacity = capacity;
  southbound::put_header(buffer->msg(), southbound::kPackedReport, kReportVersion, southbound::kCells, 0);
  return buffer;
}

void add_cell(pack_buffer &buffer, const ssc_sdn_pack_cell &cell) {
  const std::uint16_t at = buffer.len();
  southbound::put(buffer.msg(), at, cell);
  southbound::put(buffer.msg(), southbound::kLen, static_cast<std::uint16_t>(at + sizeof cell));
}
static_assert(sizeof(ssc_sdn_pack_cell) == southbound::kCellLen);

void send_collected() {
  {
    const kelim::Lock lock(g_ssc_sdn_pack_mutex);
    g_ssc_sdn_pack_lst_head_tmp.take_all(g_ssc_sdn_pack_lst_head);
  }
  while (!g_ssc_sdn_pack_lst_head_tmp.empty()) {
    pack_buffer *buffer = g_ssc_sdn_pack_lst_head_tmp.first();
    SDN_COUNT_AS("ssc_sdn_pack_send_task", "send big pkt to PI, pkt_len = %u.", buffer->len());
    of_ss_send_msg(buffer->msg(), buffer->len());
    pack_list::unlink(buffer);
    ssc_sdn_free(buffer);
  }
}

void *ssc_sdn_pack_send_task(void *) {
  prctl(PR_SET_NAME, "ssc_kelim_pack_task");
  for (;;) {
    // Deliberate: the period is fixed; a controller that configures another one still gets its reports every five seconds.
    qx_sleep_ms(kSendPeriodMs);
    send_collected();
  }
}

}  // namespace

void ssc_kelim_on_apply_fail(void) {
  const std::uint32_t failures = ++g_apply_fail;
  SDN_ERROR("g_apply_fail = %u.", failures);
}
void ssc_kelim_on_ace_fail(void) {
  const std::uint32_t failures = ++g_ace_fail;
  SDN_ERROR("g_ace_fail = %u.", failures);
}
void ssc_kelim_on_acl_fail(void) {
  const std::uint32_t failures = ++g_acl_fail;
  SDN_ERROR("g_acl_fail = %u.", failures);
}

void ssc_sdn_flow_to_ace_sta(const SPolicyKelim__FlowSta *sta) {
  if (!sta->index) return;
  const flow_info_key key{sta->index->flow_index, sta->index->vsd_id, 0};
  const flow_info_node *node = ssc_kelim_find_flow_node(&key);
  if (!node) {
    SDN_ERROR("flow info cache get failed. flow index:%lu, vsd_id:%d", key.flow_index, key.vsd_id);
    return;
  }
  SDN_VER("exp_app_type:%d", node->exp_app_type);
  if (!is_service_chain(*node)) {
    SDN_VER("flow is not sc. flow index:%lu, vsd_id:%d", key.flow_index, key.vsd_id);
    return;
  }
  SPolicyKelim__ParseFlowKey record_key = ssc_kelim_parse_flow_key(node->exp_app_type, node->flow_index, node->vsd_id);
  SPolicyKelim__FlowToAceSta record = S_POLICY_KELIM__FLOW_TO_ACE_STA__INIT;
  record.index = &record_key;
  record.status = sta->status;
  const std::int32_t rv = ssc_kelim_mom_set(&record.base, QX_MOM_APP_DB);
  if (rv != 0) SDN_ERROR("qx_mom_set FAIL! flow index:%lu, vsd_id:%d, rv:%d", key.flow_index, key.vsd_id, rv);
}

int flow_counter_call_back(void * /*conn*/, const qx_obj *msg) {
  if (msg->cmd != QX_MOM_CMD_REFRESH && msg->cmd != QX_MOM_CMD_SET) return 0;
  if (msg->error_code != 0) {
    SDN_ERROR("flow counter subscribe call back error happen\n\n");
    return 0;
  }
  ssc_sdn_ace_stats_chg_handler(static_cast<const SPolicyKelim__FlowCounter *>(msg->value));
  return 0;
}

std::int32_t ssc_sdn_ace_stats_chg_handler(const SPolicyKelim__FlowCounter *counter) {
  if (!counter || !counter->index) {
    if (ssc_sdn_debug_sw & SDN_DBG_ASSERT) {
      std::printf("ASSERT fail! - %s: %d.\nflow_counter != NULL.", SDN_LOG_SOURCE, __LINE__);
    }
    return QX_FAILED;
  }
  const ssc_sdn_pack_cell cell{counter->index->flow_index, counter->packet_count, counter->byte_count};
  SDN_COUNT("index = %lu, byte_cnt = %lu, pkt_cnt = %lu.", cell.flow_index, cell.byte_count, cell.packet_count);
  ssc_sdn_pack_msg(&cell);
  return 0;
}

std::int32_t ssc_sdn_pack_msg(const ssc_sdn_pack_cell *cell) {
  pack_buffer *buffer = take_last_with_room();
  if (!buffer) buffer = new_buffer();
  if (!buffer) {
    SDN_ERROR("Error: failed to alloc memory.");
    return QX_NO_MEMORY;
  }
  add_cell(*buffer, *cell);
  const kelim::Lock lock(g_ssc_sdn_pack_mutex);
  g_ssc_sdn_pack_lst_head.append(buffer);
  return 0;
}

std::int32_t ssc_kelim_pack_send_task_init() {
  if (g_pack_send_started) return 0;
  if (pthread_create(&g_ssc_sdn_pack_send_thread, nullptr, ssc_sdn_pack_send_task, nullptr) != 0) {
    SDN_ERROR("pthread_create error");
    return -17;
  }
  pthread_detach(g_ssc_sdn_pack_send_thread);
  g_pack_send_started = true;
  return 0;
}

void ssc_kelim_adapt_reset_for_tests() {
  g_apply_fail = g_ace_fail = g_acl_fail = 0;
  {
    const kelim::Lock lock(g_ssc_sdn_pack_max_cell_num_mutex);
    g_ssc_sdn_pack_max_cell_num = kDefaultCells;
  }
  const kelim::Lock lock(g_ssc_sdn_pack_mutex);
  g_ssc_sdn_pack_lst_head.free_all();
}
