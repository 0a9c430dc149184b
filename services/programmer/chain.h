// The service-chain application: answers a parse_flow record with the access-control entries that lead the flow through a chain
// of service nodes, one entry a node. An entry sends the flow to its node by the destination MAC address; each later entry
// matches the packets that return from the previous node by their source MAC address. It keeps no state: everything it wrote is
// in the database.
#pragma once

#include "programmer/catch_up.h"
#include "programmer/context.h"
#include "s_policy_kelim.pb-c.h"

namespace programmer {

class Chain {
 public:
  explicit Chain(Context &context);

  // A notification of `parse_flow`, decoded.
  void notified(const qx_obj &msg);
  std::uint64_t translated() const { return translated_; }

 private:
  void written(const qx_obj &msg);
  void deleted(const qx_obj &msg);
  // False when the database did not accept the answer.
  bool answer(const SPolicyKelim__ParseFlow &flow);
  bool resynchronise();

  Context &context_;
  CatchUp catch_up_;
  std::uint64_t translated_ = 0;
};

}  // namespace programmer
