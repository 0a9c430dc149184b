#include "libss_pthrd.h"

#include <bit>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "qx_runtime.h"

namespace {

bool is_alive(const libss_pthrd_mst &mst) {
  return (mst.alive.load(std::memory_order_acquire) & 0xff) != 0;
}

bool is_empty(const libss_pthrd_mst &mst) {
  return mst.head.next == &mst.head;
}

void link_at_tail(libss_pthrd_mst &mst, libss_pthrd_hdl &node) {
  node.next = &mst.head;
  node.prev = mst.head.prev;
  mst.head.prev->next = &node;
  mst.head.prev = &node;
  ++mst.count;
}

libss_pthrd_hdl *take_head(libss_pthrd_mst &mst) {
  auto *node = static_cast<libss_pthrd_hdl *>(mst.head.next);
  mst.head.next = node->next;
  node->next->prev = &mst.head;
  node->next = std::bit_cast<libss_pthrd_link *>(kLibssPthrdPoisonNext);
  node->prev = std::bit_cast<libss_pthrd_link *>(kLibssPthrdPoisonPrev);
  --mst.count;
  return node;
}

void free_all(libss_pthrd_mst &mst) {
  while (!is_empty(mst)) {
    auto *node = static_cast<libss_pthrd_hdl *>(mst.head.next);
    mst.head.next = node->next;
    std::free(node->data);
    delete node;
  }
  mst.head.prev = &mst.head;
}

// Frees a dead master; the caller holds its mutex.
void free_locked(libss_pthrd_mst *mst) {
  free_all(*mst);
  pthread_mutex_unlock(&mst->mutex);
  pthread_cond_destroy(&mst->cond);
  pthread_condattr_destroy(&mst->condattr);
  pthread_mutex_destroy(&mst->mutex);
  delete mst;
}

// Runs one node and frees it. True for a final node, unless its handler has cleared the mark.
bool run(libss_pthrd_hdl *node, std::uint64_t arg) {
  const bool final_node = node->flag == LIBSS_PTHRD_FINAL;
  if (final_node) node->arg = arg;
  if (node->handler) node->handler(node);
  const bool ends = final_node && node->flag == LIBSS_PTHRD_FINAL;
  delete node;
  return ends;
}

// Runs nodes until the list is empty or a final node has run, and returns why it stopped. The caller holds the mutex and still
// holds it afterwards, unless the master is gone or a final node ran.
libss_pthrd_drain_result drain_locked(libss_pthrd_mst *mst, std::uint64_t arg) {
  while (!is_empty(*mst)) {
    libss_pthrd_hdl *node = take_head(*mst);
    pthread_mutex_unlock(&mst->mutex);
    if (run(node, arg)) return LIBSS_PTHRD_FINAL_RAN;
    pthread_mutex_lock(&mst->mutex);
  }
  if (is_alive(*mst)) return LIBSS_PTHRD_EMPTY;
  free_locked(mst);
  return LIBSS_PTHRD_FREED;
}

timespec deadline_after(std::uint32_t timeout_ms) {
  constexpr long kNanosecondsPerSecond = 1'000'000'000;
  timespec deadline = qx_monotime();
  deadline.tv_sec += timeout_ms / 1000;
  deadline.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1'000'000;
  if (deadline.tv_nsec >= kNanosecondsPerSecond) {
    deadline.tv_nsec -= kNanosecondsPerSecond;
    ++deadline.tv_sec;
  }
  return deadline;
}

// Waits for a node, with the mutex held at entry and return; with a time-out, at most until the deadline.
void wait_for_node(libss_pthrd_mst &mst, std::uint32_t timeout_ms) {
  if (timeout_ms == 0) {
    while (is_empty(mst) && is_alive(mst)) pthread_cond_wait(&mst.cond, &mst.mutex);
    return;
  }
  const timespec deadline = deadline_after(timeout_ms);
  while (is_empty(mst) && pthread_cond_timedwait(&mst.cond, &mst.mutex, &deadline) == 0) {
  }
}

bool init_cond(libss_pthrd_mst &mst) {
  if (pthread_condattr_init(&mst.condattr) != 0) return false;
  if (pthread_condattr_setclock(&mst.condattr, CLOCK_MONOTONIC) == 0 && pthread_cond_init(&mst.cond, &mst.condattr) == 0)
    return true;
  pthread_condattr_destroy(&mst.condattr);
  return false;
}

bool init_sync(libss_pthrd_mst &mst) {
  if (!init_cond(mst)) return false;
  if (pthread_mutex_init(&mst.mutex, nullptr) == 0) return true;
  pthread_cond_destroy(&mst.cond);
  pthread_condattr_destroy(&mst.condattr);
  return false;
}

}  // namespace

libss_pthrd_mst *libss_pthrd_create_mst_withname(const char *name) {
  auto *mst = new (std::nothrow) libss_pthrd_mst{};
  if (!mst) return nullptr;
  if (!init_sync(*mst)) {
    delete mst;
    return nullptr;
  }
  mst->head.next = mst->head.prev = &mst->head;
  std::snprintf(mst->name, sizeof mst->name, "%s", name ? name : "default");
  mst->alive.store(1, std::memory_order_release);
  return mst;
}

void libss_pthrd_destroy_mst(libss_pthrd_mst *mst) {
  if (mst) mst->alive.store(0, std::memory_order_release);
}

libss_pthrd_hdl *libss_pthrd_add_hdl(libss_pthrd_mst *mst, libss_pthrd_handler handler, void *data, std::uint32_t value,
                                     std::uint32_t flag) {
  if (!mst || !is_alive(*mst)) return nullptr;
  auto *node = new (std::nothrow) libss_pthrd_hdl{{nullptr, nullptr}, flag, handler, data, value, 0};
  if (!node) return nullptr;
  pthread_mutex_lock(&mst->mutex);
  link_at_tail(*mst, *node);
  pthread_cond_signal(&mst->cond);
  pthread_mutex_unlock(&mst->mutex);
  return node;
}

void libss_pthrd_clear_hdl(libss_pthrd_mst *mst) {
  if (!mst) return;
  pthread_mutex_lock(&mst->mutex);
  free_all(*mst);
  pthread_mutex_unlock(&mst->mutex);
}

libss_pthrd_drain_result libss_pthrd_drain(libss_pthrd_mst *mst, std::uint64_t arg) {
  if (!mst) return LIBSS_PTHRD_NO_MASTER;
  pthread_mutex_lock(&mst->mutex);
  if (!is_alive(*mst)) {
    free_locked(mst);
    return LIBSS_PTHRD_FREED;
  }
  const libss_pthrd_drain_result result = drain_locked(mst, arg);
  if (result == LIBSS_PTHRD_EMPTY) pthread_mutex_unlock(&mst->mutex);
  return result;
}

libss_pthrd_drain_result libss_pthrd_block_ot(libss_pthrd_mst *mst, std::uint64_t arg, std::uint32_t timeout_ms) {
  if (!mst || !is_alive(*mst)) return LIBSS_PTHRD_NO_MASTER;
  pthread_mutex_lock(&mst->mutex);
  for (;;) {
    const libss_pthrd_drain_result result = drain_locked(mst, arg);
    if (result != LIBSS_PTHRD_EMPTY) return result;
    wait_for_node(*mst, timeout_ms);
    if (is_empty(*mst) && is_alive(*mst)) {
      pthread_mutex_unlock(&mst->mutex);
      return LIBSS_PTHRD_EMPTY;
    }
  }
}

void libss_pthrd_tranv_node(libss_pthrd_mst *mst, void (*visit)(libss_pthrd_hdl *)) {
  if (!mst || !is_alive(*mst)) return;
  pthread_mutex_lock(&mst->mutex);
  for (libss_pthrd_link *link = mst->head.next; visit && link != &mst->head; link = link->next)
    visit(static_cast<libss_pthrd_hdl *>(link));
  pthread_mutex_unlock(&mst->mutex);
}

std::uint32_t libss_pthrd_get_hdl_num(libss_pthrd_mst *mst) {
  if (!mst || !is_alive(*mst)) return 0;
  pthread_mutex_lock(&mst->mutex);
  const std::uint32_t count = mst->count;
  pthread_mutex_unlock(&mst->mutex);
  return count;
}
