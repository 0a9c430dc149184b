// The targets of log lines. Used by the log service's own thread only.
#pragma once

#include <spdlog/sinks/sink.h>

#include <memory>
#include <string>

#include "host/config/config.h"

namespace host::log {

// The path of the log's file, with the program's name filled in.
std::string file_of(const Config::Log &config, const std::string &ident);

// The target that the configuration asks for; may throw spdlog::spdlog_ex (a file that cannot be opened).
std::unique_ptr<spdlog::sinks::sink> make_sink(const Config::Log &config, const std::string &ident);

}  // namespace host::log
