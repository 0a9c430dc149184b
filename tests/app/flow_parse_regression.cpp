// Whole flows, and shapes that once were or could be trouble.
#include "support/flow_bytes.h"
#include "support/regression.h"

namespace {

using namespace flow_bytes;

TEST(FlowParseFuzz, FixedInputs) {
  testing::internal::CaptureStdout();
  const Bytes whole =
      flow_mod({.match = field(0x80000004, le(3u)) + field(0x8000070c, Bytes(12)) + field(0x80003520, Bytes(32)) +
                         field(0x80004f04, Bytes(4)) + field(0xffff0204, le(3u)),
                .actions = set_field(0x80000606, Bytes(6)) + set_queue(9) + action(65535, Bytes(4)) + output(0xfffffffb)});
  run_around(whole);
  // A match that claims the largest length there is, in a message that ends with it, and in a short one.
  for (Bytes claims : {flow_mod({.match = Bytes(0xff00), .actions = {}}), whole}) {
    put16(claims, 42, 0xffff);
    run(claims);
  }
  // Action lists of lengths that only make sense as signed numbers, and actions of every short length, and the longest.
  for (const std::int64_t listed : {std::int64_t{0x7fffffff}, std::int64_t{0x80000000}, std::int64_t{0xffffffff}})
    run(flow_mod({.match = {}, .actions = output(2), .actions_len = listed}));
  for (const std::uint16_t len : {1, 2, 3, 4, 5, 0xfff8, 0xffff})
    for (const std::uint16_t type : {0, 21, 25}) run(flow_mod({.match = {}, .actions = action(type, Bytes(8), len)}));
  run(Bytes(65535, std::byte{0}));
  std::fflush(stdout);
  testing::internal::GetCapturedStdout();
}

}  // namespace
