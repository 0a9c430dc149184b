// Handles flow records: passes requests to the target and writes its answers to the database. Loop's thread.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "programmer/catch_up.h"
#include "programmer/context.h"
#include "programmer/idle_watch.h"
#include "programmer/known_flows.h"
#include "programmer/target.h"
#include "programmer/timer.h"
#include "s_policy_kelim.pb-c.h"

namespace programmer {

class FlowRecords final : public FlowSink {
 public:
  explicit FlowRecords(Context &context);

  // Both are created after this object, because the target answers to it and the watch reads its table. They must outlive the
  // notifications.
  void set_target(Target &target, IdleWatch &idle) {
    target_ = &target;
    idle_ = &idle;
  }

  // To be called with each notification of type `flow`, packed.
  void notified(const qx_obj &msg);
  void flow_answered(const FlowRequest &request, Outcome outcome) override;

  KnownFlows &table() { return table_; }
  std::uint64_t answered(Outcome outcome) const { return answered_[static_cast<std::size_t>(outcome)]; }
  std::uint64_t untouched() const { return untouched_; }
  std::uint64_t removed() const { return removed_; }
  std::size_t owed() const { return owed_.size(); }

 private:
  // An answer that the database has yet to accept. No status means that the flow has been removed and its records are to be
  // deleted.
  struct Answer {
    FlowKey key;
    std::uint64_t uuid;
    SPolicyKelim__StatusE status;
    bool counted = false;  // the flow has a counter record to delete
  };

  void requested(Bytes record);
  void removed(Bytes record);
  void doubted(Bytes record);
  void remove(std::uint32_t slot);
  void settle(KnownFlow &entry, std::uint64_t uuid, SPolicyKelim__StatusE status);
  void tell(const Answer &answer);
  bool write(const Answer &answer);
  void pay();

  bool resynchronise();
  bool read_answers();
  bool read_counters();
  bool read_flows();

  Context &context_;
  Target *target_ = nullptr;
  IdleWatch *idle_ = nullptr;
  KnownFlows table_;
  std::deque<Answer> owed_;
  Timer pay_timer_;
  CatchUp catch_up_;
  bool reading_ = false;  // the requests handled now come from a scan
  std::uint64_t answered_[3] = {};
  std::uint64_t untouched_ = 0;  // rewrites answered without touching the target
  std::uint64_t removed_ = 0;
};

}  // namespace programmer
