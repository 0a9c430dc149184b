// Lines over a unix socket: one request a line, one answer a line, or one answer and then a stream of lines. Knows nothing of
// what they say. Loop's thread.
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
  static constexpr std::size_t kMostUnread = 1 << 20;  // bytes of a stream that its reader may leave behind

  // Sends a further line to a client whose stream lives. `line` makes it and is not called while the client leaves too much
  // unread: then the line is lost and counted.
  using Push = std::function<void(const std::function<std::string()> &line)>;
  struct Reply {
    std::string line;
    std::shared_ptr<void> stream;  // kept until the client goes, null without a stream; further requests are not read then
  };
  // By the credentials of its socket: the user of the process or root, or else somebody of the socket's group.
  enum class Asker { owner, group };
  // What the lines say, without line ends.
  struct Words {
    // The answer to a line. `push` must not be called from inside.
    std::function<Reply(const std::string &line, Asker asker, const Push &push)> answer;
    // The answer to a line that is too long.
    std::function<std::string(const std::string &why)> refuse;
    // What a client is told that comes when there are too many.
    std::function<std::string(const std::string &why)> turn_away;
    // Tells a stream's reader, once it reads again, how many lines it missed.
    std::function<std::string(std::size_t lines)> missed;
  };

  // With a group the socket is for its members too (mode 0660), otherwise for its owner alone (mode 0600).
  LineServer(Words words, std::optional<gid_t> group);
  ~LineServer();
  LineServer(const LineServer &) = delete;
  LineServer &operator=(const LineServer &) = delete;

  // Listens on `path`, in place of a socket that nobody serves any more, and again when the file has gone. "" or the
  // error.
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
  bool lost_ = false;  // the socket's file has gone, and that has been said
  Timer listen_again_{[this] { evconnlistener_enable(listener_.get()); }};
};

}  // namespace host::control
