#include "ssc_kelim/sdn/ssc_sdn_msg_queue.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

#include "kelim/common/kelim_debug.h"
#include "southbound.h"
#include "ssc_kelim/sdn/ssc_kelim_ds_stage.h"
#include "ssc_kelim/sdn/ssc_kelim_replies.h"

ssc_sdn_msg_queue_link g_ssc_sdn_msg_queue = {&g_ssc_sdn_msg_queue, &g_ssc_sdn_msg_queue};

namespace {

using Link = ssc_sdn_msg_queue_link;
using Node = ssc_sdn_msg_queue_node;

// The node of a link, null for the head.
Node *node_of(Link *link) {
  return link == &g_ssc_sdn_msg_queue ? nullptr : static_cast<Node *>(link);
}
Node *front() {
  return node_of(g_ssc_sdn_msg_queue.next);
}

// ---- index: (type, id) to the first node that carries them
//
// A hash table through the nodes themselves. A bucket points at the last node of a ring in order of arrival, so appending is
// O(1), and so is removing the first of many equal ones. If memory for growing is short, the table becomes slower, never wrong.
class Index {
 public:
  Node *find(std::uint32_t type, std::uint64_t msg_id) const {
    Node *last = bucket(type, msg_id);
    if (!last) return nullptr;
    Node *node = last;
    do {
      node = node->bucket_next;
      if (node->msg_id == msg_id && node->type == type) return node;
    } while (node != last);
    return nullptr;
  }

  // Called before the node joins the queue's list.
  void append(Node *node) {
    if (++count_ > size()) rebuild(bits_ + 1);
    insert(node);
  }

  // Called after the node has left the queue's list.
  void remove(Node *node) {
    Node *&last = bucket(node->type, node->msg_id);
    Node *before = last;
    while (before->bucket_next != node) before = before->bucket_next;
    before->bucket_next = node->bucket_next;
    if (last == node) last = before == node ? nullptr : before;
    if (--count_ < size() / 8 && bits_ > kFewBits) rebuild(bits_ - 1);
  }

  // The queue's list is empty.
  void clear() {
    rebuild(kFewBits);
    count_ = 0;
  }

 private:
  static constexpr unsigned kFewBits = 6;

  std::size_t size() const { return std::size_t{1} << bits_; }

  // Ids are mostly consecutive; the multiplication spreads them, and any other pattern, over the high bits.
  std::size_t slot(std::uint32_t type, std::uint64_t msg_id) const {
    return ((msg_id ^ (std::uint64_t{type} << 56)) * 0x9e3779b97f4a7c15u) >> (64 - bits_);
  }
  Node *bucket(std::uint32_t type, std::uint64_t msg_id) const { return buckets_[slot(type, msg_id)]; }
  Node *&bucket(std::uint32_t type, std::uint64_t msg_id) { return buckets_[slot(type, msg_id)]; }

  void insert(Node *node) {
    Node *&last = bucket(node->type, node->msg_id);
    node->bucket_next = last ? last->bucket_next : node;
    if (last) last->bucket_next = node;
    last = node;
  }

  // Re-enters the queue's nodes, in order, in a table of another size.
  void rebuild(unsigned bits) {
    Node **buckets = bits == kFewBits ? few_ : new (std::nothrow) Node *[std::size_t{1} << bits];
    if (!buckets) return;
    if (buckets_ != few_) delete[] buckets_;
    buckets_ = buckets;
    bits_ = bits;
    std::fill_n(buckets_, size(), nullptr);
    for (Link *link = g_ssc_sdn_msg_queue.next; Node *node = node_of(link); link = link->next) insert(node);
  }

  Node *few_[1 << kFewBits] = {};
  Node **buckets_ = few_;
  unsigned bits_ = kFewBits;
  std::size_t count_ = 0;
};

// ---- the segment at the head: the nodes before the first barrier
//
// Nodes leave the queue only from it. While some of its nodes are unreturned, a traversal pops those that have returned since the
// previous traversal and looks no further.
struct HeadSegment {
  std::uint32_t number = 0;
  std::uint32_t unreturned = 0;
  std::uint32_t ready = 0;       // returned, not yet popped
  Node *latest_ready = nullptr;  // the latest of them; null once it has been popped by other means
  bool counted = true;           // false: the figures must be recounted

  void begin(std::uint32_t segment_number) { *this = {.number = segment_number, .counted = false}; }
  bool holds(const Node &node) const { return node.segment == number; }

  void on_push() { ++unreturned; }
  void on_return(Node *node) {
    --unreturned;
    ++ready;
    latest_ready = node;
  }
  void on_pop(const Node *node) {
    --(node->is_ret != 0 ? ready : unreturned);
    if (latest_ready == node) latest_ready = nullptr;
  }
};

// ---- cursors of the data-sync check
//
// Each finds the first node of a kind. A node that it has passed never becomes of that kind again, so it only moves forward.
struct Cursor {
  Link *passed = &g_ssc_sdn_msg_queue;

  template <typename Match>
  Node *first(Match match) {
    for (Node *node = node_of(passed->next); node; node = node_of(node->next)) {
      if (match(*node)) return node;
      passed = node;
    }
    return nullptr;
  }
};

bool is_ds_flow(const Node &node) {
  return node.type == SDN_ADD_FLOW_MSG && node.is_ds != 0;
}
bool is_plain_flow(const Node &node) {
  return node.type == SDN_ADD_FLOW_MSG && node.is_ds == 0;
}
bool precedes(const Node &a, const Node &b) {
  return static_cast<std::int32_t>(a.sequence - b.sequence) < 0;
}

constexpr std::uint32_t kDsClasses = 3;

struct State {
  Index index;
  HeadSegment head;
  std::uint32_t tail_segment = 0;
  std::uint32_t next_sequence = 0;
  Cursor ds_flow;
  Cursor plain_flow;         // behind the first data-sync flow
  Cursor unset[kDsClasses];  // data-sync flows of a class whose status is not set

  // The queue's list is empty.
  void start_anew() {
    index.clear();
    head = {};
    tail_segment = next_sequence = 0;
    ds_flow = plain_flow = {};
    std::fill(std::begin(unset), std::end(unset), Cursor{});
  }

  // Moves the cursors off a node that is about to leave.
  void step_back(const Node *node) {
    const auto leave = [node](Cursor &cursor) {
      if (cursor.passed == node) cursor.passed = node->prev;
    };
    leave(ds_flow);
    leave(plain_flow);
    std::for_each(std::begin(unset), std::end(unset), leave);
  }
};

State g_state;

// When a barrier leaves the middle of the queue, the nodes behind it join the segment before it.
void join_segments(const Node &barrier) {
  const std::uint32_t joined = node_of(barrier.prev)->segment;
  for (Node *node = node_of(barrier.next); node && node->type != SDN_BARRIER; node = node_of(node->next)) node->segment = joined;
  if (g_state.tail_segment == barrier.segment) g_state.tail_segment = joined;
  if (g_state.head.number == joined) g_state.head.counted = false;
}

void link_at_tail(Node *node) {
  Link &head = g_ssc_sdn_msg_queue;
  node->next = &head;
  node->prev = head.prev;
  head.prev->next = node;
  head.prev = node;
}

// Removes the node from the list, the index, the head segment and the cursors.
void detach(Node *node) {
  if (node->type != SDN_BARRIER) {
    if (g_state.head.holds(*node)) g_state.head.on_pop(node);
  } else if (node->prev == &g_ssc_sdn_msg_queue) {
    g_state.head.begin(node->segment);
  } else {
    join_segments(*node);
  }
  g_state.step_back(node);
  node->prev->next = node->next;
  node->next->prev = node->prev;
  g_state.index.remove(node);
}

void free_node(Node *node) {
  ssc_sdn_free(node->payload);
  ssc_sdn_free(node);
}

// Barriers are answered; flows only when they failed.
void answer(const Node &node) {
  if (node.type == SDN_BARRIER) {
    ssc_sdn_reply_barrier_request(node.payload);
  } else if (node.type == SDN_ADD_FLOW_MSG && node.ret_val != 0) {
    const std::uint64_t flow_index = node.payload ? southbound::get<std::uint64_t>(node.payload, 0) : node.msg_id;
    sdn_send_flow_ret_val_2_proxy(0, flow_index, static_cast<std::int32_t>(node.ret_val));
  }
}

void log_and_pop(Node *node) {
  SDN_VER_AS("ssc_sdn_msg_queue_traverse_pop_msg_node", "pop msg node: %s, msg_id = %lu\n", sdn_oprate_text(node->type),
             node->msg_id);
  ssc_sdn_msg_queue_pop_msg_node(node);
}

// Applies the rule itself, node by node from the head.
void traverse_from_head() {
  constexpr const char *kName = "ssc_sdn_msg_queue_traverse_pop_msg_node";
  std::uint32_t unreturned = 0;
  Node *next;
  for (Node *node = front(); node; node = next) {
    next = node_of(node->next);
    if (node->type == SDN_BARRIER && unreturned != 0) {
      SDN_VER_AS(kName, "node before the barrier not all return, exit \n");
      break;
    }
    if (node->type == SDN_BARRIER || node->is_ret != 0) {
      log_and_pop(node);
    } else {
      SDN_VER_AS(kName, "find not return node\n");
      ++unreturned;
    }
  }
  g_state.head = {.number = g_state.head.number, .unreturned = unreturned};
}

// Allocates a payload and queues a node that owns it.
std::int32_t queue_with_payload(const char *name, std::uint32_t type, std::uint64_t msg_id, std::uint32_t ds_type,
                                const void *bytes, std::size_t size, const char *no_memory) {
  void *payload = ssc_sdn_malloc(size, name, __LINE__);
  if (!payload) {
    SDN_ERROR_AS(name, "%s", no_memory);
    return QX_NO_MEMORY;
  }
  Node *node = ssc_sdn_msg_queue_push_msg_node(static_cast<std::int32_t>(type), msg_id, ds_type);
  if (!node) {
    SDN_ERROR_AS(name, "insert msg_queue_node, error!");
    ssc_sdn_free(payload);
    return QX_NO_MEMORY;
  }
  std::memcpy(payload, bytes, size);
  node->payload = payload;
  return 0;
}

void drop_all() {
  Node *next;
  for (Node *node = front(); node; node = next) {
    next = node_of(node->next);
    free_node(node);
  }
  g_ssc_sdn_msg_queue = {&g_ssc_sdn_msg_queue, &g_ssc_sdn_msg_queue};
  g_state.start_anew();
}

}  // namespace

void ssc_sdn_msg_queue_init() {
  ssc_sdn_assert_main_thread();
  drop_all();
}

ssc_sdn_msg_queue_node *ssc_sdn_msg_queue_push_msg_node(std::int32_t type, std::uint64_t msg_id, std::uint32_t ds_type) {
  ssc_sdn_assert_main_thread();
  const auto node_type = static_cast<std::uint32_t>(type);
  SDN_VER("insert msg node:%s, msg_id = %lu\n", sdn_oprate_text(node_type), msg_id);
  void *block = ssc_sdn_malloc(sizeof(Node), __func__, __LINE__);
  if (!block) {
    SDN_ERROR("malloc happen error!");
    return nullptr;
  }
  auto *node = new (block) Node{};
  node->type = node_type;
  node->msg_id = msg_id;
  node->ds_type = ds_type;
  node->is_ds = g_ssc_ds_stage.in_progress != 0 && g_ssc_ds_stage.end_received == 0;
  node->sequence = g_state.next_sequence++;
  node->segment = node_type == SDN_BARRIER ? ++g_state.tail_segment : g_state.tail_segment;
  if (g_state.head.holds(*node)) g_state.head.on_push();
  g_state.index.append(node);
  link_at_tail(node);
  return node;
}

std::int32_t ssc_sdn_msg_queue_alloc_flow_msg_node(const void *flow, std::uint32_t ds_type) {
  const auto flow_index = southbound::get<std::uint64_t>(flow, southbound::kFlowIndex);
  return queue_with_payload(__func__, SDN_ADD_FLOW_MSG, flow_index, ds_type, &flow_index, sizeof flow_index,
                            "malloc flow msg node, error!");
}

std::int32_t ssc_sdn_msg_queue_alloc_barrier_msg_node(const void *barrier) {
  constexpr std::uint32_t kBarrierClass = 2;
  const auto xid = southbound::get<std::uint32_t>(barrier, southbound::kBarrierXid);
  return queue_with_payload(__func__, SDN_BARRIER, xid, kBarrierClass, barrier, southbound::kBarrierLen,
                            "malloc barrier msg node, error!");
}

std::int32_t ssc_sdn_msg_queue_update_msg_node(std::uint32_t type, std::uint64_t msg_id, std::uint32_t ret_val) {
  ssc_sdn_assert_main_thread();
  Node *node = g_state.index.find(type, msg_id);
  if (!node) {
    SDN_ERROR("update msg node fail, Not find msg_node: %s, msg_id = %lu\n", sdn_oprate_text(type), msg_id);
    return QX_NOT_FOUND;
  }
  if (node->is_ret == 0 && g_state.head.holds(*node)) g_state.head.on_return(node);
  node->is_ret = 1;
  node->ret_val = ret_val;
  SDN_VER("upgrade msg node: %s, msg_id = %lu, is_ret: %d, ret_val:%d\n", sdn_oprate_text(type), msg_id, node->is_ret,
          static_cast<int>(node->ret_val));
  return 0;
}

void ssc_sdn_msg_queue_update_node_set_status(std::uint64_t msg_id) {
  ssc_sdn_assert_main_thread();
  Node *node = g_state.index.find(SDN_ADD_FLOW_MSG, msg_id);
  if (!node) {
    SDN_ERROR("update msg node is_set fail, Not find msg_node: %s, msg_id = %lu\n", sdn_oprate_text(SDN_ADD_FLOW_MSG), msg_id);
    return;
  }
  node->is_set = 1;
  SDN_VER("update msg node: %s, msg_id = %lu, is_ds:%d, is_set: %d\n", sdn_oprate_text(node->type), msg_id, node->is_ds,
          node->is_set);
}

// Only the first run of data-sync flows counts, up to the first later flow that was queued outside a synchronisation.
std::int32_t ssc_sdn_msg_queue_check_ds_end_by_type(std::uint32_t ds_type) {
  ssc_sdn_assert_main_thread();
  const Node *run = g_state.ds_flow.first(is_ds_flow);
  if (!run) return 1;
  Cursor from_head;
  Cursor &cursor = ds_type < kDsClasses ? g_state.unset[ds_type] : from_head;
  const Node *unset =
      cursor.first([ds_type](const Node &node) { return is_ds_flow(node) && node.ds_type == ds_type && node.is_set == 0; });
  if (!unset) return 1;
  const Node *run_end = g_state.plain_flow.first([run](const Node &node) { return is_plain_flow(node) && precedes(*run, node); });
  return run_end && precedes(*run_end, *unset) ? 1 : 0;
}

void ssc_sdn_msg_queue_traverse_pop_msg_node() {
  ssc_sdn_assert_main_thread();
  HeadSegment &head = g_state.head;
  if (!kelim::kVer.enabled() && head.counted) {
    if (head.ready == 1 && head.latest_ready) ssc_sdn_msg_queue_pop_msg_node(head.latest_ready);
    if (head.ready == 0 && head.unreturned != 0) return;
  }
  traverse_from_head();
}

void ssc_sdn_msg_queue_pop_msg_node(ssc_sdn_msg_queue_node *node) {
  ssc_sdn_assert_main_thread();
  SDN_VER("delete msg node:%s, msg_id = %lu\n", sdn_oprate_text(node->type), node->msg_id);
  answer(*node);
  detach(node);
  free_node(node);
}

void ssc_sdn_msg_queue_destory_flow_msg_node(std::uint64_t msg_id) {
  ssc_sdn_assert_main_thread();
  if (Node *node = g_state.index.find(SDN_ADD_FLOW_MSG, msg_id)) ssc_sdn_msg_queue_pop_msg_node(node);
}

void ssc_sdn_msg_queue_destory_all_flow_msg_node() {
  ssc_sdn_assert_main_thread();
  Node *next;
  for (Node *node = front(); node; node = next) {
    next = node_of(node->next);
    ssc_sdn_msg_queue_pop_msg_node(node);
  }
}

void ssc_sdn_msg_queue_reset_for_tests() {
  drop_all();
}
