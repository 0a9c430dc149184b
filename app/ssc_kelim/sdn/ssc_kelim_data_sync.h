// Data synchronisation: the controller side replays its flows and meters, and flows that are not replayed are removed.
//
// At the start every flow and meter record gets a short expiry. Flows that are written again survive with their tag; the rest of
// a kind is deleted by tag once the kind's queued work has drained. Its state is in ssc_kelim_ds_stage.h.
//
// Thread: main SDN thread.
#pragma once

#include <cstdint>

struct libss_pthrd_hdl;

// The handlers of the start and of the end signal; their nodes carry no data.
void ssc_sdn_ds_recv_start_handler(libss_pthrd_hdl *hdl);
void ssc_sdn_ds_recv_end_handler(libss_pthrd_hdl *hdl);

// A queued flow of `kind` has progressed: marks its queue node as set and, when the kind's work has drained, cleans the kind up.
// Does nothing outside a synchronisation or for a finished kind.
void ssc_sdn_update_ds_node_and_check(std::uint64_t msg_id, std::uint32_t kind);

// Abandons a synchronisation in progress because everything is being deleted.
void ssc_sdn_abandon_data_sync();
