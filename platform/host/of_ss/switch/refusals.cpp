#include "host/of_ss/switch/refusals.h"

#include <algorithm>

#include "host/log/log.h"
#include "host/of_ss/wire/message_names.h"

namespace host::of_ss {
namespace {

constexpr std::size_t kKept = 200, kBytesKept = 512;  // bytes of each request

}  // namespace

void Refusals::refuse(Connection &connection, const Verdict &verdict, Bytes request, std::int64_t now_ns) {
  connection.send_error(*verdict.error, request);
  ++total_;
  ++counts_[verdict.error];
  const Bytes kept = request.first(std::min(request.size(), kBytesKept));
  latest_.push_back({now_ns, connection.peer().name, be32(request, kOfXid), verdict, {kept.begin(), kept.end()}});
  if (latest_.size() > kKept) latest_.pop_front();
  if (line_.due(now_ns))
    log::warn("{} of {} refused with {}: {}: {} ({} refused since the last such line)", message_name(be8(request, kOfType)),
              connection.peer().name, verdict.error->name, verdict.what, verdict.why, line_.count());
}

}  // namespace host::of_ss
