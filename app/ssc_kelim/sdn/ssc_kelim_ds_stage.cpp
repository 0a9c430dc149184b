#include "ssc_kelim/sdn/ssc_kelim_ds_stage.h"

#include "kelim/common/kelim_debug.h"

namespace {

constexpr ssc_ds_stage kIdle = {.in_progress = 0, .kind1_finished = 1, .kind0_finished = 1, .end_received = 0, .vsd_id = 0};

}  // namespace

ssc_ds_stage g_ssc_ds_stage = kIdle;

void ssc_sdn_ds_stage_init_or_check(std::uint8_t init) {
  ssc_sdn_assert_main_thread();
  if (init) {
    g_ssc_ds_stage = kIdle;
  } else if (g_ssc_ds_stage.kind1_finished == 1 && g_ssc_ds_stage.kind0_finished == 1) {
    g_ssc_ds_stage.in_progress = 0;
    g_ssc_ds_stage.end_received = 0;
  }
}
