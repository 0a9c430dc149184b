#include "host/of_ss/switch/controllers.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "host/base/clock.h"
#include "host/log/log.h"

namespace host::of_ss {
namespace {

constexpr std::size_t kAddressesKnown = 1024;

bool is_among(const std::string &endpoint, const std::vector<std::string> &endpoints) {
  return std::ranges::find(endpoints, endpoint) != endpoints.end();
}

}  // namespace

// ---- connections

void Controllers::accept(BuffereventOwner bev, Peer peer, Dialer *dialer) {
  const std::size_t number = free_number();
  if (number == kMaxConnections) {
    ++turned_away_;
    log::warn("a controller was turned away, there are {} connections already", kMaxConnections);
    if (dialer) dialer->ended(false, "there are too many connections");
    return;
  }
  const std::uint64_t generation = ++generations_ << 8 | number;
  peer.controller = number_of_address(peer.name);
  connections_[number] =
      std::make_unique<Connection>(events_, std::move(bev), std::move(peer), generation, limits_, clock::now().count());
  dialer_of_[number] = dialer;
  connections_[number]->start();
}

// The number of the address in "tcp:192.0.2.1:40132"; 0 after too many addresses.
std::uint16_t Controllers::number_of_address(const std::string &peer) {
  const std::size_t begin = peer.find(':') + 1, end = peer.rfind(':');
  const std::string address = peer.substr(begin, end - begin);
  const auto known = std::ranges::find(addresses_by_number_, address);
  if (known != addresses_by_number_.end()) return static_cast<std::uint16_t>(known - addresses_by_number_.begin());
  if (addresses_by_number_.size() > kAddressesKnown) return 0;
  addresses_by_number_.push_back(address);
  return static_cast<std::uint16_t>(addresses_by_number_.size() - 1);
}

// A free connection number; kMaxConnections when every number belongs to an active controller. Otherwise the oldest expendable
// connection is ended, so that connections that send only HELLO and ECHO keep no controller out.
std::size_t Controllers::free_number() {
  std::size_t oldest = kMaxConnections;
  for (std::size_t n = 0; n < kMaxConnections; ++n) {
    const Connection *connection = connections_[n].get();
    if (!connection) return n;
    if (connection->is_expendable() &&
        (oldest == kMaxConnections || connection->generation() < connections_[oldest]->generation()))
      oldest = n;
  }
  if (oldest == kMaxConnections) return oldest;
  connections_[oldest]->abort("made room for another connection");
  reap();
  return oldest;
}

Connection *Controllers::find(std::uint64_t generation) const {
  if (generation == 0) return nullptr;
  Connection *connection = at(generation & 0xff);
  return connection && connection->generation() == generation && connection->is_up() ? connection : nullptr;
}

void Controllers::up(Connection &connection) {
  connection.session().up = true;
  connection.session().interface = local_interface(connection.fd());
  log::info("controller {} is connected", connection.peer().name);
  arrived(connection);
  update_packets();
}

void Controllers::gone(Connection &connection) {
  past_traffic_[connection.peer().endpoint] += connection.traffic();
  const bool was_up = connection.session().up;
  if (Dialer *dialer = std::exchange(dialer_of_[connection.number()], nullptr))
    dialer->ended(was_up, connection.why_closed());
  else if (!was_up)
    log_failed(connection);
  if (!was_up) return;
  log::info("controller {} disconnected: {}", connection.peer().name, connection.why_closed());
  update_packets();
  left(connection);
}

void Controllers::log_failed(const Connection &connection) {
  if (failed_line_.due(clock::now().count()))
    log::warn("{} came by {} and is no controller: {} ({} such since the last such line)", connection.peer().name,
              connection.peer().endpoint, connection.why_closed(), failed_line_.count());
}

void Controllers::overfull() {
  Connection *fullest = nullptr;
  for (const auto &connection : connections_)
    if (connection && (!fullest || connection->unsent() > fullest->unsent())) fullest = connection.get();
  if (fullest)
    fullest->abort(fmt::format("all connections together hold too much unsent, and this one most, {} bytes", fullest->unsent()));
}

void Controllers::reap() {
  for (auto &connection : connections_)
    if (connection && connection->is_gone()) connection.reset();
}

void Controllers::close_but(const std::vector<std::string> &endpoints) {
  for (const auto &connection : connections_) {
    if (!connection || connection->is_gone() || is_among(connection->peer().endpoint, endpoints)) continue;
    dialer_of_[connection->number()] = nullptr;
    connection->abort("its endpoint is no longer configured");
  }
}

void Controllers::forget_traffic_but(const std::vector<std::string> &endpoints) {
  std::erase_if(past_traffic_, [&endpoints](const auto &past) { return !is_among(past.first, endpoints); });
}

void Controllers::check(std::int64_t now_ns) {
  for (const auto &connection : connections_)
    if (connection && !connection->is_gone()) connection->check(now_ns);
}

std::vector<const Connection *> Controllers::all() const {
  std::vector<const Connection *> all;
  for (const auto &connection : connections_)
    if (connection && connection->is_up()) all.push_back(connection.get());
  return all;
}

bool Controllers::is_connected(const std::string &endpoint) const {
  return std::ranges::any_of(connections_, [&endpoint](const auto &connection) {
    return connection && connection->is_up() && connection->peer().endpoint == endpoint;
  });
}

std::map<std::string, Traffic> Controllers::traffic() const {
  std::map<std::string, Traffic> all = past_traffic_;
  for (const auto &connection : connections_)
    if (connection && !connection->is_gone()) all[connection->peer().endpoint] += connection->traffic();
  return all;
}

// ---- reports to the daemon

void Controllers::arrived(const Connection &connection) {
  const std::uint32_t address = connection.peer().address;
  const bool new_interface = interfaces_.add(connection.session().interface);
  if (up_++ == 0)
    client_.open(interfaces_.numbers());
  else if (new_interface)
    client_.manage(interfaces_.numbers());
  if (address && addresses_.add(address)) client_.controller(true, address);
}

void Controllers::left(const Connection &connection) {
  const std::uint32_t address = connection.peer().address;
  if (address && addresses_.remove(address)) client_.controller(false, address);
  const std::vector<std::uint32_t> before = interfaces_.numbers();
  const bool less = interfaces_.remove(connection.session().interface);
  if (--up_ == 0)
    client_.close(before);
  else if (less)
    client_.manage(interfaces_.numbers());
}

void Controllers::announce() const {
  for (const std::uint32_t address : addresses_.numbers()) client_.controller(true, address);
}

void Controllers::withdraw_strangers(const std::vector<std::uint32_t> &stored) const {
  for (const std::uint32_t address : stored)
    if (!addresses_.contains(address)) client_.controller(false, address);
}

// Packets may flow to the controllers while one of them accepts packets.
void Controllers::update_packets() {
  const auto takes = [](const auto &connection) {
    return connection && connection->is_up() && connection->session().role != Role::slave;
  };
  const bool wanted = packets_forced_.value_or(std::ranges::any_of(connections_, takes));
  if (std::exchange(packets_, wanted) == wanted) return;
  client_.packets(wanted);
  packets_wanted_(wanted);
}

void Controllers::force_packets(std::optional<bool> flow) {
  packets_forced_ = flow;
  update_packets();
}

void Controllers::set_role(Connection &connection, Role role) {
  if (role == Role::master)
    for (const auto &other : connections_)
      if (other && other->session().role == Role::master) other->session().role = Role::slave;
  connection.session().role = role;
  update_packets();
}

}  // namespace host::of_ss
