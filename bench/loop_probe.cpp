// Measures from outside how long a process's main loop stalls: sends its control socket a cheap request every 2 ms and takes the
// longest round trip as the longest pause. A pause may appear up to 2 ms too short. The share of the machine's scheduler shows in
// how late the probe itself wakes up, and in a probe of the idle process.
//
//   loop_probe SOCKET SECONDS    SOCKET is RUN_DIR/ssc_kelim.ctl; SIGTERM ends it early
//
// Prints one JSON object. Exit status 1 when the process does not answer, or not within a minute.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "host/control/client.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kEvery{2};
constexpr auto kRequest = R"({"call":"list"})";

volatile sig_atomic_t g_over = 0;

[[noreturn]] void die(const std::string &what) {
  std::fprintf(stderr, "loop_probe: %s\n", what.c_str());
  std::exit(1);
}

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double round_trip(host::control::Client &client) {
  std::string answer;
  const auto start = Clock::now();
  const std::string why = client.request(kRequest, &answer, std::chrono::minutes(1));
  if (!why.empty()) die(why);
  if (!answer.starts_with(R"({"status":0)")) die("the process answers " + answer);
  return seconds_since(start);
}

// Sleeps until the next request; returns how late this process woke up.
double sleep() {
  const auto start = Clock::now();
  std::this_thread::sleep_for(kEvery);
  return seconds_since(start) - std::chrono::duration<double>(kEvery).count();
}

}  // namespace

int main(int argc, char **argv) {
  ::signal(SIGTERM, [](int) { g_over = 1; });
  if (argc != 3) die("usage: loop_probe SOCKET SECONDS");
  const double limit = std::atof(argv[2]);
  if (limit <= 0) die("SECONDS must be a number above 0");
  host::control::Client client;
  if (const std::string why = client.connect(argv[1]); !why.empty()) die(why);
  std::vector<double> values;
  double late = 0;
  const auto start = Clock::now();
  while (g_over == 0 && seconds_since(start) < limit) {
    values.push_back(round_trip(client));
    late = std::max(late, sleep());
  }
  if (values.empty()) die("ended before the first request");
  std::sort(values.begin(), values.end());
  std::printf("{\"asked\":%zu,\"p50_s\":%.6f,\"p99_s\":%.6f,\"max_s\":%.6f,\"late_max_s\":%.6f}\n", values.size(),
              values[values.size() / 2], values[values.size() * 99 / 100], values.back(), late);
  return 0;
}
