// A private redis-server for one test, on a unix socket in a temporary directory.
#pragma once

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/runtime_fixture.h"

namespace support {

class RedisServer {
 public:
  explicit RedisServer(std::vector<std::string> options = {}) : options_(std::move(options)) { start(); }
  ~RedisServer() { kill(SIGKILL); }
  RedisServer(const RedisServer &) = delete;

  std::string socket() const { return dir_ / "redis.sock"; }
  std::string url() const { return "redis+unix:" + socket(); }

  // Starts the server, also after kill(), and waits for the answer to a PING; the test fails if there is none.
  void start() {
    std::vector<std::string> arguments = {"redis-server", "--port", "0",    "--unixsocket", socket(),    "--dir",     dir_.path(),
                                          "--save",       "",       "--hz", "100",          "--logfile", dir_ / "log"};
    arguments.insert(arguments.end(), options_.begin(), options_.end());
    std::vector<char *> argv;
    for (std::string &argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::filesystem::remove(socket());
    pid_ = ::fork();
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that aborts leaves no server behind
      ::execvp(argv[0], argv.data());
      ::_exit(127);
    }
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (command({"PING"}) == kNoAnswer) {
      const bool late = std::chrono::steady_clock::now() > deadline || ::waitpid(pid_, nullptr, WNOHANG) != 0;
      ASSERT_FALSE(late) << "redis-server does not start in " << dir_.path();
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

  // Waits for the server's end, unless the signal is SIGSTOP or SIGCONT.
  void kill(int signal) {
    if (pid_ <= 0) return;
    ::kill(pid_, signal);
    if (signal == SIGSTOP || signal == SIGCONT) return;
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
    admin_.reset();
  }

  // Runs one command, bypassing the client under test. The answer as text: strings and numbers as they are, "(nil)",
  // "(error) ...", lists in lines.
  std::string command(const std::vector<std::string> &arguments) {
    if (!admin_) admin_.reset(redisConnectUnix(socket().c_str()));
    std::vector<const char *> argv;
    std::vector<std::size_t> lengths;
    for (const std::string &argument : arguments) {
      argv.push_back(argument.data());
      lengths.push_back(argument.size());
    }
    auto *answer = redisCommandArgv(admin_.get(), static_cast<int>(argv.size()), argv.data(), lengths.data());
    const std::unique_ptr<redisReply, Free> reply(static_cast<redisReply *>(answer));
    if (!reply) admin_.reset();
    return reply ? text(reply.get()) : kNoAnswer;
  }

 private:
  static constexpr char kNoAnswer[] = "(no answer)";
  struct Free {
    void operator()(redisContext *context) const { redisFree(context); }
    void operator()(redisReply *reply) const { freeReplyObject(reply); }
  };

  static std::string text(const redisReply *reply) {
    if (reply->type == REDIS_REPLY_NIL) return "(nil)";
    if (reply->type == REDIS_REPLY_INTEGER) return std::to_string(reply->integer);
    std::string out = reply->type == REDIS_REPLY_ERROR ? "(error) " : "";
    if (reply->type != REDIS_REPLY_ARRAY) return out.append(reply->str, reply->len);
    for (std::size_t i = 0; i < reply->elements; ++i) out += (i ? "\n" : "") + text(reply->element[i]);
    return out;
  }

  TempDir dir_;
  std::vector<std::string> options_;
  pid_t pid_ = -1;
  std::unique_ptr<redisContext, Free> admin_;
};

}  // namespace support
