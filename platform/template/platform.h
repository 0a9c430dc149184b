/* Shared by the parts of this platform; plain C, so that each may be written in C or C++. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Runs `work` with `arg` in a later turn of the loop, in the order of the calls. Any thread. Dropped when the runtime ends first.
 */
void platform_post(void (*work)(void *arg), void *arg);

/* The parts end with the runtime: the southbound side's thread first, then the store's contents. Loop's thread. */
void platform_southbound_finish(void);
void platform_store_finish(void);

#ifdef __cplusplus
}

#include <chrono>
#include <functional>

namespace platform {

/* The same for C++. */
void post(std::function<void()> work);

/* For tests: runs the loop until `condition` holds or `limit` has passed; returns whether it holds. */
bool run_until(const std::function<bool()> &condition, std::chrono::milliseconds limit);

/* The number of writes of a type with a topic that may await notification of its subscribers; further ones are refused. */
inline unsigned topic_limit = 65536;

}  // namespace platform
#endif
