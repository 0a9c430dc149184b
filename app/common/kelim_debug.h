// The daemon's diagnostics: debug commands of module "ssc_kelim" and what they print. Everything goes to standard output.
//
// Main SDN thread. The commands return 0 unless noted.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "qx_runtime.h"
#include "ssat.h"

// One debug command.
struct ssat_command {
  const char *name;
  const char *format;  // of its arguments, see ssat.h
  ssat_handler handler;
};

// The decimal number at the start of a switch file; std::nullopt if the file is missing or empty.
std::optional<std::uint32_t> ssc_sdn_read_switch_file(const char *path);

// Opens a module of the command service and registers its commands in order. If the service refuses the module, nothing is
// registered. 0, or the service's code for the module.
std::int32_t ssc_sdn_register_commands(qx_global *global, const char *module, std::span<const ssat_command> commands);

// Reads the daemon's switch file and registers the commands below.
void ut_ssc_sdn_dbg_init(qx_global *global);

// Set ssc_sdn_debug_sw and g_sdn_count_dbg_sw, and print the active classes.
std::int32_t kelim_set_dbg(std::uint32_t value);
std::int32_t kelim_set_count_dbg_sw(std::uint32_t value);

// The queue of outstanding requests, one line per node.
std::int32_t dump_ssc_sdn_msg_queue();
// The flow cache, one line per flow.
std::int32_t dump_ssc_all_flow_info();
// One flow, field by field. QX_NOT_FOUND for a flow that is not in the cache.
std::int32_t dump_ssc_primitive_flow_entry(std::uint64_t flow_index, std::uint32_t vsd_id);
// Where a data synchronisation stands.
std::int32_t dump_ssc_ds_status();
