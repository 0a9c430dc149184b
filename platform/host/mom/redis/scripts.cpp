#include "host/mom/redis/scripts.h"

#include <openssl/sha.h>

#include <array>

namespace host::mom {

namespace {

// A foreign value of another Redis type under one of our keys is deleted too, without a last record. An object in the index that
// no longer exists, because it was deleted by hand, is announced as well: processes that acted on it must learn of its end.
constexpr std::string_view kDel = R"(
local members, objects, told, gone, found = {}, {}, {}, {}, 0
for i = 5, #ARGV, 2 do
  members[#members + 1] = ARGV[i]
  objects[#objects + 1] = ARGV[1] .. ARGV[i]
end
local values = redis.call('MGET', unpack(objects))
for n, member in ipairs(members) do
  local value = values[n] or redis.call('EXISTS', objects[n]) == 1 and ''
  told[#told + 1] = ARGV[2 * n + 2]
  if value then
    found = found + 1
  elseif redis.call('SISMEMBER', KEYS[1], member) == 1 then
    value = ''
  end
  if value then
    told[#told + 1] = 'D' .. member .. '\0' .. struct.pack('<I4', #value)
    told[#told + 1] = value
    gone[#gone + 1] = 'D' .. member .. '\0\0\0\0\0'
  end
end
told[#told + 1] = ARGV[#ARGV]
redis.call('DEL', unpack(objects))
redis.call('SREM', KEYS[1], unpack(members))
local text = table.concat(told)
if text ~= '' then redis.call('PUBLISH', ARGV[2], text) end
if #gone > 0 then redis.call('PUBLISH', ARGV[3], table.concat(gone)) end
return found)";

constexpr std::string_view kPut = R"(
local kind = redis.call('EXISTS', KEYS[2]) == 1 and 'R' or 'C'
redis.call('SET', KEYS[2], ARGV[3])
redis.call('SADD', KEYS[1], ARGV[1])
redis.call('PUBLISH', ARGV[2], kind .. ARGV[4])
return 0)";

constexpr std::string_view kPutIfAbsent = R"(
if redis.call('EXISTS', KEYS[2]) == 1 then return 1 end
redis.call('SET', KEYS[2], ARGV[3])
redis.call('SADD', KEYS[1], ARGV[1])
redis.call('PUBLISH', ARGV[2], ARGV[5] .. ARGV[4])
return 0)";

// All objects share one deadline, which the first part computes; each part returns the milliseconds that are left until then.
// Each object adds more to it than a busy server needs for one, so that nothing expires before the server has seen the writes
// after the last part. A part that runs after the deadline gives its objects 50 ms.
//
// The server does not announce an object that expires within the very script that sets its expiry, which happens when the server
// is paused there for longer than that: objects missing after such a long part are announced here.
constexpr std::string_view kExpirePart = R"(
local function now()
  local time = redis.call('TIME')
  return time[1] * 1000 + math.ceil(time[2] / 1000)
end
local begin = now()
local deadline = tonumber(ARGV[2]) or begin + ARGV[4] + math.floor(redis.call('SCARD', KEYS[1]) * ARGV[7] / 1000)
local left = math.max(deadline - begin, 50)
local part = redis.call('SSCAN', KEYS[1], ARGV[1], 'COUNT', 1000)
local after = string.format('%.0f', left)
for _, member in ipairs(part[2]) do redis.call('PEXPIRE', ARGV[3] .. member, after) end
if now() - begin >= left then
  for _, member in ipairs(part[2]) do
    if redis.call('EXISTS', ARGV[3] .. member) == 0 then
      for channel = 5, 6 do redis.call('PUBLISH', ARGV[channel], 'D' .. member .. '\0\0\0\0\0') end
    end
  end
end
return {part[1], string.format('%.0f', deadline), deadline - now()})";

constexpr std::string_view kPersistPart = R"(
local part = redis.call('SSCAN', KEYS[1], ARGV[1], 'COUNT', 1000)
for _, member in ipairs(part[2]) do redis.call('PERSIST', ARGV[3] .. member) end
return {part[1], ''})";

// The server deletes an object past its deadline when the object is accessed.
constexpr std::string_view kNoticePart = R"(
local part = redis.call('SSCAN', KEYS[1], ARGV[1], 'COUNT', 1000)
for _, member in ipairs(part[2]) do redis.call('EXISTS', ARGV[3] .. member) end
return {part[1], ''})";

constexpr std::string_view kForget = R"(
for i = 2, #ARGV do
  if redis.call('EXISTS', ARGV[1] .. ARGV[i]) == 0 then redis.call('SREM', KEYS[1], ARGV[i]) end
end
return 0)";

constexpr std::array kAll = {kDel, kPut, kPutIfAbsent, kExpirePart, kPersistPart, kNoticePart, kForget};

RedisScript make(std::string_view text) {
  std::array<unsigned char, SHA_DIGEST_LENGTH> digest;
  SHA1(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest.data());
  std::string sha;
  for (const unsigned char byte : digest) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    sha += {kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return {text, sha};
}

}  // namespace

namespace scripts {

const RedisScript &del() {
  static const RedisScript script = make(kDel);
  return script;
}
const RedisScript &put() {
  static const RedisScript script = make(kPut);
  return script;
}
const RedisScript &put_if_absent() {
  static const RedisScript script = make(kPutIfAbsent);
  return script;
}
const RedisScript &expire_part() {
  static const RedisScript script = make(kExpirePart);
  return script;
}
const RedisScript &persist_part() {
  static const RedisScript script = make(kPersistPart);
  return script;
}
const RedisScript &notice_part() {
  static const RedisScript script = make(kNoticePart);
  return script;
}
const RedisScript &forget() {
  static const RedisScript script = make(kForget);
  return script;
}

}  // namespace scripts

std::string_view script_text(std::size_t number) {
  return number < kAll.size() ? kAll[number] : std::string_view();
}

}  // namespace host::mom
