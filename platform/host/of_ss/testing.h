// For tests only: stand in for the controller side of the service library.
//
// A test that plays the library itself calls hold_agent(true) before the daemon registers, then calls the daemon's callbacks
// through callbacks() as the library would and looks at what the daemon sends through the taps. Without hold_agent the agent runs
// as usual and the taps only listen.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/of_ss/desired/callbacks.h"

namespace host::of_ss {

// What is registered; null where nothing is. Loop's thread.
const Callbacks &callbacks();

// While held, the library opens no connection, starts no thread and calls nothing by itself; of_ss_send_msg gives 0 and drops.
// Set before ss_of_init.
void hold_agent(bool held);

// Called with the bytes of every of_ss_send_msg that is accepted, on the thread that sends, one at a time; null takes the tap
// away. After the return no call of the old tap is under way.
void set_reply_tap(std::function<void(std::span<const std::byte>)> tap);

// Called at every ss_of_ds_fetch, in the same way.
void set_fetch_tap(std::function<void()> tap);

// The port that the n-th listening endpoint is bound to; 0 while it is not. Loop's thread.
std::uint16_t listening_port(std::size_t n = 0);

// One look of the audit, and what is known after it: a text a difference. Nothing when something was under way then or at the
// look before. Loop's thread.
std::optional<std::vector<std::string>> audit_now();

// Runs the agent's periodic work now, on its thread, as after the host clock has been moved, and waits for it. Loop's thread.
void run_timers();

// Forgets registrations, taps and the hold; the agent, if one runs, is stopped and forgets its flows and meters.
void of_ss_reset_for_tests();

}  // namespace host::of_ss
