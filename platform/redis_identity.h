// Who a server is, and whether what it holds is still what was read there. No state, no lock.
#pragma once

#include <string>
#include <string_view>

namespace tq {

// As the server tells it; an id that it does not know is empty.
struct Identity {
    std::string role, mode, run_id, replication_id, former_replication_id, content_id;
};

// False: it is none.
bool parse_identity(std::string_view text, Identity &identity);
// Why a server cannot be the store, however long one waits; empty: it can, if it is the master.
std::string unfit(const Identity &identity);
// A content without an id is one that no client could write to: it says nothing. A master takes another replication id for
// its first replica, and has no former one then; one that was a replica in between has.
bool same_content(const Identity &before, const Identity &now);

// What only one client hears, or nobody at a replica, is not replicated. KEYS: hashes to ask about. ARGV: an id for a store
// that has none; the channel of an echo, or '': then the identity is the answer; the echo's number.
inline constexpr std::string_view identity_script = R"(
local server, replication = redis.call('INFO', 'server'), redis.call('INFO', 'replication')
local function of(text, name) return string.match(text, name .. ':(%w*)') or '' end
local id = redis.pcall('HGET', 'dm:store', 'id')
if not id then
    redis.pcall('HSET', 'dm:store', 'id', ARGV[1])
    id = redis.pcall('HGET', 'dm:store', 'id')
end
local is = table.concat({of(replication, 'role'), of(server, 'redis_mode'), of(server, 'run_id'), of(replication, 'master_replid'),
    of(replication, 'master_replid2'), type(id) == 'string' and id or ''}, ' ')
if ARGV[2] == '' then return is end
local there = ''
for _, hash in ipairs(KEYS) do there = there .. (redis.pcall('EXISTS', hash) == 0 and '0' or '1') end
redis.set_repl(redis.REPL_NONE)
redis.call('PUBLISH', ARGV[2], struct.pack('>c0I4c0I4c0I4c0', 'E', #is, is, #there, there, #ARGV[3], ARGV[3])))";

// A command: what has just been connected to is asked for its identity.
std::string identity_question();

inline constexpr const char *no_master = "the server is no master any more";
inline constexpr const char *other_answer = "the server answers something else than was asked";

}  // namespace tq
