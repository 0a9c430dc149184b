// Handler list: deferred calls, appended from any thread to one FIFO and run one at a time by the thread that drains it.
//
// The list does not look at the data it carries: the data of a node belongs to its handler. The mutex guards list, count and
// alive flag and is never held while a handler runs, so a handler may append further calls; they run in the same drain.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

struct libss_pthrd_link {
  libss_pthrd_link *next;
  libss_pthrd_link *prev;
};

// One deferred call. The drain frees the node after its handler has returned, never the data.
struct libss_pthrd_hdl : libss_pthrd_link {
  std::uint32_t flag;  // 1: final node, the drain ends after it
  void (*handler)(libss_pthrd_hdl *);
  void *data;
  std::uint32_t value;
  std::uint64_t arg;  // final nodes: the argument of the drain that runs it
};
using libss_pthrd_handler = void (*)(libss_pthrd_hdl *);

enum : std::uint32_t { LIBSS_PTHRD_PLAIN = 0, LIBSS_PTHRD_FINAL = 1 };

// The links of a node that has been taken off the list.
inline constexpr std::uintptr_t kLibssPthrdPoisonNext = 0x100100;
inline constexpr std::uintptr_t kLibssPthrdPoisonPrev = 0x200200;

struct libss_pthrd_mst {
  char name[256];
  libss_pthrd_link head;
  std::uint32_t count;
  pthread_cond_t cond;  // signalled on every append; on the monotonic clock
  pthread_condattr_t condattr;
  pthread_mutex_t mutex;             // guards head, count and alive
  std::atomic<std::uint32_t> alive;  // tested as its low byte, without the lock at the entries
};

// Why a drain ended.
enum libss_pthrd_drain_result : int {
  LIBSS_PTHRD_FINAL_RAN = 0,
  LIBSS_PTHRD_FREED = 1,  // the master was dead and is gone
  LIBSS_PTHRD_EMPTY = 2,  // nothing left (block_ot: no node arrived in time)
  LIBSS_PTHRD_NO_MASTER = 3,
};

// A new master that owns itself until a drain finds it dead; `name` is copied, "default" for null. Null when it cannot be made.
libss_pthrd_mst *libss_pthrd_create_mst_withname(const char *name);

// Marks the master dead: appends fail from now on and the next drain frees it. It wakes no waiting thread. Null is ignored. Any
// thread.
void libss_pthrd_destroy_mst(libss_pthrd_mst *mst);

// Appends a call. The new node, or null when the master is null or dead or memory is short; then the caller still owns `data`.
// The node may already be freed when this returns, so only test the result for null. Any thread.
libss_pthrd_hdl *libss_pthrd_add_hdl(libss_pthrd_mst *mst, libss_pthrd_handler handler, void *data, std::uint32_t value,
                                     std::uint32_t flag);

// Frees every waiting node and its data (with free) without calling the handlers. Deliberate: the count is left as it is, so that
// libss_pthrd_get_hdl_num still reports how many had been waiting. Any thread.
void libss_pthrd_clear_hdl(libss_pthrd_mst *mst);

// Runs the waiting nodes and those appended meanwhile, in order, without ever blocking. A master dead at entry is freed with its
// waiting nodes. One thread at a time.
libss_pthrd_drain_result libss_pthrd_drain(libss_pthrd_mst *mst, std::uint64_t arg);

// The same for a dedicated thread: waits up to `timeout_ms` (0: without limit) for a first node when the list is empty, and
// returns only after a final node, a time-out or the master's death. A master dead at entry is left alone. One thread at a time.
libss_pthrd_drain_result libss_pthrd_block_ot(libss_pthrd_mst *mst, std::uint64_t arg, std::uint32_t timeout_ms);

// Calls `visit` (null: does nothing) on every waiting node in order, under the mutex: it must not append. Any thread.
void libss_pthrd_tranv_node(libss_pthrd_mst *mst, void (*visit)(libss_pthrd_hdl *));

// The number of waiting nodes; 0 for a null or dead master. Any thread.
std::uint32_t libss_pthrd_get_hdl_num(libss_pthrd_mst *mst);
