// One client of a store: what it follows, what it is owed, and the delivery of what the store tells. Callbacks run on the
// loop's thread with no lock held.
//
// A handle belongs to the process that opened it: a child has its memory, but not its thread, and shares its connections.
// Whoever is in a call holds the client: closing waits until all have left, and a call that comes meanwhile fails.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>

#include "platform/guard.h"
#include "platform/loop.h"
#include "platform/message.h"
#include "platform/store.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace tq {

// Whom to call. Two subscriptions with the same listener are one.
struct Listener {
    tq_mom_msg_cb callback;
    void *privdata;
    bool operator==(const Listener &) const = default;
};

// A field of one object, and whom a change of it is told.
struct FollowedField {
    uint32_t number;
    Listener listener;
    bool operator==(const FollowedField &) const = default;
};

// What a client asked for. Shared with the store as a Ticket, and read on any thread without a lock: nothing in it changes once
// the client has it, but `number`.
struct Request {
    Place place;
    const ProtobufCMessageDescriptor *kind;
    Listener listener;                       // of a field subscription: who is told that it stands
    std::string key = {};                    // of the one object whose fields are followed
    std::vector<FollowedField> fields = {};  // empty: whole objects are followed
    uint64_t number = 0;                     // in the order in which they were last asked for; the client's mutex
};

// Public functions run on any thread; what the store tells is posted to the loop, which alone calls back. An event that was
// posted before the connection was lost is of an earlier epoch and is dropped, since the scan that follows brings newer.
class Client final : private Sink {
public:
    // Null, after a line on standard error: see `error`.
    static std::unique_ptr<Client> open(const char *url, int32_t &error);
    ~Client() override;

    bool is_of_this_process() const;
    bool enter();  // false: it is being closed
    void leave();
    // Ends the calls that wait, and waits until none is under way. False, and nothing is done: one of this thread is, or
    // another thread closes it.
    bool close();

    tq_mom_handle *handle() { return &handle_; }
    Loop &loop() { return loop_; }
    Store &store() { return *store_; }
    uint64_t damaged() const { return damaged_; }
    const std::string &shown_store() const { return shown_store_; }
    int64_t heard_ms_ago();

    void connect(tq_mom_ready_cb ready, uintptr_t privdata);
    bool wait_connected(std::chrono::milliseconds timeout);
    void set_reconnect(uint32_t db, tq_mom_reconnect_cb callback);
    void set_connection(tq_mom_connection_cb callback, void *privdata);

    void subscribe(Request request);
    void scan(Request request);
    void forget(tq_mom_msg_cb callback);
    int32_t scan_here(const Request &request);
    int32_t read(const Place &place, const ProtobufCMessageDescriptor &kind, const std::string &key,
                 ProtobufCMessage *&message);
    int32_t replace(const Target &target, const ProtobufCMessage *before, const ProtobufCMessage *after);

private:
    bool is_closing();
    bool is_forgotten(const Request &request);

    static constexpr Clock::duration never = Clock::duration::min();

    struct Ready {
        tq_mom_ready_cb callback;
        uintptr_t privdata;
    };
    struct ConnectionListener {
        tq_mom_connection_cb callback;
        void *privdata;
    };

    Client();

    // What the store tells, on any thread.
    void post(Event event) override;
    void heard_until(Clock::time_point when) override;
    void lost() override;
    void connected(int32_t reason, std::vector<Ticket> owed) override;

    template <class Deliver> void post_counted(Deliver deliver);
    void note_heard(Clock::time_point then);

    // Its delivery, on the loop's thread.
    void deliver(const Confirmed &event, uint64_t epoch);
    void deliver(const OnHold &event, uint64_t epoch);
    void deliver(const Changed &event, uint64_t epoch);
    void deliver(const Page &event, uint64_t epoch);
    void push(const Request &request, const Listener &listener, const Changed &event);
    void reply(const Request &request, const Object &object);
    void confirm(const Request &request);
    void on_connected(int32_t reason, const std::vector<Ticket> &owed);
    void tell_connection(int32_t reason);
    void call_ready();

    tq_mom_handle handle_ = {};
    std::string shown_store_;  // its URL without what may be secret
    const uint32_t process_;

    std::mutex calls_mutex_;  // guards what follows; taken last
    std::condition_variable calls_over_;
    int calls_ = 0;
    bool closing_ = false;

    std::atomic<uint64_t> epoch_ = 0;  // how often the connection was lost: events of an earlier epoch are void
    std::atomic<uint64_t> damaged_ = 0;
    std::atomic<uint64_t> undelivered_ = 0;            // what the store has posted and the loop has not run
    std::atomic<Clock::duration> heard_until_{never};  // of the clock: what was told until then has been delivered
    std::atomic<bool> tells_at_once_ = false;
    std::atomic<bool> has_missed_ = false;  // memory was missing for something that the store told on this connection
    std::atomic<bool> has_forgotten_ = false;
    bool up_ = true;  // as the loop's thread has been told

    std::mutex mutex_;  // guards what follows; taken before the store's lock, never while a callback runs
    std::condition_variable back_;
    std::vector<Ticket> subscriptions_;
    uint64_t requests_ = 0;
    std::map<tq_mom_msg_cb, uint64_t> forgotten_;  // the number of the last request that a callback does not hear of
    std::vector<Ready> ready_;
    std::map<uint32_t, tq_mom_reconnect_cb> reconnect_;
    ConnectionListener connection_ = {};

    Loop loop_;
    std::unique_ptr<Store> store_;  // destroyed first: it tells the rest
};

// Null: it is no handle of this process.
inline Client *client_of(const tq_mom_handle *handle) {
    auto *client = handle ? static_cast<Client *>(handle->impl) : nullptr;
    return client && client->is_of_this_process() ? client : nullptr;
}

// A call of a C function, from here to the end of its scope, during which the client stays. Null: it is no handle of this
// process, or it is being closed.
class Call {
public:
    explicit Call(const tq_mom_handle *handle);
    ~Call();
    Call(const Call &) = delete;
    Call &operator=(const Call &) = delete;

    Client *client() const { return client_; }
    static bool is_in(const Client &client);  // this thread is

private:
    Client *client_;
    const Call *const outer_;  // on this thread: a scan's callback may call again
};

// No exception leaves a C function. TQ_MOM_E_ARGUMENT when there is no client to hold.
template <class F> int32_t with_client(const tq_mom_handle *handle, F &&act) {
    return guarded([&]() -> int32_t {
        const Call call(handle);
        return call.client() ? act(*call.client()) : TQ_MOM_E_ARGUMENT;
    });
}

}  // namespace tq
