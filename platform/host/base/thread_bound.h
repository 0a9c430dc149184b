// Ties an object to the thread that may use it. Costs nothing in builds without assertions.
#pragma once

#ifdef NDEBUG

namespace host {
class ThreadBound {
 public:
  void bind() {}
  void check() const {}
};
}  // namespace host

#else

#include <cassert>
#include <thread>

namespace host {

class ThreadBound {
 public:
  // Binds the object to the calling thread. Before that, any thread may use it.
  void bind() { owner_ = std::this_thread::get_id(); }
  // Ends the process when called from another thread.
  void check() const {
    assert((owner_ == std::thread::id() || owner_ == std::this_thread::get_id()) && "belongs to another thread");
  }

 private:
  std::thread::id owner_;
};

}  // namespace host

#endif
