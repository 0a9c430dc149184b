#include "host/mom/views.h"

#include <fmt/format.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "host/config/config.h"
#include "host/config/text.h"
#include "host/control/control.h"
#include "host/control/status.h"
#include "host/metrics/health.h"
#include "host/mom/hub.h"
#include "host/mom/record/render.h"

namespace host::mom {

namespace {

using control::Refusal;

constexpr std::size_t kListMax = 1000;  // keys or records in one answer, unless the request names another limit
constexpr std::size_t kGetMax = 100;    // keys in one request; each costs the loop one round trip

nlohmann::json load_json(const cgst::Load &load) {
  return {{"writes", load.writes},
          {"bytes", load.bytes},
          {"high_water_writes", load.high_writes},
          {"high_water_bytes", load.high_bytes},
          {"refused", load.refused},
          {"total", load.total}};
}

template <typename Work>
void each_slot(Hub &hub, Work work) {
  for (Database &db : hub.databases()) {
    for (auto &slot : db.slots) {
      if (slot) work(*slot);
    }
  }
}

nlohmann::json congestion(Hub &hub) {
  nlohmann::json topics = nlohmann::json::array();
  each_slot(hub, [&](Slot &slot) {
    if (!slot.topic.enrolled()) return;
    nlohmann::json topic = load_json(slot.topic.load());
    topic["db"] = slot.db.number;
    topic["type"] = slot.type.name();
    topics.push_back(std::move(topic));
  });
  return {{"pipeline", load_json(cgst::pipeline())}, {"topics", std::move(topics)}};
}

Json stats(Hub &hub) {
  Json types = Json::array();
  for (Database &db : hub.databases()) {
    for (const RecordType *type : RecordType::all()) {
      const auto held = hub.store().held(hub.slot(db, *type));
      if (!held) throw std::runtime_error("database " + std::to_string(db.number) + " does not answer");
      types.push_back({{"type", type->name()},
                       {"db", db.number},
                       {"objects", held->objects},
                       {"bytes", held->bytes},
                       {"subscribers", held->subscribers}});
    }
  }
  return {{"store", hub.store().kind()}, {"url", config().mom.url}, {"types", std::move(types)}};
}

Json client(Hub &hub) {
  Json connected = Json::array();
  for (const Database &db : hub.databases()) {
    if (db.up) connected.push_back(db.number);
  }
  Json refusing = Json::object();
  for (const Database &db : hub.databases())
    if (!db.refusing.empty()) refusing[std::to_string(db.number)] = db.refusing;
  return {{"connected", std::move(connected)}, {"refusing", std::move(refusing)}, {"delivered", hub.delivered()},
          {"queued", hub.later().size()},      {"refused_writes", hub.refused()}, {"skipped", hub.skipped()}};
}

// Why the process cannot write to its databases; "" when it can.
std::string why_away(const Hub &hub) {
  for (const Database &db : hub.databases()) {
    if (db.wanted && !db.up) return fmt::format("database {} is not connected", db.number);
    if (!db.refusing.empty()) return fmt::format("database {} refuses writes: {}", db.number, db.refusing);
  }
  return "";
}

// A process that needs exclusive use of its databases is on standby until it has it.
Json status(Hub &hub) {
  const bool stands_by = std::ranges::any_of(hub.databases(), [](const Database &db) { return db.exclusive && !db.up; });
  return {{"store", hub.store().kind()}, {"url", masked(config().mom.url)}, {"role", stands_by ? "standby" : "active"},
          {"error", why_away(hub)},      {"client", client(hub)},           {"in_flight", cgst::pipeline().writes}};
}

const RecordType &type_argument(std::string_view name) {
  if (const RecordType *type = RecordType::named(name)) return *type;
  std::string known;
  for (const RecordType *type : RecordType::all()) known += (known.empty() ? "" : ", ") + std::string(type->name());
  throw Refusal("no record type '" + std::string(name) + "'; there are " + known);
}

// The non-negative integer under `name` in a request.
std::size_t number_argument(const nlohmann::json &args, const char *name) {
  const nlohmann::json &value = args.at(name);
  if (!value.is_number_integer() || value < 0) throw Refusal(std::string(name) + " takes a whole number from 0 on");
  return value.get<std::size_t>();
}

// Runs `work` on the database that a request names, or on all.
template <typename Work>
void each_database(Hub &hub, const nlohmann::json &args, Work work) {
  if (!args.contains("db")) {
    for (Database &db : hub.databases()) work(db);
    return;
  }
  const std::size_t number = number_argument(args, "db");
  Database *db = number <= INT32_MAX ? hub.database(static_cast<std::int32_t>(number)) : nullptr;
  if (!db) throw Refusal("no database " + std::to_string(number) + "; there are 0, 4 and 8");
  work(*db);
}

struct Release {
  void operator()(ProtobufCMessage *record) const { protobuf_c_message_free_unpacked(record, nullptr); }
};
using Record = std::unique_ptr<ProtobufCMessage, Release>;

// Null for bytes that are not a record of the type.
Record unpack(const RecordType &type, PackedBytes packed) {
  return Record(protobuf_c_message_unpack(&type.descriptor(), nullptr, packed.size(), packed.data()));
}

Json broken(PackedBytes packed) {
  return {{"broken", true}, {"length", packed.size()}};
}

Json record_json(const RecordType &type, const Key &key, PackedBytes packed) {
  const Record record = unpack(type, packed);
  return record && type.belongs(*record, &key) ? to_json(*record) : broken(packed);
}

Json object_json(const Database &db, const RecordType &type, const Key &key) {
  return {{"db", db.number}, {"key", type.text(key)}};
}

void must_have_answered(const Database &db, int rv) {
  if (rv == -1) throw std::runtime_error("database " + std::to_string(db.number) + " does not answer");
}

Json list(Hub &hub, const nlohmann::json &args, bool with_records) {
  const RecordType &type = type_argument(args.at("type").get<std::string>());
  const std::size_t limit = args.contains("limit") ? number_argument(args, "limit") : kListMax;
  Json objects = Json::array();
  std::size_t total = 0;
  each_database(hub, args, [&](Database &db) {
    std::size_t seen = 0;
    must_have_answered(db, hub.store().scan_sync(hub.slot(db, type), [&](const Key &key, PackedBytes packed) {
      if (objects.size() == limit) return false;  // the others are only counted
      ++seen;
      Json object = object_json(db, type, key);
      if (with_records) object["record"] = record_json(type, key, packed);
      objects.push_back(std::move(object));
      return true;
    }));
    const bool all = objects.size() < limit;
    total += all ? seen : hub.store().held(hub.slot(db, type)).value_or(Store::Held{}).objects;
  });
  return {{"objects", std::move(objects)}, {"total", total}};
}

// Appends the objects stored under the key to `objects`; foreign values are only counted.
void get_one(Hub &hub, const nlohmann::json &args, const std::string &text, Json &objects, std::size_t &skipped) {
  const RecordType &type = type_argument(text.substr(0, text.find(':')));
  const auto key = type.parse(text);
  if (!key) throw Refusal("'" + text + "' is no key of " + std::string(type.name()));
  each_database(hub, args, [&](Database &db) {
    std::vector<std::uint8_t> packed;
    const int rv = hub.store().get_sync(hub.slot(db, type), *key, packed);
    must_have_answered(db, rv);
    skipped += rv == Store::kForeign;
    if (rv != 0) return;
    Json object = object_json(db, type, *key);
    object["record"] = record_json(type, *key, packed);
    objects.push_back(std::move(object));
  });
}

Json get(Hub &hub, const nlohmann::json &args) {
  const nlohmann::json &key = args.at("key");
  if (key.is_array() && key.size() > kGetMax) throw Refusal("more than " + std::to_string(kGetMax) + " keys");
  Json objects = Json::array();
  std::size_t skipped = 0;
  if (key.is_array()) {
    for (const nlohmann::json &one : key) get_one(hub, args, one.get<std::string>(), objects, skipped);
  } else {
    get_one(hub, args, key.get<std::string>(), objects, skipped);
  }
  const std::size_t total = objects.size();
  return {{"objects", std::move(objects)}, {"total", total}, {"skipped", skipped}};
}

// ---- changes as they happen

constexpr std::string_view change_name(Change change) {
  constexpr std::string_view kNames[] = {"written", "written", "deleted", "published"};  // as enum Change
  return kNames[static_cast<std::size_t>(change)];
}

std::uint64_t wall_clock_us() {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch()).count());
}

class Changes final : public Watcher {
 public:
  explicit Changes(control::Push push) : push_(std::move(push)) {}

  // Sets the number of slots watched; called before the first can be live.
  void expect(std::size_t slots) { slots_ = slots; }

  void live(Slot &) override {
    if (++live_ == slots_) push_([&] { return Json{{"live", slots_}}; });
  }

  void changed(Slot &slot, Change change, PackedBytes packed, const Key *key) override {
    push_([&] {
      Json line = {{"at_us", wall_clock_us()},
                   {"db", slot.db.number},
                   {"type", slot.type.name()},
                   {"change", change_name(change)},
                   {"packed", hex(packed)}};
      if (key) line["key"] = slot.type.text(*key);
      return line;
    });
  }

 private:
  control::Push push_;
  std::size_t slots_ = 0;
  std::size_t live_ = 0;
};

// The local time as "12:34:56.789".
std::string clock_text(std::uint64_t at_us) {
  const auto seconds = static_cast<time_t>(at_us / 1'000'000);
  tm local{};
  localtime_r(&seconds, &local);
  return fmt::format("{:02}:{:02}:{:02}.{:03}", local.tm_hour, local.tm_min, local.tm_sec, at_us / 1000 % 1000);
}

}  // namespace

nlohmann::ordered_json query(Hub &hub, const nlohmann::json &args) {
  const std::string op = args.value("op", "stats");
  try {
    if (op == "stats") return stats(hub);
    if (op == "client") return client(hub);
    if (op == "ls" || op == "scan") return list(hub, args, op == "scan");
    if (op == "get") return get(hub, args);
  } catch (const nlohmann::json::exception &error) {
    throw Refusal("op '" + op + "': " + error.what());
  }
  throw Refusal("no op '" + op + "'; there are stats, client, ls, scan and get");
}

std::shared_ptr<void> watch(Hub &hub, const nlohmann::json &args, control::Push push) {
  std::vector<const RecordType *> types = RecordType::all();
  if (args.contains("type")) types = {&type_argument(args.at("type").get<std::string>())};
  auto changes = std::make_shared<Changes>(std::move(push));
  std::size_t slots = 0;
  each_database(hub, args, [&](Database &db) {
    for (const RecordType *type : types) slots += hub.watch(hub.slot(db, *type), changes);
  });
  if (slots == 0) throw std::runtime_error("no database is connected");
  changes->expect(slots);
  return changes;
}

nlohmann::ordered_json decode_change(const nlohmann::json &change) {
  const RecordType &type = type_argument(change.at("type").get<std::string>());
  const auto packed = unhex(change.at("packed").get<std::string>()).value_or(std::vector<std::uint8_t>());
  const Record record = unpack(type, packed);
  const auto key = record ? type.key_of(*record) : std::nullopt;
  Json shown = {{"at", clock_text(change.at("at_us").get<std::uint64_t>())},
                {"db", change.at("db")},
                {"change", change.at("change")},
                {"key", change.contains("key") ? change["key"].get<std::string>()
                        : key                  ? type.text(*key)
                                               : std::string(type.name())}};
  shown["record"] = record ? to_json(*record) : broken(packed);
  return shown;
}

void register_views(Hub &hub) {
  control::register_status("database", [&hub] { return status(hub); });
  health::add_check(health::Kind::ready, "database", [&hub] { return why_away(hub); });
  control::register_view("congestion", [&hub](const nlohmann::json &) { return congestion(hub); });
  control::register_view("mom", [&hub](const nlohmann::json &args) { return query(hub, args); });
  control::register_feed("mom",
                         [&hub](const nlohmann::json &args, control::Push push) { return watch(hub, args, std::move(push)); });
}

}  // namespace host::mom
