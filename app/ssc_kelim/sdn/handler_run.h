// The pattern of the handlers: they own the data of their node, time their work and release the data after it.
//
// Thread: main SDN thread.
#pragma once

#include <memory>

#include "kelim/common/kelim_debug.h"
#include "libss_pthrd.h"
#include "ssc_kelim/sdn/flow_members.h"
#include "ssc_kelim/sdn/ssc_kelim_init.h"

namespace handler_run {

struct free_job {
  template <typename Job>
  void operator()(Job *job) const {
    ssc_sdn_free(job->msg);
    ssc_sdn_free(job);
  }
};
// What a handler gets: a job with its message, or a plain copy of the message.
using flow_job = std::unique_ptr<ssc_sdn_flow_job, free_job>;
using meter_job = std::unique_ptr<ssc_sdn_meter_job, free_job>;
using message = flow_members::sdn_ptr<void>;

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
