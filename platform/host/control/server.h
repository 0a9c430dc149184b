// A server of lines over a unix socket: each request line gets one answer line, or one answer and then a stream of lines. It does
// not interpret them. Loop's thread.
#pragma once

#include <event2/bufferevent.h>
#include <event2/listener.h>
#include <sys/types.h>

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/base/timer.h"

namespace host::control {

class LineServer {
 public:
  static constexpr std::size_t kLongestLine = 64 << 10;
  static constexpr std::size_t kMostClients = 32;
  static constexpr std::size_t kMostUnread = 1 << 20;  // bytes of a stream that its reader may leave unread

  // Sends another line to a client with a live stream. `line` makes it, but is not called while the client leaves too much
  // unread: the line is then lost and counted.
  using Push = std::function<void(const std::function<std::string()> &line)>;
  struct Reply {
    std::string line;
    // Kept until the client disconnects; null without a stream. With one, further requests are not read.
    std::shared_ptr<void> stream;
  };
  // By the credentials of its socket: the process's user or root, otherwise a member of the socket's group.
  enum class Access { owner, group };
  // The contents of the lines, without line ends.
  struct Words {
    // The answer to a line. It must not call `push` itself.
    std::function<Reply(const std::string &line, Access access, const Push &push)> answer;
    // The answer to a line that is too long.
    std::function<std::string(const std::string &why)> refuse;
    // The line to a client beyond the limit.
    std::function<std::string(const std::string &why)> turn_away;
    // The line that tells a stream's reader, once it reads again, how many lines it missed.
    std::function<std::string(std::size_t lines)> missed;
  };

  // With a group the socket is open to its members too (mode 0660), otherwise to its owner alone (mode 0600).
  LineServer(Words words, std::optional<gid_t> group);
  ~LineServer();
  LineServer(const LineServer &) = delete;
  LineServer &operator=(const LineServer &) = delete;

  // Listens on `path`, replacing a socket that is no longer served, and again when the file disappears. Returns "" or the error.
  std::string listen(const std::string &path);

 private:
  struct Client;
  struct ListenerDeleter {
    void operator()(evconnlistener *l) const { evconnlistener_free(l); }
  };

  void look_after_socket();
  void accept(int fd);
  void serve(Client &client);
  void answer(Client &client, const std::string &line);
  void push(Client &client, const std::function<std::string()> &line);
  void close(Client &client);

  Words words_;
  const std::optional<gid_t> group_;
  std::string path_;
  std::list<Client> clients_;
  std::unique_ptr<evconnlistener, ListenerDeleter> listener_;
  Timer look_{[this] { look_after_socket(); }};
  bool lost_ = false;  // the socket's file is missing, and that has been logged
  Timer listen_again_{[this] { evconnlistener_enable(listener_.get()); }};
};

}  // namespace host::control
