// Makes a target by its name. Loop's thread.
#pragma once

#include <memory>
#include <string>

#include "programmer/context.h"
#include "programmer/programmer.h"
#include "programmer/target.h"

namespace programmer {

// Empty if the named target exists and supports the options, otherwise a text that says what is allowed.
std::string check_target(const Options &options);

// Removes what the targets of earlier services have left in this machine; `said` lists it, one line each. False, with the reason
// in `said`, while a service uses it.
bool release_targets(const Context &context, const Options &options, std::string &said);

// Throws std::runtime_error, with one line that names what is missing, if this machine cannot be the target. `context` and `sink`
// must outlive the target.
std::unique_ptr<Target> make_target(const Context &context, const Options &options, FlowSink &sink);

}  // namespace programmer
