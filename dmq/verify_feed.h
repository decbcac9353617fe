// What a store tells of some rows while somebody compares: how often each object has changed. It comes on the store client's
// thread, so the counts have a lock of their own.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>

#include "dmq/session.h"

namespace dmq {

using ObjectId = std::pair<int32_t, std::string>;  // a row, and an object's packed key

// By object; of static ports by their place, too.
using Changes = std::map<ObjectId, uint64_t>;

// The object's own changes, and those of the static port that its keys come from; null for `indexed`: from none.
std::vector<uint64_t> changes_of(const Changes &changes, const ObjectId &id, const ProtobufCMessage *indexed);

class Feed {
public:
    Feed(Session &session, std::vector<ObjectKind> kinds) : session_(session), kinds_(std::move(kinds)) {}
    Feed(const Feed &) = delete;
    ~Feed();  // waits for a callback that is running, until the deadline of the command

    // Returns when all has been heard that the store had to tell when it was called; the first time, when it tells of all rows.
    // Throws a Failure when the store does not answer in time.
    void mark();
    Changes changes();

private:
    // What the callback uses, under the lock.
    struct Heard {
        std::mutex lock;
        std::condition_variable changed;
        Changes changes;
        size_t answers = 0;  // subscriptions that are confirmed
    };
    static int32_t hear(tq_mom_handle *, store_msg *msg, void *privdata);

    Session &session_;
    const std::vector<ObjectKind> kinds_;
    size_t asked_ = 0;  // subscriptions
    std::unique_ptr<Heard> heard_ = std::make_unique<Heard>();
};

}  // namespace dmq
