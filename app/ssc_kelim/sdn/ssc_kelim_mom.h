// Access to the object database: guarded writes, deletions, expiries and scans of policy records.
//
// Each wrapper adds to the client's call only a test of the handle, the database number and one error line; callers decide what a
// failure means. A record handed to a deletion or expiry needs only its key; a key of zeros stands for every object of the type.
//
// Thread: main SDN thread.
// Results: 0; QX_FAILED without a client handle (or record, where noted); QX_NO_MEMORY out of memory; else the client's own code.
#pragma once

#include <cstdint>

#include "qx_mom.h"
#include "qx_runtime.h"
#include "s_policy_kelim.pb-c.h"

// The process's runtime, which is the client handle of every database too; null until start-up has created it.
extern qx_global *g_ssc_kelim_global;

// Overwrite tags: which records a finished data synchronisation removes.
enum ssc_kelim_ow : std::int64_t {
  SSC_KELIM_OW_FLOW = 1,         // flows that the daemon wrote from a flow-mod
  SSC_KELIM_OW_FLOW_TO_ACE = 2,  // flows that it wrote from a service-chain application's answer
};

// ---- keys

inline SPolicyKelim__FlowKey ssc_kelim_flow_key(std::uint64_t flow_index, std::uint32_t vsd_id) {
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = flow_index;
  key.vsd_id = vsd_id;
  return key;
}
inline SPolicyKelim__ParseFlowKey ssc_kelim_parse_flow_key(std::uint32_t t_flow_type, std::uint64_t flow_index,
                                                           std::uint32_t vsd_id) {
  SPolicyKelim__ParseFlowKey key = S_POLICY_KELIM__PARSE_FLOW_KEY__INIT;
  key.t_flow_type = t_flow_type;
  key.flow_index = flow_index;
  key.vsd_id = vsd_id;
  return key;
}
inline SPolicyKelim__MeterKey ssc_kelim_meter_key(std::uint32_t meter_id, std::uint32_t vsd_id) {
  SPolicyKelim__MeterKey key = S_POLICY_KELIM__METER_KEY__INIT;
  key.meter_id = meter_id;
  key.vsd_id = vsd_id;
  return key;
}

// ---- wrappers

std::int32_t ssc_kelim_mom_set(const ProtobufCMessage *record, std::int32_t db);
// Database 8.
std::int32_t ssc_kelim_mom_set_with_ow(const ProtobufCMessage *record, std::int64_t ow);
// Database 8; also QX_FAILED for a null record. Never logs.
std::int32_t ssc_kelim_mom_del(const ProtobufCMessage *record);
// The same in any database.
std::int32_t ssc_kelim_mom_del_in(const ProtobufCMessage *record, std::int32_t db);
// Database 8, 100 ms; also QX_FAILED for a null record.
std::int32_t ssc_kelim_mom_expire(const ProtobufCMessage *record);
// Database 8: cancels a pending expiry; also QX_FAILED for a null record.
std::int32_t ssc_kelim_mom_del_expire(const ProtobufCMessage *record);
// Database 8: calls `cb` with `arg` on every object of the record's type; never logs.
std::int32_t ssc_kelim_mom_scan(const ProtobufCMessage *record, qx_mom_scan_cb cb, void *arg);
// Completion callback of an expiry; does nothing. 0.
int ssc_kelim_null_cb();

// Deletes the flow records that are still under expiry and carry the tag; `vsd_id` only shows in the log.
std::int32_t ssc_sdn_db_expire_del_all_with_ow(std::uint32_t vsd_id, std::int64_t ow);
