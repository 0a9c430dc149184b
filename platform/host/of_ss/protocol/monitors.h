// Flow monitors (ONF extension 187 to OpenFlow 1.3): a controller selects flows and is told of every change to them.
//
// An update is sent with the change, before the answer to a later barrier. When a peer does not read, updates pause: only
// deletions are sent, and once it has read, the flows added or changed meanwhile. These are found by index and creation time, so
// that a pause takes no memory. Openflow thread only.
#pragma once

#include <cstdint>
#include <vector>

#include "host/of_ss/desired/flows.h"
#include "host/of_ss/net/session.h"
#include "host/of_ss/wire/wire.h"

namespace host::of_ss {

class Switch;
class Connection;

class Monitors {
 public:
  explicit Monitors(Switch &sw) : sw_(sw) {}

  // Sets up the monitors of an experimenter multipart request, all or none, and answers it.
  Verdict request(Connection &connection, Bytes message);
  // True if the message is such a request.
  static bool is_request(Bytes message);
  // Carries out a message of the extension, an experimenter message of at least 16 bytes.
  Verdict cancel(Connection &connection, Bytes message);
  static bool is_cancel(Bytes message);

  // Tells every connection that monitors the flow, at once. A connection whose output is full may end inside the call.
  void flow_changed(const FlowEntry &flow, const FlowChange &change);

  // Continue the outstanding updates of one connection, as far as its peer reads, or of all connections.
  void go_on(Connection &connection);
  void go_on();
  // Drops the monitors of connections that have ended.
  void sweep();

 private:
  Verdict set_up(Connection &connection, Bytes message);
  std::size_t count() const;
  Watcher *watcher(std::uint64_t generation) const;
  void tell(Connection &connection, const FlowEntry &flow, const FlowChange &change);
  bool is_to_wait(Connection &connection, const FlowEntry &flow, FlowEvent event);
  void send_update(Connection &connection, const FlowEntry &flow, const FlowChange &change, std::uint16_t flags);
  void abbreviate(Connection &connection, const Author &author);
  void notify(Connection &connection, std::uint32_t type);
  template <typename Put>
  bool walk(Connection &connection, std::uint32_t xid, std::uint32_t &cursor, bool is_reply, Put &&put);
  bool send_initial(Connection &connection, Watcher &watcher);
  bool send_changed(Connection &connection, Watcher &watcher);

  Switch &sw_;
  std::vector<std::uint64_t> watching_;  // generations of the connections that have monitors
};

}  // namespace host::of_ss
