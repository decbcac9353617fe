// Scans, answered page by page: one at a time, in the order in which they were asked for. A page asks for as many objects as
// fit well into one answer. No lock: the store's.
#pragma once

#include <deque>

#include "platform/redis_connection.h"
#include "platform/store.h"

namespace tq {

// The first one is under way.
class RedisScans {
public:
    struct Scan {
        std::string hash;
        Ticket ticket;
        bool is_told = false;  // that it is held
        uint64_t number = 0;
        std::string cursor = "0";
        size_t count = 4;  // to ask for: few at first, since nothing is known of the objects
        size_t largest = 1;
    };

    void add(Scan scan);
    // The scan whose next page is to be asked for, which is taken to be done. Null: nobody wants one, or one is due.
    const Scan *ask();
    bool is_page_due() const { return page_due_; }
    // While a page is due: whose.
    const Scan &current() const { return scans_.front(); }
    // The page has come: the cursor of the next one, and a list of pairs.
    Page take(const redisReply &reply);
    // It is refused: all scans of its place, which are the caller's now.
    std::vector<Scan> refuse();
    // The connection is lost, and with it all scans.
    void lose();

private:
    static constexpr size_t largest_page = 256;  // objects

    std::deque<Scan> scans_;
    uint64_t last_number_ = 0;
    bool page_due_ = false;
    // Fewer after a connection was lost with a page under way: a server that cuts off whoever asks for so much would do it again,
    // and again.
    size_t most_at_once_ = largest_page;
};

}  // namespace tq
