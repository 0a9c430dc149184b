// Measures the programming service: its own work for one flow and the bytes that a flow takes, and the same with the answer's
// write.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "host/base/loop.h"
#include "host/config/config.h"
#include "programmer/flows.h"
#include "programmer/sim_target.h"
#include "qx_mom.h"

namespace {

using namespace std::chrono_literals;

class World {
 public:
  explicit World(const char *script) {
    host::config_reset();
    char name[] = "/tmp/kelim_bench_XXXXXX";
    dir_ = ::mkdtemp(name);
    host::config_set("run_dir", dir_);
    host::config_set("control.enabled", "false");
    host::config_set("programmer.embedded", "false");
    host::config_set("mom.high_water_writes", "4000000");
    global_ = qx_global_init("programmer_bench", nullptr);
    qx_mom_client_connect_sync(global_, QX_MOM_UDP_DB);
    qx_mom_client_connect(
        global_, QX_MOM_UDP_DB, [](void *, const char *) { return 0; }, nullptr);
    host::run_until([] { return false; }, 5ms);
    context_.global = global_;
    options_.size = UINT32_MAX;
    options_.script = script;
    flows = std::make_unique<programmer::FlowRecords>(context_);
    target_ = std::make_unique<programmer::SimTarget>(global_->master, options_, *flows);
    idle_ = std::make_unique<programmer::IdleWatch>(context_, flows->table(), *target_, false);
    flows->set_target(*target_, *idle_);
  }
  ~World() {
    qx_global_finish(global_);
    host::config_reset();
    [[maybe_unused]] const int rv = std::system(("rm -rf " + dir_).c_str());
  }

  std::unique_ptr<programmer::FlowRecords> flows;

 private:
  std::string dir_;
  qx_global *global_;
  programmer::Context context_;
  programmer::Options options_;
  std::unique_ptr<programmer::SimTarget> target_;
  std::unique_ptr<programmer::IdleWatch> idle_;
};

// A packed flow record of about 290 bytes, as the daemon writes it; the index is always 8 bytes long on the wire.
std::vector<std::uint8_t> packed_flow(std::uint64_t number) {
  SPolicyKelim__FlowKey key = S_POLICY_KELIM__FLOW_KEY__INIT;
  key.flow_index = (std::uint64_t{1} << 50) + number;
  std::vector<std::uint8_t> data(120, 0x5a);
  SPolicyKelim__FlowField field = S_POLICY_KELIM__FLOW_FIELD__INIT;
  field.flow_field_bitmap = 0x4821;
  field.in_port_ifx = 1001;
  field.etype = 0x800;
  field.etype_mask = 0xffff;
  SPolicyKelim__FlowAce ace = S_POLICY_KELIM__FLOW_ACE__INIT;
  std::string app(80, 'a');
  ace.sn = UINT64_MAX;
  ace.acl_app_type = app.data();
  SPolicyKelim__FlowAce *aces[] = {&ace};
  SPolicyKelim__Flow flow = S_POLICY_KELIM__FLOW__INIT;
  flow.index = &key;
  flow.flow_data = {data.size(), data.data()};
  flow.flow_field = &field;
  flow.n_ace = 1;
  flow.ace = aces;
  flow.req_uuid = (std::uint64_t{1} << 40) + number;
  std::vector<std::uint8_t> packed(s_policy_kelim__flow__get_packed_size(&flow));
  s_policy_kelim__flow__pack(&flow, packed.data());
  return packed;
}

constexpr std::size_t kFlows = 100'000;

void requests(benchmark::State &state, const char *script) {
  std::vector<std::vector<std::uint8_t>> records;
  for (std::size_t n = 0; n < kFlows; ++n) records.push_back(packed_flow(n));
  double bytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    {
      World world(script);
      const std::size_t before = mallinfo2().uordblks;
      state.ResumeTiming();
      for (const auto &record : records) {
        qx_obj msg{};
        msg.cmd = QX_MOM_CMD_SET;
        msg.packed = record.data();
        msg.packed_len = static_cast<std::uint32_t>(record.size());
        world.flows->notified(msg);
      }
      state.PauseTiming();
      bytes = static_cast<double>(mallinfo2().uordblks - before) / kFlows;
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kFlows));
  state.counters["bytes/flow"] = bytes;
  state.counters["per_flow"] = benchmark::Counter(static_cast<double>(state.iterations() * kFlows),
                                                  benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// Without the answer's write: walk over the record, table, target.
void OwnWork(benchmark::State &state) {
  requests(state, "silent=*");
}
// With the answer's write; the bytes include the stored answer and its notification.
void WithAnswer(benchmark::State &state) {
  requests(state, "");
}

BENCHMARK(OwnWork)->Unit(benchmark::kMillisecond);
BENCHMARK(WithAnswer)->Unit(benchmark::kMillisecond);

}  // namespace
