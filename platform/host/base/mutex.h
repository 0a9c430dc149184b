// Locks that clang's thread-safety analysis follows (-Wthread-safety): a member or variable that is KELIM_GUARDED_BY a mutex may
// be accessed only while that mutex is held, or the build fails. Other compilers see a plain std::mutex.
#pragma once

#include <condition_variable>
#include <mutex>

#ifdef __clang__
#define KELIM_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define KELIM_THREAD_ATTRIBUTE(attribute)
#endif
#define KELIM_GUARDED_BY(mutex) KELIM_THREAD_ATTRIBUTE(guarded_by(mutex))
// On a function, or behind the parameters of a lambda: the caller holds the mutex.
#define KELIM_REQUIRES(mutex) KELIM_THREAD_ATTRIBUTE(requires_capability(mutex))

namespace host {

class KELIM_THREAD_ATTRIBUTE(capability("mutex")) Mutex {
 public:
  void lock() KELIM_THREAD_ATTRIBUTE(acquire_capability()) { mutex_.lock(); }
  void unlock() KELIM_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }
  // Tells the analysis that the caller holds the mutex, where it cannot see that.
  void assert_held() KELIM_THREAD_ATTRIBUTE(assert_capability(this)) {}

 private:
  friend class Lock;
  std::mutex mutex_;
};

// Holds the mutex for its lifetime, except during waits.
class KELIM_THREAD_ATTRIBUTE(scoped_lockable) Lock {
 public:
  explicit Lock(Mutex &mutex) KELIM_THREAD_ATTRIBUTE(acquire_capability(mutex)) : held_(mutex.mutex_) {}
  ~Lock() KELIM_THREAD_ATTRIBUTE(release_capability()) = default;
  Lock(const Lock &) = delete;
  Lock &operator=(const Lock &) = delete;

  // Releases the mutex for a while.
  void unlock() KELIM_THREAD_ATTRIBUTE(release_capability()) { held_.unlock(); }
  void lock() KELIM_THREAD_ATTRIBUTE(acquire_capability()) { held_.lock(); }

  // Like the waits of std::condition_variable.
  template <typename Done>
  void wait(std::condition_variable &changed, Done done) {
    changed.wait(held_, done);
  }
  template <typename Duration>
  void wait_for(std::condition_variable &changed, Duration limit) {
    changed.wait_for(held_, limit);
  }
  template <typename Duration, typename Done>
  bool wait_for(std::condition_variable &changed, Duration limit, Done done) {
    return changed.wait_for(held_, limit, done);
  }

 private:
  std::unique_lock<std::mutex> held_;
};

}  // namespace host
