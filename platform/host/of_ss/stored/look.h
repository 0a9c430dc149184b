// One comparison of the requested state with the database, in steps of a few milliseconds: there may be millions of flows, and
// the loop has other work.
//
// A look first walks over everything and keeps 16 bytes for each stored flow, each answer and each requested flow. Those that
// differ are only candidates, because flows are added and removed meanwhile. At the end both sides of every candidate are read
// again at moments without requests in flight; the ones that still differ are the differences.
//
// Loop's thread; the agent's side is read on the openflow thread, for which the loop waits.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "host/mom/store.h"
#include "host/of_ss/agent/agent.h"
#include "qx_mom.h"
#include "qx_runtime.h"

namespace host::of_ss {

struct Difference {
  enum What : std::uint8_t {
    kFlowNotStored,
    kFlowStoredOtherwise,
    kFlowNotConfirmed,
    kFlowNotAskedFor,
    kMeterNotStored,
    kMeterStoredOtherwise,
    kMeterFailed,
    kMeterNotAskedFor,
    kFlowLeftInTarget,
  };
  What what;
  std::uint64_t number;  // flow index, or meter number
  auto operator<=>(const Difference &) const = default;
};

class Look {
 public:
  Look(qx_global *global, Agent &agent) : global_(global), agent_(agent) {}

  enum class Result : std::uint8_t { unfinished, undisturbed, disturbed };
  // Runs the next step; not to be called after a result. Disturbed: a request is in flight, or one side cannot be read.
  Result step();
  // After an undisturbed look: the differences, ascending.
  std::vector<Difference> &found() { return found_; }
  // Progress in percent.
  unsigned progress() const;

 private:
  enum class Part : std::uint8_t { more, over, failed };
  // A flow as seen on one side. Stored and requested flows agree if their contents do.
  struct Observation {
    enum Side : std::uint8_t { kStored, kConfirmed, kAsked };
    std::uint64_t index;
    std::uint32_t content;  // hash of the southbound message; 0 for an answer
    Side side;
  };

  Part begin();
  Part walk_flows();
  Part walk_answers();
  Part walk_asked();
  Part compare();
  Part check();
  Part walk(const ProtobufCMessageDescriptor &type, qx_mom_scan_cb take);
  static int take_flow(const qx_obj *object, void *look);
  static int take_answer(const qx_obj *object, void *look);
  void note(std::uint64_t index, Bytes message, Observation::Side side);
  void compare_bucket(std::vector<Observation> &observations);
  bool quiet_run(const std::function<void(Agent &agent)> &work);

  qx_global *global_;
  Agent &agent_;
  std::size_t part_ = 0;
  std::size_t flows_ = 0, noted_ = 0;  // requested at the beginning; noted so far on all sides
  mom::Store::Walk walk_;
  std::uint32_t cursor_ = 0;  // in the agent's table
  // In buckets by the low bits of the index, so that each comparison step is small.
  std::array<std::vector<Observation>, 256> observations_;
  std::size_t bucket_ = 0;
  std::vector<std::uint64_t> candidates_;  // indexes; those before `checked_` have been reread
  std::size_t checked_ = 0;
  std::vector<Difference> found_;
};

}  // namespace host::of_ss
