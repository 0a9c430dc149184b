// A non-blocking socket to a Redis server, with TLS if the endpoint requires it: commands out, whole replies in. The owner
// decides how to wait for readiness. Loop's thread.
#pragma once

#include <hiredis/hiredis.h>

#include <memory>
#include <string>
#include <string_view>

#include "host/mom/redis/endpoint.h"
#include "host/tls/tls.h"

namespace host::mom {

class Stream {
 public:
  Stream() = default;
  ~Stream() { close(); }
  Stream(const Stream &) = delete;
  Stream &operator=(const Stream &) = delete;

  // Begins to connect. Returns "" or why it cannot; later failures show in step().
  std::string open(const RedisEndpoint &endpoint);
  void close();
  bool is_open() const { return fd_ >= 0; }
  int fd() const { return fd_; }

  // Appends commands in wire format to the output; step() or send() send it.
  void write(std::string_view commands) { output_.append(commands); }
  std::size_t unsent() const { return output_.size() - sent_; }

  // The events to wait for: POLLIN, and POLLOUT if there is output that the socket could accept.
  short wants() const;
  // Sends as much as the socket accepts now and receives what has arrived. False when the connection is over; error() says why.
  bool step() { return send() && receive(); }
  bool send();
  const std::string &error() const { return error_; }

  // The next complete reply received; null when there is none.
  RedisReply next();

 private:
  struct FreeReader {
    void operator()(redisReader *reader) const { redisReaderFree(reader); }
  };
  std::string start_tls(const RedisEndpoint &endpoint);
  bool receive();
  ssize_t put(std::string_view bytes);
  ssize_t get(char *into, std::size_t size);
  ssize_t outcome(int rv);
  bool failed(std::string why);

  int fd_ = -1;
  tls::Session tls_;
  std::unique_ptr<redisReader, FreeReader> reader_;
  std::string output_;
  std::size_t sent_ = 0;          // bytes of output_
  bool waits_for_input_ = false;  // TLS cannot send before it has received
  bool waits_for_output_ = false;
  std::string error_;
};

}  // namespace host::mom
