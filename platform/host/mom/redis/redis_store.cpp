#include "host/mom/redis/redis_store.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "host/base/services.h"
#include "host/log/log.h"

namespace host::mom {

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr std::size_t kBatch = 64;          // writes and deletions in a batch; a larger one gains nothing
constexpr std::size_t kCommandHeads = 256;  // upper estimate of a transaction's bytes beside its arguments
constexpr std::size_t kForgetBatch = 256;
constexpr std::size_t kMembersAtATime = 5000;
constexpr std::size_t kSampled = 16;  // objects whose size is queried
constexpr auto kStartPatience = 3s;   // with a server that is starting at the same time
constexpr auto kLoadPatience = 60s;   // with a server that is loading its data
constexpr auto kProbeEvery = 50ms;

}  // namespace

RedisStore::RedisStore(StoreEvents &events, TurnQueue &later, RedisEndpoint endpoint, const Config::Mom &config)
    : events_(events),
      later_(later),
      endpoint_(std::move(endpoint)),
      limit_(config.sync_timeout_ms),
      dead_after_(config.dead_after_ms),
      scan_batch_(config.scan_batch) {
  endpoint_.client = runtime_name();
}

RedisStore::~RedisStore() = default;

std::string RedisStore::probe() {
  SyncConnection connection(endpoint_, 0, limit_);
  const auto begin = steady_clock::now();
  while (true) {
    connection.set_deadline(steady_clock::now() + limit_);
    std::string why = resolve(&endpoint_);
    if (why.empty()) why = connection.open();
    const bool loading = connection.server().loading || why.starts_with("LOADING");
    if (why.empty() && !loading) return "";
    const auto patience = loading ? kLoadPatience : kStartPatience;
    if (connection.refused() || steady_clock::now() - begin > patience) {
      return "mom.url " + endpoint_.url + ": " + (why.empty() ? "the server is still loading its data" : why);
    }
    connection.close();
    std::this_thread::sleep_for(kProbeEvery);
  }
}

// ---- connections

RedisStore::Base &RedisStore::base(Database &db) {
  const auto found = std::find_if(bases_.begin(), bases_.end(), [&](const Base &base) { return &base.db == &db; });
  if (found != bases_.end()) return *found;
  return bases_.emplace_back(Base{db, SyncConnection(endpoint_, db.number, limit_), nullptr, {}, {}, {}, false});
}

RedisStore::Table &RedisStore::table(Slot &slot) {
  Base &base = this->base(slot.db);
  const std::size_t type = slot.type.id();
  if (base.tables.size() <= type) base.tables.resize(type + 1);
  if (!base.tables[type]) {
    const std::string name(slot.type.name());
    const std::string channel = std::to_string(slot.db.number) + ":" + name;
    base.tables[type].reset(new Table{slot, base, name, name + ":", channel, channel + "-"});
    base.channels[channel] = base.channels[channel + "-"] = base.tables[type].get();
  }
  return *base.tables[type];
}

int RedisStore::connect_sync(Database &db) {
  SyncConnection &sync = base(db).sync;
  sync.set_deadline(steady_clock::now() + limit_);
  if (const std::string why = sync.open(); !why.empty()) {
    log::error("database {}: {}: {}", db.number, endpoint_.url, why);
    return -1;
  }
  db.sync_up = true;
  return 0;
}

int RedisStore::connect(Database &db) {
  Base &base = this->base(db);
  if (!base.link) {
    RedisLink::Events events;
    events.up = [this, &base] { up(base); };
    events.message = [this, &base](std::string_view channel, std::string_view payload) { message(base, channel, payload); };
    events.unsure = [this, &base] { unsure(base); };
    events.subscribed = [this, &base](std::string_view channel) { subscribed(base, channel); };
    base.link = std::make_unique<RedisLink>(events_, later_, db, endpoint_, dead_after_, std::move(events));
  }
  base.link->connect();
  return 0;
}

// Every channel is confirmed when the link comes up. After an interruption, earlier knowledge of the objects is void.
void RedisStore::up(Base &base) {
  for (const auto &table : base.tables) {
    if (!table) continue;
    table->known.clear();
    table->channel_live = table->channel_asked;
    table->gone_live = table->gone_asked;
    // After a reconnect the client subscribes to everything again.
    for (auto &live : std::exchange(table->waiting, {}))
      if (base.link->generation() == 1) later_.act(std::move(live));
  }
}

// A replay in progress while writes are refused cannot renew its objects, which must not expire because of that.
void RedisStore::unsure(Base &base) {
  for (const auto &table : base.tables) {
    if (!table) continue;
    table->known.clear();
    if (!base.db.refusing.empty() && std::exchange(table->expires, false))
      pass(*table, scripts::persist_part(), Where::anywhere, {table->prefix});
  }
}

// ---- writes

int RedisStore::set(Slot &slot, const Key &key, PackedBytes packed, std::optional<std::int64_t> tag) {
  return write(table(slot), key, packed, tag.value_or(0));
}

bool RedisStore::is_stored(Table &table, const Key &key) {
  return table.known.contains(key) || number(table.base, {"EXISTS", table.slot.type.text(key)}).value_or(1) != 0;
}

// While the server refuses writes, a new object is refused at once. Deliberate: the rewrite of a stored object reports success
// although nothing is sent, because the writer would take a failure as the end of the object. The stored value stays valid until
// every subscription gets its data-fetch signal.
int RedisStore::write(Table &table, const Key &key, PackedBytes packed, std::int64_t tag) {
  if (!table.slot.db.refusing.empty()) {
    events_.count_refused(1);
    return is_stored(table, key) ? 0 : -14;
  }
  if (!table.slot.topic.admit(packed.size())) return -14;
  table.slot.topic.take(packed.size());
  const std::string member = table.slot.type.member_text(key);
  const std::string tagged = tag_bytes(tag);
  if (table.slot.type.hash_class()) {
    send(table,
         {"EVALSHA", scripts::put().sha, "2", table.index, table.prefix + member, member, table.channel,
          std::string(tagged).append(as_text(packed)), notification_end(member, packed)},
         {&table.slot, packed.size()});
  } else {
    add_write(table, key, member, tagged, packed);
  }
  watch_deletions(table);
  if (table.gone_live || table.channel_live) table.known.insert(key);
  return 0;
}

void RedisStore::add_write(Table &table, const Key &key, std::string_view member, std::string_view tag, PackedBytes packed) {
  Batch &batch = table.batch;
  // Within a batch, writes come before deletions.
  if (std::ranges::find(batch.deleted, key) != batch.deleted.end()) flush(table.base);
  ++batch.writes;
  batch.bytes += packed.size();
  append_argument(batch.members, {member});
  append_argument(batch.objects, {table.prefix, member});
  append_argument(batch.objects, {tag, as_text(packed)});
  batch.notifications.push_back('W');
  append_notification_end(batch.notifications, member, packed);
  joined(table);
}

void RedisStore::add_deletion(Table &table, const Key &key) {
  Batch &batch = table.batch;
  if (std::ranges::find(batch.deleted, key) != batch.deleted.end()) return;  // already deleted by this batch
  // Hash-class objects are not batched, so that they keep their place among the writes of all types.
  const bool alone = table.slot.type.hash_class();
  if (alone) flush(table.base);
  table.slot.topic.take(0);
  batch.deleted.push_back(key);
  append_argument(batch.told, {batch.notifications});
  append_argument(batch.told, {table.slot.type.member_text(key)});
  batch.notifications.clear();
  joined(table);
  if (alone) flush(table.base);
}

// Counts an addition to the table's batch, and sends or schedules it.
void RedisStore::joined(Table &table) {
  Base &base = table.base;
  if (table.batch.size++ == 0) base.open.push_back(&table);
  if (table.batch.size >= kBatch) {
    flush(base);
  } else {
    plan_flush(base);
  }
}

void RedisStore::plan_flush(Base &base) {
  if (std::exchange(base.flush_planned, true)) return;
  later_.act([this, &base] {
    base.flush_planned = false;
    flush(base);
  });
}

void RedisStore::flush(Base &base) {
  for (Table *table : base.open) send_batch(*table);
  base.open.clear();
}

void RedisStore::send_batch(Table &table) {
  Batch &batch = table.batch;
  RedisLink::Formatted commands;
  commands.bytes.reserve(batch.members.size() + batch.objects.size() + batch.told.size() + batch.notifications.size() +
                         kCommandHeads);
  commands.charge = {&table.slot, batch.bytes, batch.size};
  if (batch.writes > 0) {
    commands.add({"MULTI"});
    commands.add({"SADD", table.index}, batch.members, batch.writes);
    commands.add({"MSET"}, batch.objects, 2 * batch.writes);
  }
  if (batch.deleted.empty()) {
    commands.add({"PUBLISH", table.channel, batch.notifications});
  } else {
    append_argument(batch.told, {batch.notifications});
    // Sends the script's text, not its hash: a server that has lost the script would execute the rest of the transaction.
    commands.add({"EVAL", scripts::del().text, "1", table.index, table.prefix, table.channel, table.gone}, batch.told,
                 2 * batch.deleted.size() + 1);
  }
  if (batch.writes > 0) commands.add({"EXEC"});
  link(table).send(std::move(commands));
  batch.clear();
}

void RedisStore::Batch::clear() {
  size = bytes = writes = 0;
  for (std::string *part : {&members, &objects, &told, &notifications}) part->clear();
  deleted.clear();
}

// Sends one command, after flushing the batches.
void RedisStore::send(Table &table, Arguments arguments, Charge charge, qx_mom_done_cb done) {
  flush(table.base);
  RedisLink::Formatted command;
  command.add(arguments);
  command.charge = charge;
  command.done = done;
  link(table).send(std::move(command));
}

// Runs a script over the index, part by part, after earlier writes and before later ones. `where_writes_are_taken` is for the
// expiry of a whole type: it deletes objects that a replay does not renew, so it must not begin while writes are refused.
void RedisStore::pass(Table &table, const RedisScript &script, Where where, std::vector<std::string> arguments,
                      qx_mom_done_cb done) {
  flush(table.base);
  RedisLink::Formatted first;
  if (where == Where::anywhere) {
    first = part(table, script, "0", "", std::move(arguments));
  } else {
    first.add(RedisLink::kHarmlessWrite);
    first.more = [&table, &script, arguments = std::move(arguments)](const redisReply *) {
      return table.slot.db.refusing.empty() ? part(table, script, "0", "", arguments) : RedisLink::Formatted{};
    };
  }
  first.done = done;
  link(table).send(std::move(first));
}

RedisLink::Formatted RedisStore::part(Table &table, const RedisScript &script, std::string_view cursor, std::string_view state,
                                      std::vector<std::string> arguments) {
  std::vector<std::string_view> words = {"EVALSHA", script.sha, "1", table.index, cursor, state};
  words.insert(words.end(), arguments.begin(), arguments.end());
  RedisLink::Formatted command;
  command.add(words);
  command.more = [&table, &script, sent = steady_clock::now(),
                  arguments = std::move(arguments)](const redisReply *reply) -> RedisLink::Formatted {
    const bool known = reply->type == REDIS_REPLY_ARRAY && reply->elements >= 2;
    if (known && reply->elements > 2) table.deadline = sent + std::chrono::milliseconds(reply->element[2]->integer);
    if (!known || text_of(reply->element[0]) == "0") return {};
    return part(table, script, text_of(reply->element[0]), text_of(reply->element[1]), arguments);
  };
  return command;
}

void RedisStore::watch_deletions(Table &table) {
  if (table.channel_asked || std::exchange(table.gone_asked, true)) return;
  link(table).subscribe(table.gone);
}

int RedisStore::del(Slot &slot, const Key &key) {
  Table &table = this->table(slot);
  const RedisLink *link = table.base.link.get();
  // An object that is not known to exist is deleted synchronously, for the result. If the server does not answer in time, or a
  // pass over a type would make it wait, the deletion is batched instead: it must neither be lost nor block the loop.
  if (!table.known.contains(key) && !(link && link->is_up() && link->passes())) {
    const int rv = del_sync(slot, key);
    if (rv != -1 || !link || !link->is_up()) return rv;
  }
  table.known.erase(key);
  for (auto *deleted : table.scans) deleted->insert(key);
  add_deletion(table, key);
  return 0;
}

int RedisStore::publish(Slot &slot, PackedBytes packed) {
  Table &table = this->table(slot);
  if (!slot.topic.admit(packed.size())) return -14;
  slot.topic.take(packed.size());
  send(table, {"PUBLISH", table.channel, "P" + notification_end("", packed)}, {&slot, packed.size()});
  return 0;
}

int RedisStore::pexpire(Slot &slot, const Key *key, std::uint32_t ms, qx_mom_done_cb done) {
  Table &table = this->table(slot);
  // 0 would be a deletion, which is not announced as an expiry.
  const std::string delay = std::to_string(std::max(ms, 1U));
  const auto deadline = steady_clock::now() + std::chrono::milliseconds(ms);
  if (key) {
    table.own_deadline = std::min(table.own_deadline, deadline);
    table.known.erase(*key);
    send(table, {"PEXPIRE", slot.type.text(*key), delay}, {}, done);
  } else {
    table.deadline = deadline;
    table.own_deadline = steady_clock::time_point::max();
    table.known.clear();
    table.expires = true;
    pass(table, scripts::expire_part(), Where::where_writes_are_taken,
         {table.prefix, delay, table.channel, table.gone, std::to_string(kExpiryPerObject.count())}, done);
  }
  return 0;
}

int RedisStore::del_expire(Slot &slot, const Key *key) {
  Table &table = this->table(slot);
  if (key) {
    send(table, {"PERSIST", slot.type.text(*key)});
  } else {
    pass(table, scripts::persist_part(), Where::anywhere, {table.prefix});
  }
  return 0;
}

// The server hides objects past their deadline, whatever their tag, but may be slow to delete and announce them.
int RedisStore::del_expired(Slot &slot, std::int64_t) {
  Table &table = this->table(slot);
  if (steady_clock::now() >= std::min(table.deadline, table.own_deadline))
    pass(table, scripts::notice_part(), Where::anywhere, {table.prefix});
  return 0;
}

// ---- synchronous calls

RedisReply RedisStore::synchronously(Base &base, const std::function<RedisReply(SyncConnection &)> &ask, Sees sees) {
  if (base.sync.resting()) return nullptr;
  const auto deadline = steady_clock::now() + limit_;
  base.sync.set_deadline(deadline);
  RedisLink *link = base.link.get();
  if (link && link->is_up() && sees == Sees::all_writes) {
    flush(base);
    if (!link->idle() && !link->settle(deadline)) {
      base.sync.note_timeout();
      return nullptr;
    }
  }
  // True when this connection and the link have different servers: the data of a new server are meaningless until the link has
  // reported it, and a connection to the old one is useless.
  const auto other_server = [&] { return link && !link->run_id().empty() && base.sync.server().run_id != link->run_id(); };
  if (base.sync.open().empty() && other_server()) base.sync.close();
  if (!base.sync.open().empty() || other_server()) return nullptr;
  RedisReply reply = ask(base.sync);
  if (reply && is_error(reply.get())) log::error("database {}: {}", base.db.number, text_of(reply.get()));
  return reply;
}

int RedisStore::setnx_sync(Slot &slot, const Key &key, PackedBytes packed) {
  Table &table = this->table(slot);
  const std::string object = slot.type.text(key);
  const std::string member = object.substr(table.prefix.size());
  const std::string value = tag_bytes(0).append(as_text(packed));
  const RedisReply reply = synchronously(table.base, [&](SyncConnection &sync) {
    return sync.run(scripts::put_if_absent(), {"2", table.index, object, member, table.channel, value,
                                               notification_end(member, packed), slot.type.hash_class() ? "C" : "W"});
  });
  return reply && reply->type == REDIS_REPLY_INTEGER ? static_cast<int>(reply->integer) : -1;
}

int RedisStore::del_sync(Slot &slot, const Key &key) {
  Table &table = this->table(slot);
  const std::string member = slot.type.member_text(key);
  table.known.erase(key);
  for (auto *deleted : table.scans) deleted->insert(key);
  const RedisReply reply = synchronously(table.base, [&](SyncConnection &sync) {
    return sync.run(scripts::del(), {"1", table.index, table.prefix, table.channel, table.gone, "", member, ""});
  });
  if (!reply || reply->type != REDIS_REPLY_INTEGER) return -1;
  return reply->integer == 1 ? 0 : -7;
}

int RedisStore::get_sync(Slot &slot, const Key &key, std::vector<std::uint8_t> &packed) {
  Table &table = this->table(slot);
  const std::string object = slot.type.text(key);
  const RedisReply reply = synchronously(table.base, [&](SyncConnection &sync) { return sync.call({"GET", object}); });
  if (!reply) return -1;
  if (reply->type == REDIS_REPLY_NIL) return -7;
  const auto record = reply->type == REDIS_REPLY_STRING ? record_in(text_of(reply.get())) : std::nullopt;
  if (!record) {
    events_.skip("the value is none of ours", object);
    return kForeign;
  }
  packed.assign(record->begin(), record->end());
  return 0;
}

// Appends about that many more members of the index, unordered; the cursor is "0" at the end.
bool RedisStore::read_some_members(Table &table, std::string &cursor, std::size_t about, std::vector<Key> &keys, Sees sees) {
  const auto ask = [&](SyncConnection &sync) {
    return sync.call({"SSCAN", table.index, cursor, "COUNT", std::to_string(about)});
  };
  const RedisReply reply = synchronously(table.base, ask, sees);
  if (!reply || reply->type != REDIS_REPLY_ARRAY || reply->elements != 2) return false;
  cursor = text_of(reply->element[0]);
  for (const redisReply *member : std::span(reply->element[1]->element, reply->element[1]->elements)) {
    if (auto key = table.slot.type.parse_member(text_of(member))) {
      keys.push_back(std::move(*key));
    } else {
      events_.skip("the index names an object that cannot be", table.prefix + std::string(text_of(member)));
    }
  }
  return true;
}

// Reads the index in key order, in several steps, so that no step occupies the server for long.
bool RedisStore::read_members(Table &table, std::vector<Key> &keys) {
  std::string cursor = "0";
  do {
    if (!read_some_members(table, cursor, kMembersAtATime, keys)) return false;
  } while (cursor != "0");
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  return true;
}

RedisStore::Visited RedisStore::visit_batch(Table &table, std::span<const Key> keys, const std::set<Key> &deleted,
                                            const Visitor &visit, Sees sees) {
  std::vector<std::string> objects;
  for (const Key &key : keys) objects.push_back(table.slot.type.text(key));
  std::vector<std::string_view> arguments = {"MGET"};
  arguments.insert(arguments.end(), objects.begin(), objects.end());
  const RedisReply reply = synchronously(
      table.base, [&](SyncConnection &sync) { return sync.call(arguments); }, sees);
  if (!reply || reply->type != REDIS_REPLY_ARRAY || reply->elements != keys.size()) return Visited::failed;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (reply->element[i]->type == REDIS_REPLY_NIL || deleted.contains(keys[i]))
      continue;  // expired, of another type, or deleted by the visitor
    const auto record = record_in(text_of(reply->element[i]));
    if (!record) {
      events_.skip("the value is none of ours", objects[i]);
    } else if (!visit(keys[i], *record)) {
      return Visited::ended;
    }
  }
  return Visited::all;
}

int RedisStore::scan_sync(Slot &slot, const Visitor &visit) {
  Table &table = this->table(slot);
  // From now on a process that scans and then rewrites the objects knows them, and deletes them without asking whether they
  // exist.
  if (table.base.link) watch_deletions(table);
  std::vector<Key> keys;
  if (!read_members(table, keys)) return -1;
  std::set<Key> deleted;
  table.scans.push_back(&deleted);
  auto visited = Visited::all;
  for (std::size_t at = 0; at < keys.size() && visited == Visited::all; at += scan_batch_) {
    visited = visit_batch(table, std::span(keys).subspan(at, std::min(scan_batch_, keys.size() - at)), deleted, visit);
  }
  std::erase(table.scans, &deleted);
  return visited == Visited::failed ? -1 : 0;
}

int RedisStore::visit_sync(Slot &slot, std::span<const Key> keys, const Visitor &visit) {
  return keys.empty() || visit_batch(table(slot), keys, {}, visit) != Visited::failed ? 0 : -1;
}

int RedisStore::walk_sync(Slot &slot, Walk &walk, const Visitor &visit) {
  Table &table = this->table(slot);
  std::vector<Key> keys;
  if (!read_some_members(table, walk.cursor, scan_batch_, keys, Sees::what_is_there)) return -1;
  if (!keys.empty() && visit_batch(table, keys, {}, visit, Sees::what_is_there) == Visited::failed) return -1;
  return walk.cursor == "0" ? 0 : 1;
}

std::optional<std::size_t> RedisStore::number(Base &base, Arguments question) {
  const RedisReply reply = synchronously(base, [&](SyncConnection &sync) { return sync.call(question); });
  if (reply && reply->type == REDIS_REPLY_NIL) return 0;
  if (!reply || reply->type != REDIS_REPLY_INTEGER) return std::nullopt;
  return static_cast<std::size_t>(reply->integer);
}

// Estimated from the server's figures for the index and a few objects.
std::size_t RedisStore::estimated_bytes(Table &table, std::size_t objects) {
  const RedisReply sample = synchronously(table.base, [&](SyncConnection &sync) {
    return sync.call({"SRANDMEMBER", table.index, std::to_string(kSampled)});
  });
  if (!sample || sample->type != REDIS_REPLY_ARRAY || sample->elements == 0) return 0;
  std::size_t bytes = 0;
  for (const redisReply *member : std::span(sample->element, sample->elements)) {
    bytes += number(table.base, {"MEMORY", "USAGE", table.prefix + std::string(text_of(member))}).value_or(0);
  }
  return bytes * objects / sample->elements + number(table.base, {"MEMORY", "USAGE", table.index}).value_or(0);
}

std::optional<Store::Held> RedisStore::held(Slot &slot) {
  Table &table = this->table(slot);
  const auto objects = number(table.base, {"SCARD", table.index});
  const RedisReply listeners = synchronously(table.base, [&](SyncConnection &sync) {
    return sync.call({"PUBSUB", "NUMSUB", table.channel});
  });
  if (!objects || !listeners || listeners->type != REDIS_REPLY_ARRAY || listeners->elements != 2) return std::nullopt;
  return Held{*objects, *objects ? estimated_bytes(table, *objects) : 0,
              static_cast<std::size_t>(listeners->element[1]->integer)};
}

// ---- notifications

bool RedisStore::subscribe(Slot &slot, std::function<void()> live) {
  Table &table = this->table(slot);
  if (!table.base.link) return false;
  if (table.channel_live) {
    later_.act(std::move(live));
    return true;
  }
  table.waiting.push_back(std::move(live));
  if (!std::exchange(table.channel_asked, true)) link(table).subscribe(table.channel);
  return true;
}

void RedisStore::subscribed(Base &base, std::string_view channel) {
  const auto found = base.channels.find(channel);
  if (found == base.channels.end()) return;
  Table &table = *found->second;
  if (channel == table.gone) {
    table.gone_live = true;
    return;
  }
  table.channel_live = true;
  for (const auto &live : std::exchange(table.waiting, {})) live();
}

void RedisStore::message(Base &base, std::string_view channel, std::string_view payload) {
  const auto found = base.channels.find(channel);
  if (found == base.channels.end()) return expired(base, payload);
  Table &table = *found->second;
  notifications(table, payload, channel == table.gone ? &RedisStore::gone : &RedisStore::heard);
}

void RedisStore::notifications(Table &table, std::string_view payload, Take take) {
  do {
    const auto next = Notification::take(payload);
    if (!next) {
      events_.skip("a notification of no known layout", table.prefix + std::string(payload.substr(0, 32)));
      return;
    }
    if (next->change == Change::published) {
      events_.deliver(table.slot, next->change, next->packed, nullptr);
    } else if (const auto key = table.slot.type.parse_member(next->member)) {
      (this->*take)(table, *key, *next);
    } else {
      events_.skip("a notification of an object that cannot be", table.prefix + std::string(next->member));
    }
  } while (!payload.empty());
}

void RedisStore::heard(Table &table, const Key &key, const Notification &notification) {
  if (notification.change != Change::deleted) return events_.deliver(table.slot, notification.change, notification.packed, &key);
  table.known.erase(key);
  deleted(table, key, notification.packed.subspan(std::min(kTagSize, notification.packed.size())));
}

void RedisStore::gone(Table &table, const Key &key, const Notification &) {
  table.known.erase(key);
}

void RedisStore::expired(Base &base, std::string_view object) {
  const RecordType *type = RecordType::named(object.substr(0, object.find(':')));
  const auto key = type ? type->parse(object) : std::nullopt;
  if (!key) {
    events_.skip("the expiry of an object that cannot be", std::string(object));
    return;
  }
  Table &table = this->table(base.db.slot(*type));
  table.known.erase(*key);
  if (table.expired.empty()) later_.act([this, &table] { forget_expired(table); });
  table.expired.emplace_back(object.substr(table.prefix.size()));
  deleted(table, *key, {});
}

// If the last record is not known, subscribers get a record with only its key.
void RedisStore::deleted(Table &table, const Key &key, PackedBytes packed) {
  if (!packed.empty()) {
    events_.deliver(table.slot, Change::deleted, packed, &key);
  } else if (table.slot.heard()) {
    events_.deliver(table.slot, Change::deleted, table.slot.type.key_only(key), &key);
  }
}

void RedisStore::forget_expired(Table &table) {
  const std::vector<std::string> members = std::exchange(table.expired, {});
  if (!link(table).is_up()) return;
  for (std::size_t at = 0; at < members.size(); at += kForgetBatch) {
    std::vector<std::string_view> arguments = {"EVALSHA", scripts::forget().sha, "1", table.index, table.prefix};
    const auto part = std::span(members).subspan(at, std::min(kForgetBatch, members.size() - at));
    arguments.insert(arguments.end(), part.begin(), part.end());
    flush(table.base);
    RedisLink::Formatted command;
    command.add(arguments);
    link(table).send(std::move(command));
  }
}

}  // namespace host::mom
