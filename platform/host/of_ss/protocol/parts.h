// Multipart replies (OpenFlow 1.3.5, 7.3.5), written part by part. Openflow thread.
#pragma once

#include <optional>

#include "host/of_ss/net/reply.h"
#include "host/of_ss/wire/multipart.h"

namespace host::of_ss {

// A part is closed once it is longer than this many bytes; no entry is longer than the rest of 64 KB.
inline constexpr std::size_t kFullPart = 60'000;

// A reply of any length, sent in parts below 64 KB that end between entries. It uses `buffer` for its whole life.
class Parts {
 public:
  Parts(std::vector<std::byte> &buffer, Connection &connection, Bytes request)
      : buffer_(buffer), connection_(connection), type_(be16(request, 8)), xid_(be32(request, kOfXid)) {
    begin();
  }
  // `onf_type` is the type of a kExperimenterMultipart of the Open Networking Foundation.
  Parts(std::vector<std::byte> &buffer, Connection &connection, MultipartType type, std::uint32_t xid, std::uint32_t onf_type = 0)
      : buffer_(buffer), connection_(connection), type_(type), xid_(xid), onf_type_(onf_type) {
    begin();
  }
  // To be called before each entry.
  Writer &entry() {
    if (buffer_.size() > kFullPart) {
      send(kMore);
      begin();
    }
    return reply_->out;
  }
  bool empty() const { return buffer_.size() == begin_; }
  bool full() const { return buffer_.size() > kFullPart; }
  void send(std::uint16_t flags) {
    reply_->out.patch16(10, flags);
    reply_->send(connection_);
  }
  void end() { send(0); }

 private:
  void begin() {
    reply_.emplace(buffer_, kMultipartReply, xid_);
    reply_->out.u16(type_);
    reply_->out.zeros(6);
    if (onf_type_) {
      reply_->out.u32(kOnfExperimenter);
      reply_->out.u32(onf_type_);
    }
    begin_ = buffer_.size();
  }
  std::vector<std::byte> &buffer_;
  Connection &connection_;
  const std::uint16_t type_;
  const std::uint32_t xid_, onf_type_ = 0;
  std::size_t begin_ = 0;  // of the entries
  std::optional<Reply> reply_;
};

}  // namespace host::of_ss
