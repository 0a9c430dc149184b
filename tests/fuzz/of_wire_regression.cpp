// Fixed inputs of the OpenFlow agent's fuzzer, run by every build: whole messages, cut ones, and ones with single bytes changed.
#include <gtest/gtest.h>

#include "support/of_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace {

using namespace of_wire;

void run(std::uint8_t reader, const Message &bytes) {
  const Message input = Message{std::byte{reader}} + bytes;
  EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(input.data()), input.size()), 0);
}

// Cut at every length, and with every byte changed to a few values.
void run_around(std::uint8_t reader, const Message &whole) {
  run(reader, whole);
  for (std::size_t length = 0; length < whole.size(); ++length)
    run(reader, Message(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
  for (std::size_t at = 0; at < whole.size(); ++at)
    for (const int change : {0x01, 0x10, 0x80, 0xff}) {
      Message bytes = whole;
      bytes[at] ^= std::byte(change);
      run(reader, bytes);
    }
}

Message everything() {
  FlowMod f;
  f.fields = hex(
      "80000004 00000001 8000070c 010203000000 ffffff000000 80000d04 1060 1ff0 80000a0286dd 800014013a 80003a0187"
      "80003520 20010db8000000000000000000000000 ffffffff000000000000000000000000 80004f04 0001 0003 ffff0208 004b454c 00000003");
  f.instructions = apply(hex("0019 0010 80000606 010203040506 0000 0015 0008 00000001")) + hex("0005 0008 00000000") +
                   instruction(3, hex("0019 0010 80000c02 1005 000000000000") + output(0xfffffffd));
  return flow_mod(f);
}

TEST(OfWireFuzz, FlowMods) {
  run_around(0, everything());
  run_around(0, flow_mod(ipv4_flow(1)));
  run(0, Message(65534, std::byte{0xff}));
  run(0, Message(65534, std::byte{0}));
}

TEST(OfWireFuzz, StoredFlows) {
  run_around(
      1, hex("0a00 0400 5800 0000 2900000000000000 7700000000000000 6400 0000 00 01 02 00 00000000 3c00 0000"
             "0100 1000 04000080 01000000 0402ffff 03000000 00000000 10000000 00000000 0000 1000 02000000 ffff 000000000000"));
}

TEST(OfWireFuzz, MetersFiltersAndPacketOuts) {
  run_around(
      2, hex("041d0030 00000001 0000 0001 00000005 0001 0010 00000064 00000000 00000000 0002 0010 00000064 00000000 01 000000"));
  run_around(3, hex("1100 0400 2000 0000 0000 0100 05000000 0100 1000 64000000 00000000 00000000"));
  run_around(4, hex("01") + match(hex("80000004 00000001 80000a020800 80001908 0a000000 ff000000")));
  run_around(5, output(2) + hex("0019 0010 80000606 010203040506 0000"));
}

}  // namespace
