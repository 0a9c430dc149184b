// The state of a data synchronisation, which ssc_kelim_data_sync keeps and the queue reads.
//
// Kind 0 is the flows written from flow-mods (tag 1), kind 1 those written from service-chain applications' answers (tag 2).
//
// Thread: main SDN thread.
#pragma once

#include <cstdint>

struct ssc_ds_stage {
  std::uint8_t in_progress;     // from the start until both kinds are finished
  std::uint8_t kind1_finished;  // tag 2 cleaned up
  std::uint8_t kind0_finished;  // tag 1 cleaned up
  std::uint8_t end_received;    // the end was signalled and kinds are unfinished
  std::uint32_t vsd_id;         // virtual switch of the latest end signal
};

extern ssc_ds_stage g_ssc_ds_stage;

// Non-zero `init`: back to the initial state. 0: ends the synchronisation when both kinds are finished.
void ssc_sdn_ds_stage_init_or_check(std::uint8_t init);
