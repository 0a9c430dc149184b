// Runs the conformance tests on this platform's store.
#include "conformance/process.h"
#include "platform.h"

namespace mom_test {
namespace {

class TemplateProcess final : public Process {
 public:
  explicit TemplateProcess(unsigned topic_limit) {
    if (topic_limit != 0) platform::topic_limit = topic_limit;
  }
  ~TemplateProcess() override {
    qx_global_finish(global_);
    platform::topic_limit = default_limit_;
  }
  qx_global *global() override { return global_; }

 private:
  unsigned default_limit_ = platform::topic_limit;
  qx_global *global_ = qx_global_init("store_test", nullptr);
};

}  // namespace

std::vector<std::string> stores() {
  return {"Memory"};
}

std::unique_ptr<Process> start_process(const std::string &, unsigned topic_limit) {
  return std::make_unique<TemplateProcess>(topic_limit);
}

bool run_until(const std::function<bool()> &condition) {
  return platform::run_until(condition, std::chrono::minutes(1));
}

}  // namespace mom_test
