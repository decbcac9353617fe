// What a store on a Redis server looks like there: names of keys and channels, the scripts that the server runs, and the
// frames that they publish. No state, no lock.
//
// A kind of a database is one hash: field the packed key, value the packed object. The channel of the same name tells
// every change, and one channel an object tells those who follow its fields. What a client asked for itself (pages of a
// scan, echoes) comes by its private channel. A script runs alone, so what it reads, writes and publishes is one moment
// in the one order that the server gives to all its subscribers.
//
// A frame is a letter and strings, each behind its length as four bytes, highest first:
//   S key value          was set                      C key value before   was replaced, to followers of fields
//   D key                was deleted                  E role               an echo: what the server is just now
//   P scan cursor (key value)..                       a page of a scan; cursor 0: the last one
#ifndef TQ_PLATFORM_REDIS_WIRE_H
#define TQ_PLATFORM_REDIS_WIRE_H

#include <string>
#include <string_view>
#include <vector>

#include "platform/store.h"

namespace tq {

std::string hash_of(const Place &place);  // and its channel
std::string channel_of(const Place &place, const std::string &key);
std::string new_private_channel();

struct Frame {
    char letter = 0;
    std::vector<std::string_view> strings;
};

// False: it is none, or has the wrong number of strings for its letter.
bool parse_frame(std::string_view bytes, Frame &frame);

// KEYS: the hash. ARGV: key, value, the object's channel.
inline constexpr std::string_view write_script = R"(
local h, k, v, c = KEYS[1], ARGV[1], ARGV[2], ARGV[3]
local fields = redis.call('PUBSUB', 'NUMSUB', c)[2] > 0
local before = fields and redis.call('HGET', h, k)
redis.call('HSET', h, k, v)
local m = struct.pack('>I4c0I4c0', #k, k, #v, v)
redis.call('PUBLISH', h, 'S' .. m)
if before then redis.call('PUBLISH', c, 'C' .. m .. struct.pack('>I4c0', #before, before))
elseif fields then redis.call('PUBLISH', c, 'S' .. m) end)";

// KEYS: the hash. ARGV: key, the object's channel. Answers 0 when there is no such object.
inline constexpr std::string_view erase_script = R"(
local h, k, c = KEYS[1], ARGV[1], ARGV[2]
if redis.call('HDEL', h, k) == 0 then return 0 end
local m = struct.pack('>c0I4c0', 'D', #k, k)
redis.call('PUBLISH', h, m)
redis.call('PUBLISH', c, m)
return 1)";

// KEYS: the hash. ARGV: private channel, scan, cursor. How many are asked for at once follows the largest that came, so
// that a page of large objects stays near the limit too.
inline constexpr std::string_view page_script = R"(
local limit, cursor, bytes, n, most = 262144, ARGV[3], 0, 4, 1
local m, last = {'P', '', '', '', ''}, 5
repeat
  local page = redis.call('HSCAN', KEYS[1], cursor, 'COUNT', n)
  cursor = page[1]
  for _, s in ipairs(page[2]) do
    m[last + 1], m[last + 2] = struct.pack('>I4', #s), s
    last, bytes = last + 2, bytes + #s
    if #s > most then most = #s end
  end
  n = math.max(1, math.min(64, 2 * n, math.floor((limit - bytes) / most)))
until cursor == '0' or bytes >= limit
m[2], m[3] = struct.pack('>I4', #ARGV[2]), ARGV[2]
m[4], m[5] = struct.pack('>I4', #cursor), cursor
redis.call('PUBLISH', ARGV[1], table.concat(m)))";

// ARGV: private channel.
inline constexpr std::string_view echo_script = R"(
local role = string.match(redis.call('INFO', 'replication'), 'role:(%a+)')
redis.call('PUBLISH', ARGV[1], struct.pack('>c0I4c0', 'E', #role, role)))";

}  // namespace tq

#endif
