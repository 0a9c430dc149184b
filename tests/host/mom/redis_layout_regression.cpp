// Notifications, values and names of what has expired; the first byte for the type, in the order of their names, the second one
// for what it is.
#include "support/flow_bytes.h"
#include "support/regression.h"

namespace {

using namespace flow_bytes;

// A field of a record, by its number, with the bytes of a text, of bytes or of a sub-message.
Bytes part(unsigned number, const Bytes &bytes) {
  Bytes out = {std::byte(number << 3 | 2)};
  for (std::size_t left = bytes.size(); left >= 0x80 || (out.push_back(std::byte(left)), false); left >>= 7)
    out.push_back(std::byte(left | 0x80));
  return out + bytes;
}

Bytes notification(std::string_view kind_and_member, const Bytes &packed) {
  return text(kind_and_member) + Bytes(1) + le(static_cast<std::uint32_t>(packed.size())) + packed;
}

TEST(RedisLayoutFuzz, FixedInputs) {
  const Bytes flow = part(5, hex("0811")) + part(8, part(1, Bytes(6))), meter = part(5, hex("0807"));
  run_around(hex("0100") + notification("W17:0", flow) + notification("D17:0", {}) + notification("D17:0", Bytes(8) + flow));
  run_around(hex("0600") + notification("C7:0", meter) + notification("R7:0", meter));
  run_around(hex("0900") + notification("P", {}) + notification("P", hex("0801")));
  run_around(hex("0000") + notification("W%C3%A9:x", part(5, part(1, text("\xc3\xa9:x")))));
  run_around(hex("0101") + Bytes(8) + flow);
  // Negative and greatest numbers, a flag, text, an empty element, and more than the buffer of a short record.
  const Bytes most = hex("ffffffffffffffffff01");
  const Bytes ace = hex("08") + most + part(2, text("x")) + part(3, hex("880201"));
  run_around(hex("0101") + Bytes(8) + flow + part(9, hex("50") + most) + part(11, ace) + part(11, {}));
  run(hex("0101") + Bytes(8) + part(5, hex("0811")) + part(8, Bytes(9000)) + part(11, ace));
  // With what a later version of the record might have, more of it than fits the rest.
  run(hex("0101") + Bytes(8) + flow + part(15, Bytes(6000)));
  run(hex("0101") + Bytes(8) + flow + hex("800000"));  // a field numbered 0
  run_around(hex("0601") + Bytes(8) + meter);
  run_around(hex("0102") + text("s_policy_kelim.flow:17:0"));
  run(hex("0002") + text("s_cluster.reg_pkt_info:a") + Bytes(1) + text("b"));  // a key's text cannot hold that
  run_around(hex("0002") + text("s_cluster.reg_pkt_info:a%2Fb"));
}

}  // namespace
