// Finds the master through the sentinels, asynchronously, asking one after the other until one knows. Loop's thread.
#pragma once

#include <functional>
#include <string>

#include "host/base/timer.h"
#include "host/mom/redis/pipe.h"

namespace host::mom {

class MasterSearch {
 public:
  // `done` is called with "" once `endpoint` has the master's address, or with the reason why no sentinel names one.
  MasterSearch(RedisEndpoint &endpoint, std::function<void(const std::string &)> done);

  void start();
  void cancel();

 private:
  void ask();
  void next(const std::string &why);
  void finish(const std::string &why);

  RedisEndpoint &endpoint_;
  std::function<void(const std::string &)> done_;
  RedisEndpoint asked_;  // the sentinel that is being asked
  Pipe pipe_;
  Timer patience_;
  std::size_t at_ = 0;  // index among the sentinels; the last that knew is asked first
  std::size_t failed_ = 0;
};

}  // namespace host::mom
