// For tests only: what a test cannot bring about from outside. Loop's thread.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace mom::testing {

// Makes the connection of `db` report a reconnect of `type` (qx_mom.h), in a later turn of the loop, as if the connection had
// gone through it: 0 and 3 leave the database unconnected, 1 and 2 connected, 1 with an empty store.
void provoke_reconnect(int32_t db, int32_t type);

// Stores `bytes` under the canonical key ("s_policy_kelim.flow:17:0") whatever they are, and notifies. False when the key is
// none.
bool put_raw(int32_t db, std::string_view key, std::span<const uint8_t> bytes);

// How many values and notifications were skipped as unusable so far.
uint64_t skipped();

}  // namespace mom::testing
