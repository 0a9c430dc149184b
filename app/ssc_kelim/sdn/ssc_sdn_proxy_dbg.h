// Diagnostics of the southbound layer: the dump of a flow-mod, and the debug commands of module "ssc_kelim_proxy".
//
// The dump prints every match field and action to standard output; it neither checks the flow nor shows the daemon's parsed form
// (dump_ssc_primitive_flow_entry does). A message is never read beyond its stated length. Any thread; the commands run on the
// main SDN thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "qx_runtime.h"
#include "ssat.h"

// The whole flow-mod; 0.
int libproxy_fp_sdn_dump_flow(const void *flow);

// Its match, from the 4-byte match header on; `key` reaches to the end of the message. 0.
int libproxy_fp_sdn_dump_flow_key(std::span<const std::byte> key);

// The value of one match field (OpenFlow 1.3.5, 7.2.3.7); nothing for a field that is not decoded or is cut off. 0.
int libproxy_fp_sdn_dump_flow_key_field(std::span<const std::byte> value, std::uint32_t oxm_header);

// Its actions. 0.
int libproxy_fp_sdn_dump_flow_action(const void *flow);

// One action (OpenFlow 1.3.5, 7.2.5) of at least 8 bytes, with its own length. 0.
int libproxy_fp_sdn_dump_one_action(std::span<const std::byte> action, std::uint16_t len);

// Reads the switch file of this layer and registers its debug commands. 0, or the command service's code.
std::int32_t libproxy_sdn_debug_init(qx_global *global);

// Registers one more command of module "ssc_kelim_proxy". 0 always.
std::int32_t ut_ssc_sdn_proxy_regcmd(const char *name, const char *format, ssat_handler handler);

// The commands: each argument switches its class on (non-zero) or off; the counters of the layer. 0.
std::int32_t libproxy_sdn_debug_set(std::int32_t ver, std::int32_t err, std::int32_t notice);
std::int32_t libproxy_sdn_show_op_cnt();
std::int32_t libproxy_sdn_clear_op_cnt();
