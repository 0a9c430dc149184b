// Messages of controllers, the first byte for who reads them.
#include "support/of_wire.h"
#include "support/regression.h"

namespace {

using namespace of_wire;

TEST(WireFuzz, FixedInputs) {
  FlowMod everything;
  everything.fields = hex(
      "80000004 00000001 8000070c 010203000000 ffffff000000 80000d04 1060 1ff0 80000a0286dd 800014013a 80003a0187"
      "80003520 20010db8000000000000000000000000 ffffffff000000000000000000000000 80004f04 0001 0003 ffff0208 004b454c 00000003");
  everything.instructions = apply(hex("0019 0010 80000606 010203040506 0000 0015 0008 00000001")) + hex("0005 0008 00000000") +
                            instruction(3, hex("0019 0010 80000c02 1005 000000000000") + output(0xfffffffd));
  run_around(hex("00") + flow_mod(everything));
  run_around(hex("00") + flow_mod(ipv4_flow(1)));
  run_around(
      hex("01 041d0030 00000001 0000 0001 00000005 0001 0010 00000064 00000000 00000000"
          "0002 0010 00000064 00000000 01 000000"));
  run_around(hex("02 01") + match(hex("80000004 00000001 80000a020800 80001908 0a000000 ff000000")));
  run_around(hex("03") + output(2) + hex("0019 0010 80000606 010203040506 0000"));
  FlowMod listed = ipv4_flow(1);
  listed.instructions =
      apply(output(2) + hex("0018 0008 00000000 0016 0008 00000001 0011 0008 88a80000 0016 0008 00000001") + output(1)) +
      instruction(3, output(7) + hex("0012 0008 00000000 0016 0008 00000001 0017 0008 09000000"));
  run_around(hex("80") + flow_mod(listed));
  run_around(hex("84") +
             message(15, 1, hex("0000 00 00 00000001 0028 0000 ffffffff ffffffff 00000000 0018 0008 00000000") + output(1)));
  for (const int fill : {0, 0xff}) run(hex("00") + Message(65534, std::byte(fill)));
}

}  // namespace
