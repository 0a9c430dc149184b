// Queue of outstanding requests, in order of arrival: flow adds that wait for their install result and barriers that wait for
// everything before them. Results come in any order; replies leave so that a barrier is answered only when no unanswered request
// stands before it.
//
// Main SDN thread only; no lock. Cost: every operation is O(1) amortised, however many requests are outstanding; a traversal
// walks the queue node by node only while VER lines are on, which it then prints for every node it meets.
#pragma once

#include <cstdint>

struct ssc_sdn_msg_queue_link {
  ssc_sdn_msg_queue_link *next;
  ssc_sdn_msg_queue_link *prev;
};

struct ssc_sdn_msg_queue_node : ssc_sdn_msg_queue_link {
  std::uint32_t type;     // sdn_msg_type
  std::uint64_t msg_id;   // flow index, or the barrier's transaction id
  void *payload;          // owned: flow index (8 bytes), or the first 24 bytes of the barrier request
  std::uint8_t is_ret;    // the result has come
  std::uint32_t ret_val;  // the result, 0 success
  std::uint8_t is_ds;     // queued between the start and the end of a data synchronisation
  std::uint8_t is_set;    // the data synchronisation has seen this flow's status
  std::uint32_t ds_type;  // data-synchronisation class: 0 flows, 1 flow-to-ACE, 2 barriers

  // The queue's own bookkeeping.
  std::uint32_t sequence;               // order of arrival, modulo 2^32
  std::uint32_t segment;                // number of its stretch between two barriers; a barrier begins a new one
  ssc_sdn_msg_queue_node *bucket_next;  // ring of the nodes in one hash bucket, in order of arrival
};

// The list's head; points at itself when the queue is empty.
extern ssc_sdn_msg_queue_link g_ssc_sdn_msg_queue;

inline bool ssc_sdn_msg_queue_empty() {
  return g_ssc_sdn_msg_queue.next == &g_ssc_sdn_msg_queue;
}

// Empties the queue. Deliberate: outstanding requests are dropped without an answer. Database 8 has just been connected, perhaps
// again: at the data-fetch signal that follows, the service library hands over everything again that it still wants, and it
// expects no answers to earlier requests.
void ssc_sdn_msg_queue_init();

// Appends a node without payload. Null when memory is short.
ssc_sdn_msg_queue_node *ssc_sdn_msg_queue_push_msg_node(std::int32_t type, std::uint64_t msg_id, std::uint32_t ds_type);

// Appends a flow add (flow index at byte 8 of the request) or a barrier (at least 24 bytes). 0, or QX_NO_MEMORY with the queue
// unchanged.
std::int32_t ssc_sdn_msg_queue_alloc_flow_msg_node(const void *flow, std::uint32_t ds_type);
std::int32_t ssc_sdn_msg_queue_alloc_barrier_msg_node(const void *barrier);

// Marks the first node with this type and id as returned. 0, or QX_NOT_FOUND when there is none.
std::int32_t ssc_sdn_msg_queue_update_msg_node(std::uint32_t type, std::uint64_t msg_id, std::uint32_t ret_val);

// Marks the first flow node with this id as set.
void ssc_sdn_msg_queue_update_node_set_status(std::uint64_t msg_id);

// 1 when the data synchronisation in the queue has no unset flow node of this class left, else 0.
std::int32_t ssc_sdn_msg_queue_check_ds_end_by_type(std::uint32_t ds_type);

// Pops every returned node up to the first barrier that still has to wait, and every barrier before it.
void ssc_sdn_msg_queue_traverse_pop_msg_node();

// Removes a node and frees it with its payload: a barrier is answered, a failed flow is reported to the controller side.
void ssc_sdn_msg_queue_pop_msg_node(ssc_sdn_msg_queue_node *node);

// Pops the first flow node with this id, if any.
void ssc_sdn_msg_queue_destory_flow_msg_node(std::uint64_t msg_id);

// Pops everything, barriers included, in order.
void ssc_sdn_msg_queue_destory_all_flow_msg_node();

// For tests: empties the queue without answering anybody.
void ssc_sdn_msg_queue_reset_for_tests();
