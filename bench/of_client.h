// A raw pipelining OpenFlow 1.3 client for one connection to any switch on this machine. Every request with an answer must get
// it, in order and in time, and the switch must send no error: otherwise the program ends with status 1 and one line that says
// what was wrong. One thread per client.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

namespace of_load {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

// The measured mode, for the message of die().
extern const char *g_mode;
[[noreturn]] void die(const char *format, ...) __attribute__((format(printf, 1, 2)));

inline double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

class Client {
 public:
  // Connects and goes through the handshake.
  explicit Client(std::uint16_t port);
  ~Client();
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  // These append a message; nothing is sent before turn() or wait(). The n-th flow: in_port, eth_type, ip_proto, ip_dst/32,
  // tcp_dst; one output.
  void add(std::uint32_t n);
  void remove(std::uint32_t n);
  void remove_all();
  void barrier();
  void echo();

  // Sends and receives as much as possible, and waits until either makes progress.
  void turn();
  // Runs turns until everything is sent and answered.
  void wait();
  // For a few messages: sends them and leaves the answers to a later turn.
  void send_all();

  // Reads the FLOW statistics of all tables; returns the number of entries.
  std::uint64_t dump();
  // The number of flows by the AGGREGATE statistics.
  std::uint64_t count();

  std::size_t unanswered() const { return awaited_.size(); }
  // The longest time so far from a request to its answer, in seconds.
  double longest_wait() const { return longest_; }
  // Sends each byte as a separate segment from now on.
  void send_single_bytes() { most_ = 1; }
  std::uint64_t bytes_sent() const { return bytes_sent_; }

 private:
  struct Awaited {
    std::uint8_t type;
    std::uint32_t xid;
    Clock::time_point since;
  };
  struct Refusals {
    std::uint64_t count = 0;
    std::uint16_t type = 0, code = 0;  // of the first error
    std::uint32_t xid = 0;
  };

  std::size_t begin(std::uint8_t type);
  void end(std::size_t start);
  void ask(std::uint8_t type, std::uint8_t answer);
  void await(std::uint8_t answer);
  void flow_mod(Bytes &pattern, std::uint32_t n);
  void ask_statistics(std::uint16_t type);
  void send_some();
  void receive();
  void handle(std::span<std::uint8_t> message);
  void refused(std::span<const std::uint8_t> error);
  void take_part(std::span<const std::uint8_t> reply);
  void answered(std::uint8_t type, std::uint32_t xid);
  void check_refusals() const;
  [[noreturn]] void die_late() const;

  int fd_ = -1;
  std::size_t most_ = SIZE_MAX;  // bytes per system call
  std::uint32_t xid_ = 0;        // of the latest message
  Bytes add_, remove_;           // the messages for flow 0
  Bytes out_, in_;
  std::size_t sent_ = 0;  // bytes of out_
  std::uint64_t bytes_sent_ = 0;
  std::deque<Awaited> awaited_;
  Clock::time_point progress_;  // time of the last progress
  Refusals refusals_;
  double longest_ = 0;
  std::uint64_t counted_ = 0;  // flows in the latest statistics
};

}  // namespace of_load
