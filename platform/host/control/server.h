// Lines over a unix socket: one request a line, one answer a line. Knows nothing of what they say. Loop's thread.
#pragma once

#include <event2/bufferevent.h>
#include <event2/listener.h>

#include <functional>
#include <list>
#include <memory>
#include <string>

#include "host/runtime/timer.h"

namespace host::control {

class LineServer {
 public:
  static constexpr std::size_t kLongestLine = 64 << 10;
  static constexpr std::size_t kMostClients = 32;

  // Gives the answer to a line; both without line end.
  using Answer = std::function<std::string(const std::string &line)>;
  // The answer to what could not be taken, such as a line that is too long.
  using Refuse = std::function<std::string(const std::string &why)>;

  LineServer(Answer answer, Refuse refuse);
  ~LineServer();
  LineServer(const LineServer &) = delete;
  LineServer &operator=(const LineServer &) = delete;

  // Listens on `path` (mode 0600), in place of a socket that nobody serves any more. "" or the error.
  std::string listen(const std::string &path);

 private:
  struct Client;
  struct ListenerDeleter {
    void operator()(evconnlistener *l) const { evconnlistener_free(l); }
  };

  void accept(int fd);
  void serve(Client &client);
  void close(Client &client);

  Answer answer_;
  Refuse refuse_;
  std::string path_;
  std::list<Client> clients_;
  std::unique_ptr<evconnlistener, ListenerDeleter> listener_;
  Timer listen_again_{[this] { evconnlistener_enable(listener_.get()); }};
};

}  // namespace host::control
