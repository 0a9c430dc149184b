#include "kelimctl/link.h"

namespace kelimctl {

void Link::connect() {
  if (client_.fd() >= 0) return;
  const std::string why = client_.connect(host::control::socket_path(run_dir_, process_));
  if (why.empty()) return;
  throw Problem(
      kNoProcess,
      "No " + process_ + " answers (" + why +
          ").\nStart it with `make run`, or with `systemctl start ssc_kelim` where it is installed; a run directory other "
          "than " +
          run_dir_ + " is given by --run-dir or KELIM_RUN_DIR.");
}

Json Link::request(const Json &call) {
  connect();
  std::string line;
  if (const std::string why = client_.request(call.dump(), &line); !why.empty()) throw Problem(kFailed, process_ + ": " + why);
  Json answer = parse(line);
  if (const int status = answer.value("status", 1); status != 0)
    throw Problem(status == kUsage ? kUsage : kFailed, answer.value("error", "refused without a reason"));
  return answer;
}

Json Link::parse(const std::string &line) const {
  Json answer = Json::parse(line, nullptr, false);
  if (answer.is_discarded()) throw Problem(kFailed, process_ + " gave an answer that is not JSON");
  return answer;
}

void Link::watch(const std::string &name, const Json &args, const std::function<bool(const Json &line)> &each) {
  request({{"call", "watch"}, {"name", name}, {"args", args}});
  std::string line;
  do {
    if (const std::string why = client_.receive(&line); !why.empty()) throw Problem(kFailed, process_ + ": " + why);
  } while (each(parse(line)));
}

Json Link::view(const std::string &name, const Json &args) {
  return request({{"call", "view"}, {"name", name}, {"args", args}}).value("data", Json());
}

}  // namespace kelimctl
