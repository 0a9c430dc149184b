// A controller that has shaken hands with the agent, and what it asks of it: flows, their statistics, their errors.
#pragma once

#include <string>
#include <vector>

#include "component/of_world.h"
#include "s_policy_kelim.pb-c.h"

namespace of_world {

inline std::uint64_t index_of(const Message &southbound) {
  return southbound::get<std::uint64_t>(southbound.data(), southbound::kFlowIndex);
}

inline Message dump_request(std::uint32_t xid, std::uint8_t table = 0xff, const Message &fields = {},
                            std::uint32_t out_port = 0xffffffff, std::uint64_t cookie = 0, std::uint64_t mask = 0,
                            std::uint16_t type = 1) {
  Message body;
  put(body, type, 2);
  put(body, 0, 6);
  put(body, table, 1);
  put(body, 0, 3);
  put(body, out_port, 4);
  put(body, 0xffffffff, 4);
  put(body, 0, 4);
  put(body, cookie, 8);
  put(body, mask, 8);
  return message(18, xid, body + match(fields));
}

// One entry of a FLOW reply.
struct Shown {
  std::uint8_t table;
  std::uint32_t age_s;
  std::uint16_t priority, idle, hard, flags;
  std::uint64_t cookie, packets, bytes;
  std::string rest;  // match and instructions
};

class FlowsTest : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    if (starts_at_once()) come_up(c);
  }
  // Every entry of a FLOW reply, however many parts it has.
  std::vector<Shown> dump(const Message &request = dump_request(0xd0)) {
    c.forget();
    c.send(request);
    const auto parts = [this] { return c.of_type(19); };
    EXPECT_TRUE(until([&] { return !parts().empty() && !(get(parts().back(), 10, 2) & 1); }));
    std::vector<Shown> shown;
    for (const Message &part : parts()) {
      EXPECT_LE(part.size(), 65535u);
      for (std::size_t at = 16; at < part.size(); at += get(part, at, 2)) shown.push_back(read(part, at));
    }
    return shown;
  }
  static Shown read(const Message &m, std::size_t at) {
    return {static_cast<std::uint8_t>(get(m, at + 2, 1)),
            static_cast<std::uint32_t>(get(m, at + 4, 4)),
            static_cast<std::uint16_t>(get(m, at + 12, 2)),
            static_cast<std::uint16_t>(get(m, at + 14, 2)),
            static_cast<std::uint16_t>(get(m, at + 16, 2)),
            static_cast<std::uint16_t>(get(m, at + 18, 2)),
            get(m, at + 24, 8),
            get(m, at + 32, 8),
            get(m, at + 40, 8),
            to_hex(std::span(m).subspan(at + 48, get(m, at, 2) - 48))};
  }
  // Sends and waits until all is taken and answered.
  void apply(const Message &request) {
    ASSERT_TRUE(c.send(request));
    ASSERT_TRUE(c.settle());
  }
  // Sends while the daemon answers no barrier, and waits until the agent has handed it over.
  void hand_over(const Message &request, std::size_t adds) {
    daemon.hold_barriers(true);
    ASSERT_TRUE(c.send(request));
    ASSERT_TRUE(until([&] { return daemon.flows(true).size() == adds; }));
  }
  std::vector<std::string> errors() {
    std::vector<std::string> found;
    for (const Message &m : c.of_type(1)) found.push_back(error_of(m));
    return found;
  }
  using Strings = std::vector<std::string>;
  Controller c;
};

}  // namespace of_world
