// Programs distinct flows into any OpenFlow 1.3 switch and measures until the answers are in. It knows nothing of this project,
// so that two switches are measured by the same yardstick.
//
//   of_load PORT MODE ARGUMENTS...         the modes are in the table below; without arguments it prints them
//
// Prints one JSON object. Exit status 1, with one line about the cause, when the switch answers with an error, late, wrongly or
// not at all, or does not hold the expected flows.
#include <hiredis/hiredis.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "of_client.h"

namespace of_load {
namespace {

using std::chrono::microseconds, std::chrono::milliseconds;

constexpr std::uint32_t kParts = 8;  // parts in which the open mods are sent, each followed by a barrier
constexpr std::uint32_t kFloodFirst = 4'000'000, kQuietFirst = 8'000'000, kSingleFirst = 12'000'000;  // used by no other load
constexpr int kCrowd = 254;  // connections; the quiet one is the 255th
constexpr std::size_t kOpenBarriers = 1000;

std::uint16_t g_port;
std::mt19937 g_random{std::random_device{}()};

// The arguments behind the mode on the command line.
class Arguments {
 public:
  explicit Arguments(std::span<char *> given) : given_(given) {}
  std::uint32_t number(std::size_t i) const {
    char *end = nullptr;
    const unsigned long value = std::strtoul(text(i), &end, 10);
    if (end == text(i) || *end != '\0' || value > 100'000'000) die("\"%s\" is not a number up to 100 million", text(i));
    return static_cast<std::uint32_t>(value);
  }
  std::uint32_t above_zero(std::size_t i) const {
    if (number(i) == 0) die("argument %zu is 0", i + 1);
    return number(i);
  }
  const char *text(std::size_t i) const { return given_[i]; }
  std::size_t size() const { return given_.size(); }

 private:
  std::span<char *> given_;
};

using Values = std::vector<std::pair<std::string, double>>;

void print(const Values &values) {
  std::printf("{\"mode\":\"%s\"", g_mode);
  for (const auto &[name, value] : values) std::printf(",\"%s\":%.9g", name.c_str(), value);
  std::printf("}\n");
}

// The number of values and their distribution, in seconds.
Values spread(const std::string &what, std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const auto at = [&](double q) {
    return values[std::min(values.size() - 1, static_cast<std::size_t>(q * static_cast<double>(values.size())))];
  };
  return {{what + "_n", static_cast<double>(values.size())},
          {what + "_p50_s", at(0.5)},
          {what + "_p99_s", at(0.99)},
          {what + "_max_s", values.back()}};
}

// Waits for a random time up to `most`, so that a measurement does not fall into step with a period of the switch.
void pause(microseconds most) {
  if (most.count() > 0) std::this_thread::sleep_for(microseconds(g_random() % static_cast<std::uint64_t>(most.count())));
}

void expect(Client &client, std::uint64_t flows) {
  const std::uint64_t found = client.count();
  if (found != flows)
    die("the switch holds %llu flows instead of %llu", static_cast<unsigned long long>(found),
        static_cast<unsigned long long>(flows));
}

double seconds_until_answered(Client &client) {
  const auto start = Clock::now();
  client.wait();
  return seconds_since(start);
}

// Keeps up to `open` mods open, in parts that each end with a barrier. `mod` appends one; false when none is left.
template <typename Mod>
void keep_open(Client &client, std::uint32_t open, Mod mod) {
  const std::uint32_t part = std::max<std::uint32_t>(1, open / kParts);
  bool more = true;
  while (more || client.unanswered() > 0) {
    while (more && client.unanswered() < kParts) {
      for (std::uint32_t i = 0; i < part && more; ++i) more = mod();
      client.barrier();
    }
    client.turn();
  }
}

void remove(Client &client, std::uint32_t first, std::uint32_t n) {
  std::uint32_t i = 0;
  keep_open(client, 1000, [&] {
    if (i < n) client.remove(first + i);
    return i++ < n;
  });
}

// Over a table of n flows, alternates passes of `pass` adds and of as many strict deletes of the same flows, and continues with
// the next flows. With short passes most adds are deleted before the switch can have answered for them.
struct Churn {
  std::uint32_t first, n, pass, open;

  std::uint32_t flow(std::uint64_t mod) const {
    return first + static_cast<std::uint32_t>((mod / pass / 2 * pass + mod % pass) % n);
  }

  // Ends after a pass once `over` is true; after a pass of adds if the flows are to stay. Returns the number of mods.
  template <typename Over>
  std::uint64_t run(Client &client, bool leave, Over over) const {
    std::uint64_t mods = 0;
    keep_open(client, open, [&] {
      const bool adding = mods / pass % 2 == 0;
      if (mods > 0 && mods % pass == 0 && adding != leave && over()) return false;
      adding ? client.add(flow(mods)) : client.remove(flow(mods));
      ++mods;
      return true;
    });
    return mods;
  }
};

void burst(Client &client, const Arguments &given) {
  const std::uint32_t n = given.above_zero(0);
  const std::uint64_t before = client.count();
  for (std::uint32_t i = 0; i < n; ++i) client.add(i);
  client.barrier();
  pause(milliseconds(100));
  const double seconds = seconds_until_answered(client);
  expect(client, before + n);
  print({{"n", n}, {"seconds", seconds}});
}

void fill(Client &client, const Arguments &given) {
  const std::uint32_t n = given.above_zero(0), open = given.above_zero(1);
  const std::uint64_t before = client.count();
  const auto start = Clock::now();
  std::uint32_t i = 0;
  keep_open(client, open, [&] {
    if (i < n) client.add(i);
    return i++ < n;
  });
  const double seconds = seconds_since(start), longest = client.longest_wait();
  expect(client, before + n);
  print({{"n", n}, {"seconds", seconds}, {"longest_wait_s", longest}});
}

void churn(Client &client, const Arguments &given) {
  const std::uint32_t n = given.above_zero(0), seconds = given.above_zero(2), pass = given.size() > 3 ? given.above_zero(3) : n;
  if (n % pass != 0) die("passes of %u do not fit into a table of %u", pass, n);
  const std::uint64_t before = client.count();
  const Churn load{0, n, pass, given.above_zero(1)};
  const auto start = Clock::now();
  const std::uint64_t mods = load.run(client, true, [&] { return seconds_since(start) >= seconds; });
  const double taken = seconds_since(start), longest = client.longest_wait();
  expect(client, before + pass);
  remove(client, load.flow(mods - pass), pass);
  expect(client, before);
  print({{"mods", static_cast<double>(mods)}, {"seconds", taken}, {"longest_wait_s", longest}});
}

// A channel of a Redis server.
class Channel {
 public:
  Channel(const char *socket, const char *name) : context_(redisConnectUnix(socket), redisFree) {
    if (!context_ || context_->err != 0) die("cannot connect to the Redis server");
    redisAppendCommand(context_.get(), "SUBSCRIBE %s", name);
    wait();
  }
  void wait() {
    void *message = nullptr;
    if (redisGetReply(context_.get(), &message) != REDIS_OK) die("the Redis server closed the connection");
    freeReplyObject(message);
  }

 private:
  std::unique_ptr<redisContext, decltype(&redisFree)> context_;
};

void latency(Client &client, const Arguments &given) {
  const std::uint32_t samples = given.above_zero(0);
  const milliseconds gap(given.number(1));
  std::unique_ptr<Channel> channel;
  if (given.size() > 3) channel = std::make_unique<Channel>(given.text(2), given.text(3));
  const std::uint64_t before = client.count();
  std::vector<double> values;
  for (std::uint32_t i = 0; i < samples; ++i) {
    pause(gap);
    client.add(kSingleFirst + i), client.barrier();
    if (channel) client.send_all(), channel->wait();
    values.push_back(seconds_until_answered(client));
  }
  expect(client, before + samples);
  remove(client, kSingleFirst, samples);
  expect(client, before);
  print(spread("add", values));
}

void dump(Client &client, const Arguments &given) {
  const std::uint32_t n = given.number(0), samples = given.above_zero(1);
  std::vector<double> values;
  for (std::uint32_t i = 0; i < samples; ++i) {
    pause(milliseconds(100));
    const auto start = Clock::now();
    const std::uint64_t found = client.dump();
    values.push_back(seconds_since(start));
    if (found != n) die("the statistics show %llu flows instead of %u", static_cast<unsigned long long>(found), n);
  }
  print(spread("dump", values));
}

void delete_all(Client &client, const Arguments &given) {
  const std::uint32_t n = given.number(0);
  expect(client, n);
  client.remove_all(), client.barrier();
  const double seconds = seconds_until_answered(client);
  expect(client, 0);
  print({{"n", n}, {"seconds", seconds}});
}

// Work of the flooding side until `over`, on its own connections; returns the number of mods, barriers, bytes or requests that
// were processed.
using Over = std::function<bool()>;

std::uint64_t flood_nothing(const Over &over) {
  while (!over()) std::this_thread::sleep_for(milliseconds(5));
  return 1;
}

std::uint64_t flood_churn(const Over &over) {
  Client client(g_port);
  return Churn{kFloodFirst, 600, 600, 20'000}.run(client, false, over);
}

std::uint64_t flood_barriers(const Over &over) {
  Client client(g_port);
  std::uint64_t barriers = 0;
  for (; !over(); client.turn())
    for (; client.unanswered() < kOpenBarriers; ++barriers) client.barrier();
  client.wait();
  return barriers;
}

std::uint64_t flood_bytes(const Over &over) {
  Client client(g_port);
  client.send_single_bytes();
  Churn{kFloodFirst, 600, 600, 800}.run(client, false, over);
  return client.bytes_sent();
}

// Every connection always has an add, a delete and a barrier open.
std::uint64_t flood_crowd(const Over &over) {
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < kCrowd; ++i) clients.push_back(std::make_unique<Client>(g_port));
  std::uint64_t requests = 0;
  while (!over()) {
    for (std::uint32_t i = 0; i < kCrowd; ++i) {
      Client &client = *clients[i];
      client.add(kFloodFirst + i), client.remove(kFloodFirst + i), client.barrier();
      client.send_all();
    }
    for (const auto &client : clients) client->wait(), ++requests;
  }
  return requests;
}

struct Flood {
  std::string_view name;
  std::uint64_t (*run)(const Over &over);
};
constexpr std::array kFloods = {Flood{"nothing", flood_nothing}, Flood{"churn", flood_churn}, Flood{"barriers", flood_barriers},
                                Flood{"bytes", flood_bytes}, Flood{"crowd", flood_crowd}};

void quiet(Client &client, const Arguments &given) {
  const auto flood = std::find_if(kFloods.begin(), kFloods.end(), [&](const Flood &f) { return f.name == given.text(0); });
  if (flood == kFloods.end()) die("unknown flood \"%s\"", given.text(0));
  const std::uint32_t seconds = given.above_zero(1);
  const std::uint64_t before = client.count();
  std::atomic<bool> over = false;
  std::uint64_t done = 0;
  std::thread loud([&] { done = flood->run([&] { return over.load(); }); });
  std::vector<double> adds, echos;
  const auto start = Clock::now();
  for (std::uint32_t i = 0; seconds_since(start) < seconds; ++i) {
    pause(milliseconds(20));
    client.add(kQuietFirst + i), client.barrier();
    adds.push_back(seconds_until_answered(client));
    client.echo();
    echos.push_back(seconds_until_answered(client));
  }
  over = true;
  loud.join();
  expect(client, before + adds.size());
  remove(client, kQuietFirst, static_cast<std::uint32_t>(adds.size()));
  expect(client, before);
  if (done == 0) die("nothing of the flood of %s was processed", given.text(0));
  Values values = spread("add", adds), echo = spread("echo", echos);
  values.insert(values.end(), echo.begin(), echo.end());
  values.push_back({"flood", static_cast<double>(done)});
  print(values);
}

struct Mode {
  const char *name, *arguments;
  std::size_t least;  // least number of arguments
  void (*run)(Client &, const Arguments &);
  const char *does;
};
constexpr Mode kModes[] = {
    {"burst", "N", 1, burst, "N adds and a barrier, sent as fast as the switch accepts them; the flows stay"},
    {"fill", "N OPEN", 2, fill, "N adds, at most OPEN of them open; the flows stay"},
    {"churn", "N OPEN SECONDS [PASS]", 3, churn,
     "passes of PASS adds and of as many strict deletes in turn, over a table of N flows, at most OPEN mods open"},
    {"latency", "SAMPLES GAP [SOCKET CHANNEL]", 2, latency,
     "one add and a barrier, with random gaps of up to GAP ms; with a channel of a Redis server, the time since the first "
     "message\n"
     "          there: since the switch began to work on the flow, without the wait before"},
    {"dump", "N SAMPLES", 2, dump, "the statistics of all flows, N of them, until the last part"},
    {"delete-all", "N", 1, delete_all, "one delete of all flows, N of them, and a barrier"},
    {"quiet", "FLOOD SECONDS", 2, quiet,
     "one add and a barrier, and an echo, every 10 ms on one connection while others flood the switch with\n"
     "          nothing, churn, barriers, bytes (a segment each) or a crowd (254 connections, each with mods open)"},
};

int usage() {
  std::fprintf(stderr, "usage: of_load PORT MODE ARGUMENTS...\n");
  for (const Mode &mode : kModes) std::fprintf(stderr, "  %s %s\n          %s\n", mode.name, mode.arguments, mode.does);
  return 2;
}

int run(std::span<char *> given) {
  const auto named = [&](const Mode &mode) { return given.size() > 1 && std::string_view(mode.name) == given[1]; };
  const auto mode = std::find_if(std::begin(kModes), std::end(kModes), named);
  if (mode == std::end(kModes) || given.size() - 2 < mode->least) return usage();
  g_mode = mode->name;
  g_port = static_cast<std::uint16_t>(Arguments(given).number(0));
  Client client(g_port);
  mode->run(client, Arguments(given.subspan(2)));
  return 0;
}

}  // namespace
}  // namespace of_load

int main(int argc, char **argv) {
  return of_load::run(std::span(argv, static_cast<std::size_t>(argc)).subspan(1));
}
