// Removal of one flow with everything that belongs to it, of every flow or of every meter of a virtual switch.
//
// Thread: main SDN thread.
#pragma once

#include <cstdint>

// Removes the flow's records, cache node and queue node. 0 (also for an unknown flow), or an OR of failure codes.
std::int32_t ssc_sdn_del_flow_related_data(std::uint32_t vsd_id, std::uint64_t flow_index);

// Delete one record of database 4. 0, or QX_NOT_POSTED.
std::int32_t ssc_sdn_del_parse_flow(std::uint64_t flow_index, std::uint32_t vsd_id);
std::int32_t ssc_sdn_del_flow_to_sta(std::uint64_t flow_index, std::uint32_t vsd_id, std::uint32_t t_flow_type);
// Deletes both records of a service-chain flow in database 4, the second even if the first cannot be deleted. 0, or
// QX_NOT_POSTED.
std::int32_t ssc_sdn_del_app_records(std::uint64_t flow_index, std::uint32_t vsd_id);

// Deletes every flow of the virtual switch with its cache node, then empties the message queue: pending barriers are answered.
std::int32_t ssc_sdn_db_del_all_flow(std::uint32_t vsd_id);

// Deletes every meter of the virtual switch.
std::int32_t ssc_sdn_db_del_all_meter(std::uint32_t vsd_id);
