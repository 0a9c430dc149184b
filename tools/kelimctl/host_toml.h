// The configuration file as it is delivered.
#pragma once

#include <string>

namespace kelimctl {

// A host.toml that says what the programs do without one: every key with its meaning, what is allowed and its default, commented
// out.
std::string host_toml();

}  // namespace kelimctl
