// The connection to a running process over its control socket (host/control/control.h). Failures are exceptions that carry
// kelimctl's exit status.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "host/control/client.h"

namespace kelimctl {

using Json = nlohmann::ordered_json;

enum ExitStatus { kDone = 0, kFailed = 1, kUsage = 2, kNoProcess = 3, kCannotTell = 4 };

struct Problem : std::runtime_error {
  Problem(ExitStatus exit_status, const std::string &text) : std::runtime_error(text), status(exit_status) {}
  ExitStatus status;
};

class Link {
 public:
  // Connects at the first request.
  Link(std::string run_dir, std::string process) : run_dir_(std::move(run_dir)), process_(std::move(process)) {}

  // The answer to {"call": ...}. Throws a Problem with status 2 for a call that the process rejects as wrong, with status 1 for
  // one that it cannot carry out now.
  Json request(const Json &call);
  // The data of one view.
  Json view(const std::string &name, const Json &args = Json::object());
  // Passes every line of a feed to `each`, until that returns false or the process ends.
  void watch(const std::string &name, const Json &args, const std::function<bool(const Json &line)> &each);

 private:
  void connect();
  Json parse(const std::string &line) const;

  std::string run_dir_;
  std::string process_;
  host::control::Client client_;
};

}  // namespace kelimctl
