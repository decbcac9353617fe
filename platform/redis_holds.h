// Places that are held: the server refuses a subscription or a page of them, so whoever wants them waits, and whoever wants
// others does not. A held place is tried again at a growing distance, and released when all of it is granted.
//
// The hold of a place outlives the connection, with its trouble and nothing else: the next connection may be refused just so,
// which is the same trouble. No lock: the store's.
#pragma once

#include <map>

#include "platform/store.h"
#include "platform/trouble.h"

namespace tq {

// What is subscribed to: a place, or one object of it.
struct Channel {
    std::string hash;  // of the place
    std::vector<Ticket> followers = {};
    bool is_refused = false;
    bool has_objects = false;  // a place: there is an object in it, as far as was told
};

// What a follower is owed once its channel is in force.
struct Confirmation {
    Ticket ticket;
    const Channel *channel;
};

// What waits for a place. Everybody in it has been told so.
struct Hold {
    Trouble trouble;
    bool stands = false;  // else only the trouble is left, of an earlier connection
    Clock::time_point next = {};
    std::chrono::milliseconds pause = {};
    std::vector<Ticket> scans = {};
    std::vector<Confirmation> confirmations = {};
};

// A place is held for everybody who wants it at once, and asked for once.
class RedisHolds {
public:
    explicit RedisHolds(const std::string &store) : store_(store) {}

    // The place of this hash is refused, once more or for the first time: when it is tried again is put off.
    Hold &refuse(const std::string &hash, const std::string &fault);
    // Null: it is not held.
    Hold *find(const std::string &hash);
    // What is to be tried now. Each of these waits for its answer, or for a minute.
    std::vector<std::string> take_due(Clock::time_point now);
    // All of it is granted: the trouble is over, and what has waited is the caller's.
    Hold release(const std::string &hash);
    // The connection is lost, and with it the scans; these confirmations are still owed.
    std::vector<Confirmation> lose();

private:
    const std::string store_;  // as it is shown
    std::map<std::string, Hold> holds_;
};

}  // namespace tq
