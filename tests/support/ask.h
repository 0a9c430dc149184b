// Asks over the control socket, as kelimctl does for operators.
#pragma once

#include <future>
#include <nlohmann/json.hpp>

#include "host/base/loop.h"
#include "host/control/client.h"
#include "host/control/control.h"
#include "support/runtime_fixture.h"

// The answer of the process with that name; the loop must turn on another thread.
inline nlohmann::json ask(const std::string &run_dir, const std::string &process, const nlohmann::json &request) {
  std::string line;
  host::control::Client client;
  EXPECT_EQ(client.connect(host::control::socket_path(run_dir, process)), "");
  EXPECT_EQ(client.request(request.dump(), &line), "");
  return nlohmann::json::parse(line);
}

// Runs `talk` on a separate thread while the loop turns on this one.
template <typename Talk>
auto beside_the_loop(Talk talk) {
  auto result = std::async(std::launch::async, std::move(talk));
  EXPECT_TRUE(
      host::run_until([&] { return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }, 2 * kPatience));
  return result.get();
}
