// Frames in user space: turns a packet that the program has handed over into whole frames, and applies the plane's rewrites. Pure
// functions over bytes, any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "programmer/linux/memory.h"
#include "record_reader.h"

namespace programmer::dataplane {

using records::Bytes;
using Frame = std::vector<std::uint8_t>;
inline constexpr std::uint32_t kEthLen = DP_ETH_LEN;

// Calls `give` with each frame that the packet would be on the wire: cut into its segments, with its VLAN tag in place, and with
// the checksum completed if the kernel had left that to a network card. `bytes` are those that the program has copied; a packet
// whose headers contradict each other is passed on as it is. `room` is reused as the memory of each frame.
void unfold(const dp_punted &about, Bytes bytes, Frame &room, const std::function<void(Bytes)> &give);

// Applies the rewrites of `actions`. False if the frame lacks a header to be set; the frame may then be partly rewritten.
bool rewrite(Frame &frame, const dp_actions &actions);

// Carries out one step other than an output or a queue. False likewise.
bool rewrite(Frame &frame, const dp_step &step);

// The frame's key, as the program would extract it. `in_port` is OpenFlow's number.
dp_key key_of(Bytes frame, std::uint32_t in_port, dp_headers &headers);

}  // namespace programmer::dataplane
