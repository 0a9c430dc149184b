// The time that work takes, as it is published.
#include "host/timing/timing.h"

#include <nlohmann/json.hpp>

#include "support/runtime_fixture.h"
#include "ut_ss_fp_appmng.h"

namespace {

using namespace std::chrono_literals;

using Timing = RuntimeTest;

TEST_F(Timing, CountsTimeBetweenStartAndStop) {
  static ut_ss_fp_appmng_time record;
  record = {};
  host::clock::stop();
  ut_ss_fp_appmng_time_stop(&record, 0);
  EXPECT_EQ(record.count, 0u) << "a stop without a start";
  ut_ss_fp_appmng_time_start(&record);
  host::clock::warp(100ms);
  for (const auto spent : {5ms, 1ms}) {
    ut_ss_fp_appmng_time_start(&record);  // the first time in place of the one that is under way
    host::clock::warp(spent);
    ut_ss_fp_appmng_time_stop(&record, 0);
    ut_ss_fp_appmng_time_stop(&record, 0);
  }
  ut_ss_fp_appmng_time_publish(&record, "SDN_ADD_FLOW");
  ut_ss_fp_appmng_time_publish(&record, "SDN_ADD_FLOW");
  EXPECT_EQ(host::timing::view(),
            nlohmann::json::parse(
                R"([{"name":"SDN_ADD_FLOW","count":2,"avg_us":3000.0,"max_us":5000.0,"last_us":1000.0,"total_us":6000.0}])"));
}

}  // namespace
