// One run of dmq: two clients of the store and, when a command needs it, the cache. The cache follows the store through
// `reader`; what dmq itself writes goes through `writer`, so that the cache can be cut off alone. The cache is started as
// any client starts it, once a process. No lock of its own; commands run on one thread.
#pragma once

#include <optional>

#include "dmq/names.h"
#include "dmq/topology.h"
#include "tq_dm_cache/dm_cache_status.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace dmq {

struct Settings {
    std::string store = "mem:";
    std::vector<std::string> load;
    bool json = false;
    double timeout = 10;     // seconds, of every wait
    std::optional<int> log;  // both thresholds of the library
};

inline int32_t milliseconds(double seconds) {
    return static_cast<int32_t>(seconds * 1000);
}

struct CloseClient {
    void operator()(tq_mom_handle *handle) const { tq_mom_client_close(handle); }
};
using Client = std::unique_ptr<tq_mom_handle, CloseClient>;

class Session {
public:
    // Opens the store, and puts the topologies of --load into it once all of them are verified.
    explicit Session(const Settings &settings);
    Session(const Session &) = delete;
    ~Session();

    tq_mom_handle *writer() { return writer_.get(); }
    tq_mom_handle *reader() { return reader_.get(); }
    bool embedded() const { return store_.starts_with("mem:"); }

    // Opens the client that the cache is to have, without starting the cache.
    void open_reader();

    // Starts the cache for these kinds (all when none is named) and returns at once. A second start changes nothing.
    void start(const std::vector<Kind> &kinds);

    // The same, and waits until it equals the store. Throws a Failure that names the row which holds it back.
    void synchronise(const std::vector<Kind> &kinds, const Settings &settings);

    // The cache is up and connected: it will see what is written now.
    bool follows() const { return started_ && !cut_off_; }
    void cut_off(bool cut) { cut_off_ = cut; }
    bool is_cut_off() const { return cut_off_; }

    // Writes objects, then waits until the cache has seen them.
    void write(const std::vector<Entry> &entries, double timeout);
    void erase(uint32_t db, const ProtobufCMessage &object_with_key, double timeout);

    // Waits until more than `applied` applications are done, and until all is printed that they cause.
    void settle_applied(uint32_t applied, double timeout);
    // The same for what the store has told already.
    void settle(double timeout);

private:
    void settle_edit(bool resynchronises, uint32_t applied, double timeout);

    std::string store_;
    Client writer_;
    Client reader_;
    bool started_ = false;
    bool cut_off_ = false;
};

// Which row keeps the cache from being complete? Empty: none.
std::string held_back();

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

dm_cache_stats stats_of(int32_t row);

}  // namespace dmq
