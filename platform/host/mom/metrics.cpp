#include "host/mom/metrics.h"

#include <string>

#include "host/metrics/metrics.h"
#include "host/mom/hub.h"
#include "host/mom/redis/round_trips.h"

namespace host::mom {
namespace {

using metrics::Kind;
using metrics::Page;

template <typename Value>
void each_wanted(Page &page, const Hub &hub, const metrics::Family &family, Value value) {
  page.begin(family);
  for (const Database &db : hub.databases())
    if (db.wanted) page.sample(value(db), {{"database", std::to_string(db.number)}});
}

void write_databases(Page &page, const Hub &hub) {
  each_wanted(page, hub, {"kelim_database_up", Kind::gauge, "1 if the database is connected."},
              [](const Database &db) { return std::uint64_t{db.up}; });
  each_wanted(page, hub, {"kelim_database_takes_writes", Kind::gauge, "1 if the database is connected and accepts writes."},
              [](const Database &db) { return std::uint64_t{db.up && db.refusing.empty()}; });
  each_wanted(page, hub, {"kelim_database_reconnects_total", Kind::counter, "Reconnections to a lost database."},
              [](const Database &db) { return db.reconnects; });
}

void write_writes(Page &page, const Hub &hub) {
  page.begin({"kelim_database_writes_total", Kind::counter, "Accepted writes and deletions, by record type."});
  for (const Database &db : hub.databases())
    for (const auto &slot : db.slots)
      if (slot && slot->topic.load().total)
        page.sample(slot->topic.load().total, {{"database", std::to_string(db.number)}, {"type", slot->type.name()}});
  const cgst::Load &load = cgst::pipeline();
  page.single({"kelim_database_writes_in_flight", Kind::gauge, "Writes that the database has not confirmed."}, load.writes);
  page.single({"kelim_database_in_flight_bytes", Kind::gauge, "Size of the writes that the database has not confirmed."},
              load.bytes);
  page.begin({"kelim_database_writes_refused_total", Kind::counter,
              "Rejected writes: too many in flight (congestion), or refused by the server."});
  page.sample(load.refused, {{"reason", "congestion"}});
  page.sample(hub.refused(), {{"reason", "server"}});
}

void write_reading(Page &page, const Hub &hub) {
  page.single({"kelim_database_notifications_total", Kind::counter, "Notifications handed to subscribers."}, hub.delivered());
  page.begin({"kelim_database_skipped_total", Kind::counter, "Unusable values found in the database, by kind."});
  for (const auto &[kind, count] : hub.skipped()) page.sample(count, {{"kind", kind}});
}

void write_round_trips(Page &page) {
  page.begin({"kelim_database_round_trip_seconds", Kind::histogram,
              "Round trips to the server: a sample of the pipelined commands, every blocking one."});
  page.histogram(round_trips.piped, {{"mode", "piped"}});
  page.histogram(round_trips.blocking, {{"mode", "blocking"}});
}

}  // namespace

void register_metrics(Hub &hub) {
  metrics::add_source([&hub](Page &page) {
    write_databases(page, hub);
    write_writes(page, hub);
    write_reading(page, hub);
    write_round_trips(page);
  });
}

}  // namespace host::mom
