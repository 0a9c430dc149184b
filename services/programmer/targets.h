// The targets there are, by name.
#pragma once

#include <memory>
#include <string>

#include "programmer/context.h"
#include "programmer/programmer.h"
#include "programmer/target.h"

namespace programmer {

// An empty text when there is a target of that name that can be as large, otherwise what is allowed.
std::string check_target(const Options &options);

// Takes out what targets have left in this machine, and says what, a line each; false, and why, when one runs.
bool release_targets(const Context &context, const Options &options, std::string &said);

// Throws std::runtime_error, with one line that names what is missing, where this machine cannot be the target. `context` and
// `sink` live as long as the target.
std::unique_ptr<Target> make_target(const Context &context, const Options &options, FlowSink &sink);

}  // namespace programmer
