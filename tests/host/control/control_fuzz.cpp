// Any lines where operators ask: each is answered with one line, a JSON object that says whether the request was carried out and,
// where it was not, why.
#include <nlohmann/json.hpp>
#include <sstream>

#include "host/control/client.h"
#include "host/control/control.h"
#include "host/control/server.h"
#include "ssat.h"
#include "support/fuzz_runtime.h"

namespace {

using namespace std::chrono_literals;

int handle(const std::int64_t *, std::uint32_t) {
  return 0;
}

std::string serve() {
  require(ssat_lib_init(runtime(), "m") == 0);
  require(ssat_reg_mod_cmd("m", "two", "hex=%x, switch=%d(0/1)", handle) == 0);
  host::control::register_feed("ticks", [](const nlohmann::json &, host::control::Push) { return std::make_shared<int>(); });
  return host::control::socket_path(run_dir(), "fuzz");
}

void ask(host::control::Client &client, const std::string &line) {
  require(client.send(line + "\n").empty());
  std::string text;
  require(host::run_until([&] { return client.receive(&text, 0ms).empty(); }, kPatience));
  const nlohmann::json answer = nlohmann::json::parse(text);
  const int status = answer.at("status").get<int>();
  require(status == 0 || (status <= 2 && !answer.at("error").get<std::string>().empty()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static const std::string path = serve();
  std::istringstream lines(std::string(data, data + size));
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line.size() > host::control::LineServer::kLongestLine) continue;
    host::control::Client client;  // of its own: after a request for a feed nothing else is read
    require(client.connect(path).empty());
    ask(client, line);
  }
  return 0;
}
