// A mutex with annotations that clang checks (-Wthread-safety): which data it guards, and in which order mutexes are taken.
#pragma once

#include <mutex>

#if defined(__clang__)
#define KELIM_THREAD_RULE(rule) __attribute__((rule))
#else
#define KELIM_THREAD_RULE(rule)
#endif

#define KELIM_GUARDED_BY(mutex) KELIM_THREAD_RULE(guarded_by(mutex))
#define KELIM_ACQUIRED_BEFORE(mutex) KELIM_THREAD_RULE(acquired_before(mutex))
#define KELIM_REQUIRES(mutex) KELIM_THREAD_RULE(requires_capability(mutex))

namespace kelim {

class KELIM_THREAD_RULE(capability("mutex")) Mutex {
 public:
  void lock() KELIM_THREAD_RULE(acquire_capability()) { mutex_.lock(); }
  void unlock() KELIM_THREAD_RULE(release_capability()) { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Holds the mutex until the end of the scope.
class KELIM_THREAD_RULE(scoped_lockable) Lock {
 public:
  explicit Lock(Mutex &mutex) KELIM_THREAD_RULE(acquire_capability(mutex)) : mutex_(mutex) { mutex_.lock(); }
  ~Lock() KELIM_THREAD_RULE(release_capability()) { mutex_.unlock(); }
  Lock(const Lock &) = delete;
  Lock &operator=(const Lock &) = delete;

 private:
  Mutex &mutex_;
};

}  // namespace kelim
