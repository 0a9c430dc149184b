// For tests only: states that a test cannot cause from outside. Loop's thread.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace host::mom::testing {

// Has the connection of `db` report a reconnect of `type` (qx_mom.h) in a later turn of the loop. 0 and 3 leave the database
// disconnected, 1 and 2 connected; 1 empties the store.
void provoke_reconnect(std::int32_t db, std::int32_t type);

// Stores any `bytes` under the canonical key ("s_policy_kelim.flow:17:0") and notifies. False when the key is malformed.
bool put_raw(std::int32_t db, std::string_view key, std::span<const std::uint8_t> bytes);

// The number of values and notifications skipped as unusable so far.
std::uint64_t skipped();

}  // namespace host::mom::testing
