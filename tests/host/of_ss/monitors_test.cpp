// Flow monitors: who keeps a table of one's own by the updates has the table of the switch.
#include <map>
#include <random>

#include "host/of_ss/agent_world.h"

namespace {

using namespace of_world;

constexpr std::uint16_t kEverything = 0x3f, kNotOwn = 0x1f;

Message monitor_request(std::uint32_t id, std::uint16_t flags) {
  return message(18, 0x30 + id,
                 hex("ffff 0000 00000000 4f4e4600 0000074e") + be(id, flags) + hex("0004 ffffffff ff000000 0001000400000000"));
}

// What a controller knows of the flows. An entry's key is table, priority and match, its value cookie, timeouts and instructions.
struct Known {
  std::map<Message, Message> flows;
  std::string events;  // of the updates: +, -, *, an abbreviated one by its transaction

  void put(const Message &entry, std::size_t table, std::size_t priority, std::size_t cookie, std::size_t match, bool there) {
    const auto at = [&entry](std::size_t from, std::size_t n) {
      return Message(entry.begin() + static_cast<std::ptrdiff_t>(from), entry.begin() + static_cast<std::ptrdiff_t>(from + n));
    };
    const std::size_t length = (get(entry, match + 2, 2) + 7) / 8 * 8;
    const Message key = at(table, 1) + at(priority, 2) + at(match, length);
    flows.erase(key);
    if (there) flows[key] = at(cookie, 8) + at(priority + 2, 4) + at(match + length, entry.size() - match - length);
  }
  void update(const Message &entry) {
    const auto event = static_cast<std::size_t>(get(entry, 2, 2));
    events += event == 3 ? std::to_string(get(entry, 4, 4)) : std::string(1, "+-*"[event]);
    if (event != 3) put(entry, 14, 6, 16, 24, event != 1);
  }
  // Every message of the extension; "P" and "R" for a pause and its end.
  void take(const std::vector<Message> &messages) {
    for (const Message &m : messages) {
      if (get(m, 1, 1) == 4) events += "PR"[get(m, 12, 4) - 1871];
      for (std::size_t at = 24; get(m, 1, 1) == 19 && at < m.size(); at += get(m, at, 2))
        update(Message(m.begin() + static_cast<std::ptrdiff_t>(at), m.begin() + static_cast<std::ptrdiff_t>(at + get(m, at, 2))));
    }
  }
};

// The flows, the first few, of which the two know different things.
std::vector<std::string> differences(const Known &a, const Known &b) {
  std::vector<std::string> found;
  const auto text = [](const Known &known, const Message &key) {
    return known.flows.contains(key) ? to_hex(known.flows.at(key)) : "nothing";
  };
  for (const Known *known : {&a, &b})
    for (const auto &[key, value] : known->flows)
      if (text(a, key) != text(b, key) && found.size() < 5)
        found.push_back(to_hex(key) + ": " + text(a, key) + ", " + text(b, key));
  return found;
}

class FlowMonitors : public AgentTest {
 protected:
  Known shown() {
    Known switchs;
    for (const Message &entry : dump()) switchs.put(entry, 2, 12, 24, 48, true);
    return switchs;
  }
  // What has come since; everything before has been answered.
  Known heard(Known known = {}) {
    known.events.clear();
    EXPECT_TRUE(c.settle() && watching.settle());
    known.take(watching.received());
    watching.forget();
    return known;
  }
  static Message random_request(std::mt19937 &random) {
    FlowMod f = ipv4_flow(random() % 70'000);
    f.command = std::array<std::uint8_t, 8>{0, 0, 0, 0, 0, 2, 4, 3}[random() % 8];
    f.cookie = random() % 4;
    f.instructions = of_wire::apply(output(random() % 2 ? 2 : 7));
    return flow_mod(f);
  }
  Controller watching;
};

TEST_F(FlowMonitors, ShowsARefusedChangeAHardTimeoutAndOfOnesOwnTheRequest) {
  FlowMod changed = ipv4_flow(1);
  changed.hard = 10;
  apply(flow_mod(changed));
  come_up(watching);
  watching.send(monitor_request(1, kNotOwn));
  EXPECT_EQ(heard().events, "+") << "what is there";
  changed.command = 1, changed.instructions = of_wire::apply(output(7));
  hand_over(flow_mod(changed), 2);
  PlayedDaemon::fail(2, 2);
  daemon.answer_barriers();
  const Known known = heard();
  EXPECT_EQ(known.events, "**") << "the target refuses the change";
  EXPECT_EQ(output_of(known.flows.begin()->second), 2u);
  warp(11s);
  EXPECT_EQ(heard().events, "-") << "hard timeout";
  watching.send(flow_mod(ipv4_flow(3, 77)) + flow_mod(ipv4_flow(4, 78)) + flow_mod(everything()));
  EXPECT_EQ(heard().events, "77781") << "of its own only the request";
  watching.send(message(4, 9, hex("4f4e4600 0000074e 00000001")));
  EXPECT_TRUE(watching.settle());
  apply(flow_mod(ipv4_flow(5)));
  EXPECT_EQ(heard().events, "") << "cancelled";
}

// The peer reads slowly while it asks for the first flows, not at all during most of a burst, and slowly at its end.
TEST_F(FlowMonitors, WhoKeepsATableByTheUpdatesHasTheSwitchs) {
  std::mt19937 random(7);
  const auto churn = [this, &random](int requests, int read_every) {
    for (int n = 0; n < requests; n += 500) {
      Message bytes;
      for (int m = 0; m < 500; ++m) append(bytes, random_request(random));
      c.send(bytes);
      ASSERT_TRUE(c.settle());
      if (read_every && n / 500 % read_every == 0) watching.read(1 << 19);
    }
  };
  churn(60'000, 0);
  watching.connect(port, htonl(INADDR_LOOPBACK), 0, 4096);
  watching.send(hello() + monitor_request(1, kEverything));
  churn(20'000, 4);
  Known known = heard();
  EXPECT_EQ(differences(known, shown()), Strings{});
  churn(60'000, 0);
  churn(60'000, 6);
  known = heard(known);
  const auto pauses = std::ranges::count(known.events, 'P');
  EXPECT_GE(pauses, 1);
  EXPECT_EQ(std::ranges::count(known.events, 'R'), pauses);
  EXPECT_EQ(differences(known, shown()), Strings{});
}

}  // namespace
