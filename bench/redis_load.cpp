// Measures a Redis server's limit for a request and its answer: a writer and an answerer on bare hiredis, in separate processes,
// do what the daemon and the programming service do for every flow: SET and PUBLISH of a record, and the same back. It uses
// nothing of this project, so that the whole path can be compared with it.
//
//   redis_load SOCKET burst N [ROUNDS]     N round trips, 256 of them outstanding
//   redis_load SOCKET latency SAMPLES      one round trip at a time
//
// Prints one JSON object.
#include <hiredis/hiredis.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Context = std::unique_ptr<redisContext, decltype(&redisFree)>;

constexpr std::size_t kRequestBytes = 260;  // a stored flow with one entry
constexpr std::size_t kAnswerBytes = 20;    // its status
constexpr std::uint32_t kOutstanding = 256;

[[noreturn]] void die(const char *what, const char *why = "") {
  std::fprintf(stderr, "redis_load: %s%s%s\n", what, *why ? ": " : "", why);
  std::exit(1);
}

// A connection for writes and one for the notifications of one channel.
class Client {
 public:
  Client(const char *socket, const char *channel) : writes_(connect(socket)), notices_(connect(socket)) {
    redisReply *reply = static_cast<redisReply *>(redisCommand(notices_.get(), "SUBSCRIBE %s", channel));
    if (!reply) die("cannot subscribe");
    freeReplyObject(reply);
    for (const Context *context : {&writes_, &notices_}) (*context)->flags &= ~REDIS_BLOCK;
  }

  // Stores the value under the key and publishes it on the channel; sent with the next wait().
  void put(const char *channel, const char *key, std::size_t key_size, const char *value, std::size_t size) {
    redisAppendCommand(writes_.get(), "SET %b %b", key, key_size, value, size);
    redisAppendCommand(writes_.get(), "PUBLISH %s %b", channel, value, size);
  }

  // Sends pending requests, waits for input and calls `notified` with every notification's value.
  template <typename Notified>
  void wait(Notified notified) {
    int sent = 1;
    if (redisBufferWrite(writes_.get(), &sent) != REDIS_OK) die("writing", writes_->errstr);
    pollfd fds[2] = {{writes_->fd, static_cast<short>(POLLIN | (sent ? 0 : POLLOUT)), 0}, {notices_->fd, POLLIN, 0}};
    if (::poll(fds, 2, 30'000) <= 0) die("no input for 30 s");
    if ((fds[0].revents & POLLIN) != 0) take(writes_.get(), [](const redisReply &) {});
    if ((fds[1].revents & POLLIN) != 0) {
      take(notices_.get(), [&](const redisReply &reply) {
        if (reply.elements == 3) notified(std::string_view(reply.element[2]->str, reply.element[2]->len));
      });
    }
  }

 private:
  static Context connect(const char *socket) {
    Context context(redisConnectUnix(socket), redisFree);
    if (!context || context->err != 0) die(socket, context ? context->errstr : "no memory");
    return context;
  }

  template <typename Use>
  static void take(redisContext *context, Use use) {
    if (redisBufferRead(context) != REDIS_OK) die("reading", context->errstr);
    for (void *reply = nullptr; redisGetReplyFromReader(context, &reply) == REDIS_OK && reply; reply = nullptr) {
      use(*static_cast<redisReply *>(reply));
      freeReplyObject(reply);
    }
  }

  Context writes_, notices_;
};

std::size_t name(char (&key)[40], const char *kind, std::uint32_t number) {
  return static_cast<std::size_t>(std::snprintf(key, sizeof key, "%s:%u:0", kind, number));
}

// The first bytes of every value hold its number.
std::uint32_t number_of(std::string_view value) {
  std::uint32_t number = 0;
  std::memcpy(&number, value.data(), sizeof number);
  return number;
}

[[noreturn]] void answer_for_ever(const char *socket) {
  Client client(socket, "bare_request");
  char key[40], value[kAnswerBytes] = {};
  for (;;) {
    client.wait([&](std::string_view request) {
      const std::uint32_t number = number_of(request);
      std::memcpy(value, &number, sizeof number);
      client.put("bare_answer", key, name(key, "bare_answer", number), value, sizeof value);
    });
  }
}

double seconds_of(Client &client, std::uint32_t count, std::uint32_t window) {
  char key[40], value[kRequestBytes] = {};
  std::uint32_t asked = 0, answered = 0;
  const auto start = Clock::now();
  while (answered < count) {
    for (; asked < count && asked - answered < window; ++asked) {
      std::memcpy(value, &asked, sizeof asked);
      client.put("bare_request", key, name(key, "bare_request", asked), value, sizeof value);
    }
    client.wait([&](std::string_view answer) { answered += number_of(answer) < count; });
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void print_sorted(const char *mode, std::uint32_t n, std::vector<double> values) {
  std::sort(values.begin(), values.end());
  std::printf("{\"mode\":\"%s\",\"n\":%u,\"runs\":%zu,\"min_s\":%.6f,\"median_s\":%.6f,\"max_s\":%.6f}\n", mode, n, values.size(),
              values.front(), values[values.size() / 2], values.back());
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 4) die("usage: redis_load SOCKET burst|latency N [ROUNDS]");
  const bool burst = std::string_view(argv[2]) == "burst";
  const auto n = static_cast<std::uint32_t>(std::atoi(argv[3]));
  const int rounds = !burst ? static_cast<int>(n) : argc > 4 ? std::atoi(argv[4]) : 5;
  if (n == 0 || rounds <= 0) die("N and ROUNDS must be numbers above 0");
  const pid_t answerer = ::fork();
  if (answerer == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    answer_for_ever(argv[1]);
  }
  Client client(argv[1], "bare_answer");
  // Requests are lost until the answerer is ready, so ask until it answers.
  bool there = false;
  while (!there) {
    client.put("bare_request", "bare_request", 12, "\xff\xff\xff\xff", 4);
    client.wait([&](std::string_view) { there = true; });
  }
  std::vector<double> values;
  for (int round = 0; round < rounds; ++round) values.push_back(seconds_of(client, burst ? n : 1, burst ? kOutstanding : 1));
  print_sorted(argv[2], n, values);
  ::kill(answerer, SIGKILL);
  ::waitpid(answerer, nullptr, 0);
  return 0;
}
