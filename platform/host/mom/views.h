// What an operator sees of the database: over the control socket of the process that has it (views "mom" and "congestion", feed
// "mom"), or from kelimctl's own connection to the server. Loop's thread.
//
// A query by its argument "op":
//   stats                     per database and type: objects, bytes, subscribers
//   client                    of this process: databases connected, notifications delivered, writes refused, what was skipped
//   ls {type, db?, limit?}    canonical keys
//   scan {type, db?, limit?}  keys with decoded records
//   get {key, db?}            one decoded record; of a list of up to 100 keys those that there are
// The feed gives a line for each change {type?, db?}. Without "db" every database that the type is found in, without "type" every
// type of the schema.
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>

#include "host/control/control.h"

namespace mom {

class Hub;

// Until the runtime is released.
void register_views(Hub &hub);

// Throws host::control::Refusal for a request that cannot be, std::runtime_error when the database does not answer.
nlohmann::ordered_json query(Hub &hub, const nlohmann::json &args);

// Feeds `push` with raw changes until the result is released: first {"live": N}, when N types are watched,
// then {"at_us", "db", "type", "change", "packed"} each, with "key" where the store knows it. Bytes, because whoever reads them
// has more time to decode them than the loop.
std::shared_ptr<void> watch(Hub &hub, const nlohmann::json &args, host::control::Push push);

// Such a change as people read it: {"at", "db", "change", "key", "record"}; no record where the bytes are none of the type.
nlohmann::ordered_json decode_change(const nlohmann::json &change);

}  // namespace mom
