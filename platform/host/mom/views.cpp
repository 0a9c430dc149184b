#include "host/mom/views.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "host/control/control.h"
#include "host/mom/hub.h"
#include "host/mom/render.h"

namespace mom {

namespace {

constexpr size_t kListMax = 1000;  // keys or records in one answer unless the caller asks for another number

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

nlohmann::json stats(Hub &hub) {
  nlohmann::json types = nlohmann::json::array();
  each_slot(hub, [&](Slot &slot) {
    const auto held = hub.store().held(slot);
    nlohmann::json type = {{"db", slot.db.number}, {"type", slot.type.name()}, {"subscribers", slot.subscriptions.size()}};
    if (held) type.update({{"objects", held->objects}, {"bytes", held->bytes}});
    types.push_back(std::move(type));
  });
  nlohmann::json skipped = nlohmann::json::object();
  for (const auto &[kind, count] : hub.skipped()) skipped[kind] = count;
  return {{"store", hub.store().kind()},     {"types", std::move(types)},    {"delivered", hub.delivered()},
          {"refused_writes", hub.refused()}, {"queued", hub.later().size()}, {"skipped", std::move(skipped)}};
}

const RecordType &type_argument(std::string_view name) {
  if (const RecordType *type = RecordType::named(name)) return *type;
  std::string known;
  for (const RecordType *type : RecordType::all()) known += (known.empty() ? "" : ", ") + std::string(type->name());
  throw std::invalid_argument("no record type '" + std::string(name) + "'; there are " + known);
}

// The databases that a request names, or all.
template <typename Work>
void each_database(Hub &hub, const nlohmann::json &args, Work work) {
  if (!args.contains("db")) {
    for (Database &db : hub.databases()) work(db);
    return;
  }
  const auto number = args.at("db").get<int32_t>();
  Database *db = hub.database(number);
  if (!db) throw std::invalid_argument("no database " + std::to_string(number) + "; there are 0, 4 and 8");
  work(*db);
}

nlohmann::json record_json(Hub &hub, Slot &slot, const Key &key, Bytes packed) {
  qx_obj *object = hub.make_object(slot, key, packed);
  if (!object) return {{"broken", true}, {"length", packed.size()}};
  const bool holder = object->cmd == QX_MOM_CMD_HASH_SET;
  const auto *record =
      static_cast<ProtobufCMessage *>(holder ? static_cast<qx_mom_hash_value *>(object->value)->record : object->value);
  nlohmann::json out = to_json(*record);
  free_object(object);
  return out;
}

nlohmann::json list(Hub &hub, const nlohmann::json &args, bool with_records) {
  const RecordType &type = type_argument(args.at("type").get<std::string>());
  const size_t limit = args.value("limit", kListMax);
  nlohmann::json objects = nlohmann::json::array();
  size_t total = 0;
  each_database(hub, args, [&](Database &db) {
    Slot &slot = hub.slot(db, type);
    hub.store().scan_sync(slot, [&](const Key &key, Bytes packed) {
      if (++total > limit) return;
      nlohmann::json object = {{"db", db.number}, {"key", type.text(key)}};
      if (with_records) object["record"] = record_json(hub, slot, key, packed);
      objects.push_back(std::move(object));
    });
  });
  return {{"objects", std::move(objects)}, {"total", total}};
}

nlohmann::json get(Hub &hub, const nlohmann::json &args) {
  const auto text = args.at("key").get<std::string>();
  const RecordType &type = type_argument(text.substr(0, text.find(':')));
  const auto key = type.parse(text);
  if (!key) throw std::invalid_argument("'" + text + "' is no key of " + std::string(type.name()));
  nlohmann::json objects = nlohmann::json::array();
  each_database(hub, args, [&](Database &db) {
    Slot &slot = hub.slot(db, type);
    std::vector<uint8_t> packed;
    if (hub.store().get_sync(slot, *key, packed) != 0) return;
    objects.push_back({{"db", db.number}, {"key", text}, {"record", record_json(hub, slot, *key, packed)}});
  });
  const size_t total = objects.size();
  return {{"objects", std::move(objects)}, {"total", total}};
}

nlohmann::json database_view(Hub &hub, const nlohmann::json &args) {
  const std::string op = args.value("op", "stats");
  try {
    if (op == "stats") return stats(hub);
    if (op == "ls" || op == "scan") return list(hub, args, op == "scan");
    if (op == "get") return get(hub, args);
  } catch (const nlohmann::json::exception &error) {
    throw std::invalid_argument("op '" + op + "': " + error.what());
  }
  throw std::invalid_argument("no op '" + op + "'; there are stats, ls, scan and get");
}

}  // namespace

void register_views(Hub &hub) {
  host::control::register_view("congestion", [&hub](const nlohmann::json &) { return congestion(hub); });
  host::control::register_view("mom", [&hub](const nlohmann::json &args) { return database_view(hub, args); });
}

}  // namespace mom
