// A TCP segment of two, with every action that there is.
#include "support/flow_bytes.h"
#include "support/regression.h"

namespace {

using namespace flow_bytes;

Bytes about(std::uint16_t segment) {
  return le(std::uint64_t{0x17}) + le(std::uint32_t{1}) + le(std::uint32_t{0}) + le(segment) + hex("0760 0081") + Bytes(10);
}

TEST(PacketFuzz, FixedInputs) {
  const Bytes actions =
      hex("1900100006060080 0200000000770000 1900100006080080 0200000000660000 1900100001100080 2e00000000000000"
          "1500080003000000 0000100002000000 ffff000000000000 00001000f8ffffff ffff000000000000 00001000f9ffffff ffff000000000000"
          "00001000fcffffff ffff000000000000 00001000fdffffff ffff000000000000 19001000020c0080 0700000000000000");
  const Bytes tcp = hex("020000000002 020000000001 0800 4500003c 00010000 400666b3 0a000001 0a000002") +
                    hex("03e80050 00000001 00000000 50022000 14310000") + Bytes(20);
  const Bytes v6 =
      hex("020000000002 020000000001 8100 0007 86dd 60000000 000d1140") + Bytes(32) + hex("03e80035 000d001e 68656c6c6f");
  for (const Bytes &frame : {tcp, v6})
    for (const std::uint16_t segment : {0, 8})
      run_around(about(segment) + le(static_cast<std::uint16_t>(actions.size())) + actions + frame);
}

}  // namespace
