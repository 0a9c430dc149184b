// The process's event loop, for the host's own services and for tests.
//
// The loop exists from qx_global_init to qx_global_finish; its thread is the one that created the runtime, later the one that
// runs it.
#pragma once

#include <chrono>
#include <functional>

struct event_base;

namespace host {

// The libevent loop for sockets and signals of the host's services; null while there is no runtime. Loop's thread.
event_base *loop_base();

// Runs `work` in a later turn of the loop; work of one thread keeps its order. Work that has not run when the runtime is released
// is dropped, as is everything posted without a runtime. Any thread; one lock, and one system call when the queue was empty.
void post(std::function<void()> work);

// Ends qx_global_run or run_until after the current turn, or the next one at once. Any thread.
void stop_loop();

// Tests: runs the loop until `condition` holds or `limit` of real time has passed; returns the condition's last value. The
// condition is tested after every turn, and every millisecond for changes by other threads. Not from inside the loop.
bool run_until(const std::function<bool()> &condition, std::chrono::milliseconds limit);

// True if the caller is on the loop's thread, or while there is no runtime.
bool on_loop_thread();

#ifdef NDEBUG
inline void assert_loop_thread() {}
#else
// Ends the process when called from another thread than the loop's.
void assert_loop_thread();
#endif

}  // namespace host
