// The action lists of flows in the plane's memory: chains of steps. Flows with equal lists share one.
//
// Steps that a list leaves are reused only after a grace period, like the places of flows (flow_table.h). Lists that an earlier
// service has left in the memory stay until drop_inherited(), so that its flows can be taken over as they are.
//
// Thread: one at a time; readers need no lock.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "programmer/linux/memory.h"

namespace programmer::dataplane {

class ActionLists {
 public:
  // `steps` holds DP_MAX_STEPS and must outlive this object. `in_force` are the lists that flows of an earlier service refer to.
  ActionLists(dp_step *steps, const std::vector<std::uint32_t> &in_force);

  // The place of the first step, + 1, of a list that one more flow uses; `next` of the steps is ignored. 0: no room. Each use is
  // paired with one release.
  std::uint32_t use(std::span<const dp_step> list);
  void release(std::uint32_t first);
  void drop_inherited();

  // As in FlowTable.
  bool begin_grace();
  void end_grace();

  std::uint32_t size() const { return static_cast<std::uint32_t>(known_.size()); }

 private:
  struct Known {
    std::uint32_t first = 0;
    std::uint32_t flows = 0;
    bool inherited = false;
  };
  using Lists = std::map<std::string, Known>;  // by content

  void inherit(std::uint32_t first, std::vector<bool> &taken);
  std::uint32_t write(std::span<const dp_step> list);
  void forget_unused(Lists::iterator list);

  dp_step *steps_;
  Lists known_;
  std::unordered_map<std::uint32_t, Lists::iterator> by_first_;
  std::vector<std::uint32_t> free_, retired_, resting_;  // steps' places: reusable, left since the grace period began, before it
};

}  // namespace programmer::dataplane
