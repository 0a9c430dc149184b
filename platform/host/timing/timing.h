// Shows the published timing records (ut_ss_fp_appmng.h) through the control service.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace host::timing {

// [{"name":..., "count":..., "avg_us":..., "max_us":..., "last_us":..., "total_us":...}, ...] in order of publication. Any
// thread.
nlohmann::json view();

}  // namespace host::timing
