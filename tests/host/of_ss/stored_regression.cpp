// Records of an earlier life, each as {kind, length, bytes}; a flow's key is its place among them.
#include "support/flow_bytes.h"
#include "support/regression.h"

namespace {

using namespace flow_bytes;

enum Kind { kFlow, kMeter, kStatus, kAsked, kTold };

Bytes record(Kind kind, const Bytes &bytes) {
  return Bytes{std::byte(kind)} + le(static_cast<std::uint16_t>(bytes.size())) + bytes;
}

// A flow of the service chain with `slots` more in its match, which is asked for as the first record.
Bytes stored_flow(std::uint64_t index, const Bytes &slots = {}) {
  const Bytes match = hex("0402ffff 03000000") + slots;
  const Bytes rest = le(index) + hex("7700000000000000 6400 0000 00 01 02 00 00000000 3c00 0000 0100") +
                     le(static_cast<std::uint16_t>(match.size())) + match + Bytes(4) +
                     hex("10000000 00000000 0000 1000 02000000 ffff 000000000000");
  const Bytes message = hex("0a00 0400") + le(static_cast<std::uint16_t>(8 + rest.size())) + Bytes(2) + rest;
  return record(kFlow, message) + record(kAsked, le(std::uint64_t{1}));
}

Bytes stored_meter(std::uint32_t id, std::size_t bands) {
  Bytes out = hex("1100 0400") + le(static_cast<std::uint16_t>(16 + 16 * bands)) + hex("0000 0000 0100") + le(id);
  while (bands--) out = out + hex("0100 1000 64000000 00000000 00000000");
  return record(kMeter, out);
}

TEST(StoredFuzz, FixedInputs) {
  run_around(stored_flow(0x29) + stored_meter(5, 2) + record(kStatus, le(std::uint64_t{0x30})));
  run(stored_flow(0x29, hex("04000080 01000000 08060080 01020304 05060000")));
  run(stored_flow(0x29, Bytes(1024)));
  for (const std::uint32_t id : {0u, 5u, 0xffffffff}) run(stored_meter(id, 4094));
  for (const std::uint64_t index : {~std::uint64_t{0}, ~std::uint64_t{1}}) {
    run(stored_flow(index));
    for (const Kind kind : {kStatus, kAsked, kTold}) run(record(kind, le(index)) + record(kStatus, le(std::uint64_t{5})));
  }
}

}  // namespace
