#include "host/mom/redis/sentinel.h"

#include <utility>

namespace host::mom {

namespace {

constexpr std::chrono::seconds kPatience{1};  // the longest wait for one sentinel

}  // namespace

MasterSearch::MasterSearch(RedisEndpoint &endpoint, std::function<void(const std::string &)> done)
    : endpoint_(endpoint),
      done_(std::move(done)),
      pipe_(asked_, kPatience, [this](const std::string &why) { next(why); }),
      patience_([this] { next("no answer in time"); }) {}

void MasterSearch::start() {
  failed_ = 0;
  ask();
}

void MasterSearch::cancel() {
  patience_.cancel();
  pipe_.close();
}

void MasterSearch::ask() {
  asked_ = endpoint_.sentinels[at_];
  if (const std::string why = pipe_.open(); !why.empty()) return next(why);
  patience_.arm(kPatience);
  pipe_.send(master_question(endpoint_), [this](const redisReply *reply) {
    if (!reply) return;
    const std::string why = take_master(reply, &endpoint_);
    why.empty() ? finish("") : next(why);
  });
}

void MasterSearch::next(const std::string &why) {
  cancel();
  at_ = (at_ + 1) % endpoint_.sentinels.size();
  if (++failed_ < endpoint_.sentinels.size()) return ask();
  finish("no sentinel names a master '" + endpoint_.master + "': " + why);
}

void MasterSearch::finish(const std::string &why) {
  cancel();
  done_(why);
}

}  // namespace host::mom
