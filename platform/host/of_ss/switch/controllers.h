// The controllers: their connections and roles, and the reports on them to the daemon. Openflow thread.
//
// The daemon is told each address and each interface once, however many connections use it, and whether packets may flow to a
// controller.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/log/rate_limit.h"
#include "host/of_ss/desired/southbound_client.h"
#include "host/of_ss/net/connection.h"
#include "host/of_ss/net/endpoints.h"
#include "host/of_ss/net/session.h"

namespace host::of_ss {

inline constexpr std::size_t kMaxConnections = 255;

// Reference counts by number.
class ReferenceCounts {
 public:
  // True for the first reference.
  bool add(std::uint32_t number) { return ++counts_[number] == 1; }
  // True for the last one.
  bool remove(std::uint32_t number) {
    const auto at = counts_.find(number);
    if (--at->second > 0) return false;
    counts_.erase(at);
    return true;
  }
  bool contains(std::uint32_t number) const { return counts_.contains(number); }
  std::vector<std::uint32_t> numbers() const {
    std::vector<std::uint32_t> all;
    for (const auto &[number, count] : counts_) all.push_back(number);
    return all;
  }

 private:
  std::map<std::uint32_t, std::size_t> counts_;
};

class Controllers {
 public:
  // Connections report to `events`, whose owner passes up, gone and overfull on to this object. `client` must outlive this.
  // `packets_wanted` is told whether packets may flow to the controllers.
  Controllers(ConnectionEvents &events, SouthboundClient &client, const ConnectionLimits &limits,
              std::function<void(bool wanted)> packets_wanted)
      : events_(events), client_(client), limits_(limits), packets_wanted_(std::move(packets_wanted)) {}

  // ---- connections

  // Adds a connection, or rejects it when there are too many. `dialer` is told of its end; null for an accepted one.
  void accept(BuffereventOwner bev, Peer peer, Dialer *dialer);
  void up(Connection &connection);
  void gone(Connection &connection);
  // Ends the connection with the most unsent output.
  void overfull();
  // Destroys ended connections, none of which may be on the stack.
  void reap();
  // Ends all connections of other endpoints than these.
  void close_but(const std::vector<std::string> &endpoints);
  // Drops the counts of other endpoints than these.
  void forget_traffic_but(const std::vector<std::string> &endpoints);
  // To be called about every second.
  void check(std::int64_t now_ns);

  // The connection with this generation while it is up, otherwise null.
  Connection *find(std::uint64_t generation) const;
  // The connection with this number, or null. It may have ended and not been reaped yet.
  Connection *at(std::size_t number) const { return connections_[number].get(); }
  // The connections that are up.
  std::vector<const Connection *> all() const;
  bool is_connected(const std::string &endpoint) const;
  // Messages by endpoint, ended connections included.
  std::map<std::string, Traffic> traffic() const;
  std::uint64_t turned_away() const { return turned_away_; }
  // The address that Peer::controller stands for; "" for 0.
  const std::string &address(std::uint16_t number) const { return addresses_by_number_[number]; }

  // ---- roles

  // Sets the connection's role; for master, another master becomes slave.
  void set_role(Connection &connection, Role role);
  // The latest generation_id of a master or slave request (6.3.5).
  struct Generation {
    bool defined = false;
    std::uint64_t id = ~std::uint64_t{0};
  };
  Generation &master_generation() { return master_generation_; }
  // Overrides whether packets may flow to the controllers; std::nullopt: their roles decide again.
  void force_packets(std::optional<bool> flow);

  // Calls `send` for each connection that wants the asynchronous message, by the mask of its role.
  template <typename Send>
  void for_each_listener(Async kind, std::uint8_t reason, Send &&send) {
    for (const auto &connection : connections_) {
      if (!connection || !connection->is_up() || !connection->session().has_asked) continue;
      const std::size_t mask = static_cast<std::size_t>(kind) + (connection->session().role == Role::slave);
      if (connection->session().async[mask] >> reason & 1) send(*connection);
    }
  }

  // ---- addresses, laid out as in Peer

  // Announces the addresses of all controllers to the daemon again.
  void announce() const;
  // Withdraws the addresses in `stored` that no controller has, left by an outage of the database or an earlier run of the
  // daemon.
  void withdraw_strangers(const std::vector<std::uint32_t> &stored) const;

 private:
  std::size_t free_number();
  std::uint16_t number_of_address(const std::string &peer);
  void log_failed(const Connection &connection);
  void arrived(const Connection &connection);
  void left(const Connection &connection);
  void update_packets();

  ConnectionEvents &events_;
  SouthboundClient &client_;
  const ConnectionLimits limits_;
  const std::function<void(bool wanted)> packets_wanted_;
  std::array<std::unique_ptr<Connection>, kMaxConnections> connections_;
  std::array<Dialer *, kMaxConnections> dialer_of_{};
  std::uint64_t generations_ = 0;
  std::size_t up_ = 0;
  ReferenceCounts addresses_, interfaces_;  // of connections that are up
  Generation master_generation_;
  bool packets_ = false;  // the daemon has been told that packets may flow to the controllers
  std::optional<bool> packets_forced_;
  std::uint64_t turned_away_ = 0;
  std::vector<std::string> addresses_by_number_{""};
  std::map<std::string, Traffic> past_traffic_;  // of ended connections
  log::RateLimit failed_line_;
};

}  // namespace host::of_ss
