// One run of dmq: two clients of the store and, when a command needs it, the cache. The cache follows the store through
// `reader`; what dmq itself writes goes through `writer`, so that the cache can be cut off alone. The cache is started as
// any client starts it, once a process. Attached to another process, the cache follows nothing and is filled with that process's
// objects for each command. No lock of its own; commands run on one thread.
#pragma once

#include <optional>

#include "dmq/attach.h"
#include "dmq/names.h"
#include "dmq/topology.h"
#include "tq_dm_cache/dm_cache_status.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace dmq {

// Options that every command has.
struct Settings {
    std::string store;    // empty: not named, which is mem:
    std::string attach;   // a process whose cache is shown; empty: dmq's own, which follows the store
    std::string inspect;  // the folder where processes let themselves be inspected; empty: not named
    std::vector<std::string> load;
    bool json = false;
    double timeout = 10;     // seconds, of all waits of a command
    std::optional<int> log;  // both thresholds of the library
};

struct CloseClient {
    void operator()(tq_mom_handle *handle) const {
        if (!left_behind) tq_mom_client_close(handle);
    }
};
using Client = std::unique_ptr<tq_mom_handle, CloseClient>;

// One object as it was read and as it is to be.
struct Edit {
    uint32_t db;
    Message before;  // null: there was none
    Message after;   // null: it is to be deleted
    bool damaged;    // its bytes could not be read: what is there is written over
    const ProtobufCMessage &object() const { return after ? *after : *before; }
};

// One a process, since the cache is the process's. Every wait ends with the deadline of the command at hand.
class Session {
public:
    // Opens the store, and puts the topologies of --load into it once all of them are verified: the time of the first
    // command begins behind that reading.
    explicit Session(const Settings &settings);
    Session(const Session &) = delete;
    ~Session();

    // The time of the next command begins.
    void begin(double timeout) { deadline_ = Deadline(timeout); }

    int32_t time_left() const { return deadline_.left(); }  // milliseconds
    const Deadline &deadline() const { return deadline_; }

    // Runs a call that may wait for the store. Throws a Failure when the command's time is over; the call may then still
    // run, so everything that it uses belongs to it, but the clients.
    template <class Call> auto ask(const std::string &awaited, Call call) {
        return within(deadline_, "waited for " + awaited, std::move(call));
    }

    tq_mom_handle *writer() { return writer_.get(); }
    tq_mom_handle *reader() { return reader_.get(); }
    bool embedded() const { return store_.starts_with("mem:"); }
    const std::string &shown_store() const { return shown_; }
    // What to say of it when it is empty.
    std::string store_name() const;

    // Opens the client that the cache is to have, without starting the cache.
    void open_reader();

    // The process that is shown in place of dmq's own cache; null: none is.
    const Picture *picture() const { return picture_ ? &*picture_ : nullptr; }
    const Picture *earlier_picture() const { return earlier_ ? &*earlier_ : nullptr; }  // what it replaced
    int64_t picture_ms() const { return picture_ms_; }                                  // when it was begun
    // At most so long ago the cache that is shown was equal to the store; -1: nobody knows.
    int64_t age_ms() const;
    bool is_lost() const;  // the cache's own connection to the store

    // Starts the cache for these kinds (all when none is named) and returns at once. A second start changes nothing.
    void start(const std::vector<ObjectKind> &kinds);

    // The same, and waits until it equals the store. Throws a Failure that names the row which holds it back. Attached: makes it
    // equal to what the process has now.
    void synchronise(const std::vector<ObjectKind> &kinds);

    // The cache is up and connected: it will see what is written now.
    bool follows() const { return started_ && !cut_off_; }
    void cut_off(bool cut) { cut_off_ = cut; }
    bool is_cut_off() const { return cut_off_; }

    // Writes objects, then waits until the cache has seen them.
    void write(std::vector<Entry> entries);
    // The same for changes of what was read, in order, as long as nobody else has changed it since.
    void write(std::vector<Edit> edits);

    // Waits until what the store has told is in the cache, or, with a count of applications, until there are more; then
    // until all is printed that this causes.
    void settle(uint32_t applied = 0);

private:
    Client open();
    void begin_start(const std::vector<ObjectKind> &kinds);
    void take_picture(const std::vector<ObjectKind> &kinds);

    std::string store_, shown_;  // shown without its secret
    bool named_;
    std::string attach_, inspect_;  // the process as it was named, and the folder
    std::string attached_;          // the path of its socket
    std::optional<Picture> picture_, earlier_;
    int64_t picture_ms_ = 0;
    Deadline deadline_;
    Client writer_;
    Client reader_;
    std::future<std::pair<int32_t, bool>> starting_;  // the code, and whether memory was short
    std::thread starter_;
    bool started_ = false;
    bool cut_off_ = false;
};

// Milliseconds of the clock that no person sets.
int64_t now_ms();

// What keeps the cache from being complete? Empty: nothing.
std::string waits_for();

// For what borrows cached messages.
class CacheLock {
public:
    CacheLock() { dm_cache_lock(); }
    CacheLock(const CacheLock &) = delete;
    ~CacheLock() { dm_cache_unlock(); }
};

// Visits the cached objects of a row under the cache lock.
template <class Visit> void each_cached(int32_t row, Visit visit) {
    const auto call = [](ProtobufCMessage *object, uintptr_t *word) -> int32_t {
        (*reinterpret_cast<Visit *>(*word))(*object);
        return 0;
    };
    const CacheLock lock;
    dm_cache_foreach_obj(row, call, reinterpret_cast<uintptr_t>(&visit));
}

// Of the cache that is shown, be it another process's.
dm_cache_stats stats_of(int32_t row);
int32_t flag_of(int32_t row);  // as given to dm_cache_sub_obj()

// Queries that read the store ask one that somebody has named, or that belongs to the cache that is shown.
bool asks_its_store();

}  // namespace dmq
