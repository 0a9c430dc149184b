// Multipart messages (OpenFlow 1.3.5, 7.3.5): {header, type u16, flags u16, pad[4], body}. Openflow thread only.
#pragma once

#include <optional>

#include "host/of_ss/agent/agent.h"
#include "host/of_ss/protocol/protocol.h"

namespace host::of_ss {

inline constexpr std::size_t kBody = 16;  // where the body of a request or reply begins
inline constexpr std::size_t kFullPart =
    60'000;                                // a part is closed when it is longer than this; no entry is longer than the rest
inline constexpr std::uint16_t kMore = 1;  // OFPMPF_*

enum MultipartType : std::uint16_t {
  kDesc,
  kFlow,
  kAggregate,
  kTable,
  kPort,
  kQueue,
  kGroupStats,
  kGroupDesc,
  kGroupFeatures,
  kMeter,
  kMeterConfig,
  kMeterFeatures,
  kTableFeatures,
  kPortDesc,
  kMultipartTypes,
  kExperimenterMultipart = 0xffff
};

// A reply of any length, sent in parts below 64 KB that end between entries.
class Parts {
 public:
  Parts(Agent &agent, Connection &connection, Bytes request)
      : agent_(agent), connection_(connection), type_(be16(request, 8)), xid_(be32(request, kOfXid)) {
    begin();
  }
  // `onf_type` is the type of a kExperimenterMultipart of the Open Networking Foundation.
  Parts(Agent &agent, Connection &connection, MultipartType type, std::uint32_t xid, std::uint32_t onf_type = 0)
      : agent_(agent), connection_(connection), type_(type), xid_(xid), onf_type_(onf_type) {
    begin();
  }
  // To be called before each entry.
  Writer &entry() {
    if (agent_.scratch().size() > kFullPart) {
      send(kMore);
      begin();
    }
    return reply_->out;
  }
  bool empty() const { return agent_.scratch().size() == begin_; }
  bool full() const { return agent_.scratch().size() > kFullPart; }
  void send(std::uint16_t flags) {
    reply_->out.patch16(10, flags);
    reply_->send(connection_);
  }
  void end() { send(0); }

 private:
  void begin() {
    reply_.emplace(agent_.scratch(), kMultipartReply, xid_);
    reply_->out.u16(type_);
    reply_->out.zeros(6);
    if (onf_type_) {
      reply_->out.u32(kOnfExperimenter);
      reply_->out.u32(onf_type_);
    }
    begin_ = agent_.scratch().size();
  }
  Agent &agent_;
  Connection &connection_;
  const std::uint16_t type_;
  const std::uint32_t xid_, onf_type_ = 0;
  std::size_t begin_ = 0;  // of the entries
  std::optional<Reply> reply_;
};

}  // namespace host::of_ss
