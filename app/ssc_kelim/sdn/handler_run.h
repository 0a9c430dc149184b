// The pattern shared by all handlers: each owns its node's data, times its work and then releases the data. The node itself
// belongs to the handler list.
//
// Thread: main SDN thread.
#pragma once

#include <cstdint>
#include <memory>

#include "kelim/common/kelim_debug.h"
#include "libss_pthrd.h"
#include "ssc_kelim/sdn/sdn_ptr.h"

// Data of a flow handler, which owns both blocks.
struct ssc_sdn_flow_job {
  std::uint64_t len;  // bytes of msg
  void *msg;          // the whole flow message
};

// Data of a meter handler, which owns both blocks.
struct ssc_sdn_meter_job {
  std::uint32_t len;  // bytes of msg
  void *msg;          // the whole meter message
};

// Data of the other handlers:
//   enable, disable             the message, at least 8 bytes (zero-filled)
//   barrier                     the request, at least 24 bytes (zero-filled)
//   statistics, flow-count configuration, ONC address   the message, at least as long as the fields they read
//   packet start                one byte: 1 start, 0 end
//   data-sync start and end, delete-all-flows, delete-all   null
// Their value is the virtual switch.

namespace handler_run {

struct free_job {
  template <typename Job>
  void operator()(Job *job) const {
    ssc_sdn_free(job->msg);
    ssc_sdn_free(job);
  }
};
// Handler data: a job with its message, or a plain copy of the message.
using flow_job = std::unique_ptr<ssc_sdn_flow_job, free_job>;
using meter_job = std::unique_ptr<ssc_sdn_meter_job, free_job>;
using message = sdn_ptr<void>;

// Takes the data out of the node.
template <typename Data>
Data take(libss_pthrd_hdl *hdl) {
  return Data(static_cast<typename Data::pointer>(hdl->data));
}

// Times the handler of an intake's slot from here to the end of the scope.
class timing {
 public:
  explicit timing(unsigned slot) : slot_(slot + SDN_TIME_QUEUE) { ssc_sdn_time_start(slot_); }
  ~timing() { ssc_sdn_time_stop(slot_); }
  timing(const timing &) = delete;
  timing &operator=(const timing &) = delete;

 private:
  unsigned slot_;
};

// Runs `work` on a pointer to the node's data, timed; the data is released before the clock stops.
template <typename Data, typename Work>
auto run(libss_pthrd_hdl *hdl, unsigned slot, Work work) {
  const timing timed(slot);
  const Data data = take<Data>(hdl);
  return work(data.get());
}

}  // namespace handler_run
