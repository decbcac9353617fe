#ifndef TQ_DM_TESTS_SCRIPTED_PLATFORM_H
#define TQ_DM_TESTS_SCRIPTED_PLATFORM_H

// A platform that does nothing by itself: it writes down what the library asks for, answers what the test says, and
// delivers when the test calls. Timers run by hand, in virtual time. One thread at a time, except for synchronous reads
// and writes of objects, which any thread may make meanwhile.

#include "tests/support/messages.h"

#include "tq_dm_cache/tq_platform.h"

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// A subscription or a scan that the library asked for.
struct Request {
    uint32_t db = 0;
    const ProtobufCMessageDescriptor *kind = nullptr;
    tq_mom_msg_cb callback = nullptr;
    void *privdata = nullptr;
    bool confirmed = false;  // subscriptions only
    bool sent = false;       // for a test that models the way to the store
    uint32_t field = 0;      // subscriptions to a field only

    bool is(const Request &other) const {
        return db == other.db && kind == other.kind && callback == other.callback && privdata == other.privdata;
    }
    // What the client receives for it; a reply of an object, or that it is damaged; the end of a scan.
    int32_t deliver(int32_t cmd, void *value, int32_t flag = 0, int32_t result = 0) const;
    int32_t reply(const Message &object, bool damaged = false) const;
    int32_t end() const { return deliver(TQ_MOM_CMD_REPLY, nullptr, /*flag=*/1); }
};

struct Connection {
    uint32_t db = 0;
    tq_mom_ready_cb ready = nullptr;
    uintptr_t privdata = 0;
    tq_mom_reconnect_cb reconnect = nullptr;
};

struct ArmedTimer {
    int32_t (*handler)(tq_thread_timer *) = nullptr;
    int64_t due_ms = 0;
    tq_thread_master *master = nullptr;
};

struct ScriptedPlatform {
    tq_mom_handle handle{};

    // What the library did. A call is its name and what matters of its arguments: "connect 3", "set_reconnect_cb 3",
    // "connect_sync", "subscribe 1 p_dev.card_info", "subscribe_field 1 p_dev.card_info 6 7", "scan 1 p_dev.card_info",
    // "scan_time 1", "timer 17 10 NAME", "cancel 17", "hgetall 1 p_dev.card_info", "get ..", "scan_sync ..", "set ..",
    // "cap_init PATH", "cap KEY".
    std::vector<std::string> calls;
    std::vector<Connection> connections;
    std::vector<Request> subscriptions;  // one per database, kind, callback and privdata
    std::vector<Request> scans;          // asked for and not yet ended
    std::map<tq_thread_timer *, ArmedTimer> timers;
    std::atomic<int> reads{0};       // synchronous ones
    std::atomic<int> unreleased{0};  // results and capability handles that are still out

    // What the test says. A call answers the code of the longest entry that its text begins with, else 0; a refused call
    // leaves no trace but its text. A synchronous read carries the code in its error word; `no_reply`: no record at all.
    static constexpr int32_t no_reply = INT32_MIN;
    std::map<std::string, int32_t> answers;
    std::function<void(const std::string &call)> during_call;
    std::function<void()> during_read;  // the store has answered, the reader has not got it yet
    Message instead;                    // what a synchronous read finds, whatever it asks for
    int32_t reconnect_scan_ms = 10;
    std::map<std::string, int32_t> capabilities;
    int64_t now_ms = 0;
    int64_t heard_ms = -1;

    // The store's content, for synchronous reads and for synchronise(). An equal key replaces.
    void put(const Message &object, uint32_t db = 1);
    void erase(const Message &object, uint32_t db = 1);

    // Deliveries. Each finds its receivers by the kind of the object.
    void become_ready();                                // every connection
    void confirm();                                     // every subscription that is not confirmed
    void push(const Message &object);                   // set
    void push_delete(const Message &object);            // delete, with only the key
    void answer_scans();                                // every scan from the store's content, new ones included
    void lose_connection(uint32_t db, int32_t reason);  // the connection is back: scans are void, reconnect reported
    void fire_timers(int64_t until_ms = INT64_MAX);     // time goes on until none is due by then
    void synchronise();                                 // ready, confirmed, scanned: the cache is live

    std::map<std::string, Message> objects;  // by database, kind and key
};

extern ScriptedPlatform platform;

#endif
