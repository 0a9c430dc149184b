// What the programming service answers to flows, straight from the database. The daemon tells of a failure only while it waits
// for the flow's answer, and not for what reason it failed: a flow that fails later, as after a restart of the programming
// service, disappears from the database without a word, and a shortage looks like any other failure.
#pragma once

#include <functional>

#include "host/of_ss/wire.h"

namespace host::of_ss {

inline constexpr std::uint16_t kFlowAnswer = 0xff00;  // the library's own; the daemon has no message of this type

// From now on gives `failed` every answer that says that a flow has failed, as a message laid out as a flow result of type
// kFlowAnswer, before the daemon acts on it; and `seen` the index of the flow with every answer, also one that is taken back.
// Loop's thread.
void watch_answers(std::function<void(Bytes)> failed, std::function<void(std::uint64_t index)> seen);

}  // namespace host::of_ss
