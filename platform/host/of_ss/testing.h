// For tests only: stand in for the controller side of the service library.
//
// A test that plays the library itself calls hold_agent(true) before the daemon registers, then calls the daemon's callbacks
// through callbacks() as the library would and observes the daemon's messages through the taps. Without hold_agent the agent runs
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

// The registered callbacks, null if not registered. Loop's thread.
const Callbacks &callbacks();

// While held, the library opens no connection, starts no thread and makes no calls; of_ss_send_msg returns 0 and drops the
// message. To be set before ss_of_init.
void hold_agent(bool held);

// Sets a tap, called with the bytes of every accepted of_ss_send_msg, on the sending thread, one at a time; null removes it.
// After the return the old tap is not running any more.
void set_reply_tap(std::function<void(std::span<const std::byte>)> tap);

// Likewise sets a tap for every ss_of_ds_fetch.
void set_fetch_tap(std::function<void()> tap);

// The bound port of the n-th listening endpoint; 0 while it is not bound. Loop's thread.
std::uint16_t listening_port(std::size_t n = 0);

// Runs one look of the audit and returns the known differences as text; std::nullopt when requests were in flight then or at the
// previous look. Loop's thread.
std::optional<std::vector<std::string>> audit_now();

// Runs the agent's periodic work now, on its thread, for example after the host clock was moved, and waits for it. Loop's thread.
void run_timers();

// Resets registrations, taps and the hold; a running agent is stopped and its flows and meters are dropped.
void of_ss_reset_for_tests();

}  // namespace host::of_ss
