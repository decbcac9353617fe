// Reads of the store for objects that the cache lacks. Takes the cache lock to look into the cache and to cache what was read,
// never around a call of the store: that waits for a round trip, so the caller does not hold the lock either, which the
// analysis refuses within a function. Each logs its own failure in the name of the query, and releases its reply.
#pragma once

#include <utility>

#include "cache/access.h"
#include "cache/row_update.h"
#include "query/shapes.h"

namespace dm {

// change_mark(), for a scan that is about to begin.
uint64_t change_mark_now();

// How an object is asked for: as a record with all its fields, or as a bare object.
enum class ReadBy { record, object };

// The database of every object that queries ask for one by one.
constexpr uint32_t device_db = 1;

// A reply of the store. `obj` is null when the read failed.
class StoreReply {
public:
    StoreReply(int32_t row, uint32_t db, const ProtobufCMessage *key, ReadBy by, Caller caller)
        DM_LOCKS(locks_excluded(cache_mutex));
    ~StoreReply();
    StoreReply(const StoreReply &) = delete;
    StoreReply &operator=(const StoreReply &) = delete;

    const ProtobufCMessage *obj() const { return obj_; }

    // The mark of the cache when the object was asked for.
    uint64_t since() const { return since_; }

    // Caches the object unless it has been overtaken since it was asked for.
    void cache() const { cache_object(row_, obj_, since_); }

    // Gives the reply back before the scope ends; the store's code.
    int32_t release();

    // The same: 0, or -1 after a line in the caller's name.
    int32_t give_back(Caller caller = Caller{});

private:
    // Asks the store for the object; its code.
    int32_t ask(uint32_t db, const ProtobufCMessage *key, ReadBy by, Caller caller)
        DM_LOCKS(locks_excluded(cache_mutex));

    int32_t row_;
    uint64_t since_;
    result_rec *record_ = nullptr;
    ProtobufCMessage *obj_ = nullptr;
};

// The same for a kind: false when the read failed.
template <class T> class StoreRead : public StoreReply {
public:
    template <class Key = NoKey>
    explicit StoreRead(ReadBy by, const Key &key = {}, Caller caller = Caller{}, uint32_t db = device_db)
        DM_LOCKS(locks_excluded(cache_mutex))
        : StoreReply(row_of<T>, db, key_message(key), by, caller) {}

    explicit operator bool() const { return obj(); }
    const T &operator*() const { return *as<T>(obj()); }
};

// Asks the store for every object of a row, on this thread; `priv` is handed to the callback. The store's code; -1 before
// start-up.
int32_t scan_store(int32_t row, tq_mom_msg_cb callback, void *priv) DM_LOCKS(locks_excluded(cache_mutex));

// The answer that an object gives: the cached one under the lock, else, when rt is 1, the store's. -1 when neither has it.
template <class T, class Key, class Answer>
int32_t answer_from(const Key &key, uint8_t rt, const Answer &answer, Caller caller = Caller{}) {
    int32_t result = -1;
    if (read_cached<T>(key, [&](const T &object) { result = answer(object); })) return result;
    if (rt != 1) return -1;
    const StoreRead<T> read(ReadBy::record, key, caller);
    return read ? answer(*read) : -1;
}

// One field of it through an out-value.
template <class T, class Field, class Key>
int32_t read_field(const Key &key, Field T::*field, Field *out, uint8_t rt, Caller caller = Caller{}) {
    if (!out) return -1;
    return answer_from<T>(
        key, rt,
        [=](const T &object) {
            *out = object.*field;
            return 0;
        },
        caller);
}

}  // namespace dm
