// Writes the default configuration file, host.toml.
#pragma once

#include <string>

namespace kelimctl {

// A host.toml with every key commented out, with its meaning, the allowed values and the default.
std::string host_toml();

}  // namespace kelimctl
