// A message to a controller under construction. Openflow thread.
#pragma once

#include <cstdint>
#include <vector>

#include "host/of_ss/net/connection.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

// The header is written at once, into the cleared `buffer`; the rest is put into `out`.
class Reply {
 public:
  Reply(std::vector<std::byte> &buffer, OfType type, std::uint32_t xid) : buffer_(buffer), out(buffer) {
    buffer_.clear();
    out.u8(kVersion);
    out.u8(type);
    out.u16(0);
    out.u32(xid);
  }
  void send(Connection &connection) { connection.send(finish()); }
  // The finished bytes, which may be sent more than once.
  Bytes finish() {
    out.patch16(kOfLength, buffer_.size());
    return buffer_;
  }

 private:
  std::vector<std::byte> &buffer_;

 public:
  Writer out;
};

}  // namespace host::of_ss
