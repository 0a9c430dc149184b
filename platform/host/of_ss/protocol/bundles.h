// Bundles (ONF extension 230 to OpenFlow 1.3; OpenFlow 1.4, 7.3.9): a controller collects flow-mods on the switch and commits
// them, all or none.
//
// A commit waits until the daemon has answered for everything before it. Then its flow-mods are carried out as a transaction of
// the flows, in which replaced and deleted flows stay installed; once all new flows are installed, the old ones are deleted, and
// if one fails, the new ones. The controller gets the error of the failed flow-mod, and OFPBFC_MSG_FAILED for the commit.
// Meanwhile no other request changes flows or meters. Openflow thread only.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "host/of_ss/desired/in_flight_log.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

class Switch;
class Connection;

class Bundles {
 public:
  explicit Bundles(Switch &sw) : sw_(sw) {}

  // Carries out a message of the extension, an experimenter message of at least 16 bytes, or returns why not.
  Verdict handle(Connection &connection, Bytes message);
  // True if handle would begin a commit.
  static bool commits(Bytes message);

  // The message carried by an add to a bundle; empty for other messages. Either may be cut short.
  static Bytes carried_by(Bytes message);

  // Continues a commit as far as the daemon keeps up.
  void advance();
  bool is_committing() const { return commit_.has_value(); }

  // Drops the bundles of a connection that has ended.
  void forget(std::uint64_t generation);
  // To be called about every second: discards bundles that have not been used for too long.
  void expire(std::int64_t now_ns);

 private:
  struct Bundle {
    std::uint16_t flags;
    std::uint32_t xid;  // of the opening request
    std::int64_t used_ns;
    bool closed = false;
    bool spoiled = false;  // a message for it was refused, so that it cannot be committed
    std::vector<std::byte> messages = {};
  };
  using Key = std::pair<std::uint64_t, std::uint32_t>;  // the connection's generation, the bundle's number
  struct Commit {
    Bundle bundle;
    std::uint32_t number;
    Origin origin;
    bool (Bundles::*stage)() = &Bundles::settle;
    std::size_t next = 0;  // offset in the messages
    bool keep = true;
  };
  struct Control {
    std::uint16_t type;
    Verdict (Bundles::*handle)(Connection &, Bytes);
  };

  static Key key_of(const Connection &connection, Bytes message);
  Verdict control(Connection &connection, Bytes message);
  Verdict add(Connection &connection, Bytes message);
  Verdict put(Bytes message, Bundle &bundle);
  Verdict create(Connection &connection, Bytes message);
  Verdict open(Connection &connection, Bytes message);
  Verdict close(Connection &connection, Bytes message);
  Verdict discard(Connection &connection, Bytes message);
  Verdict commit(Connection &connection, Bytes message);
  void reply(Connection &connection, Bytes request);
  void erase(std::map<Key, Bundle>::iterator at);

  // Stages of a commit; true when the next one may begin.
  bool settle();
  bool carry_out();
  bool wait();
  bool finish();
  void answer();

  Switch &sw_;
  std::map<Key, Bundle> open_;
  std::size_t bytes_ = 0;  // of all messages in open bundles
  std::optional<Commit> commit_;
};

}  // namespace host::of_ss
