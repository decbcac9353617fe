// The connection on which a client hears: it subscribes, loses its server, finds it again. All but the constructor and
// begin() belongs to the loop's thread; it takes no lock.
//
//   waiting      no connection; the timer makes the next attempt, never at the same moment as others: soon while there is
//                no server or it is loading, which costs nobody anything, else later and later. Sentinels are asked
//                first, with a wait
//   connecting   credentials, a question for the server's identity, and what is to be followed are sent in one go; an error,
//                a server that is not the master, or silence: back to waiting
//   up           the answer to a fence behind all that has come. Silence, an error, the end of the connection, or lose():
//                back to waiting
//
// A fence is an UNSUBSCRIBE from a channel that nobody subscribes to: its answer takes its turn among what is pushed, and a
// server that takes no writes, as with a full disk, gives it all the same. Answers come in the order of what was sent, so
// one that is refused is known by its position.
//
// A server that is silent while it is asked something every tick is lost after ticks_of_silence. They are counted, not
// measured: when the loop's own thread was held up by a callback, what came meanwhile is read before the next tick.
#pragma once

#include <deque>
#include <random>

#include "platform/loop.h"
#include "platform/redis_connection.h"
#include "platform/redis_identity.h"
#include "platform/trouble.h"

namespace tq {

// What a feed tells. Its owner may call the feed from there.
class FeedOwner {
public:
    virtual ~FeedOwner() = default;
    virtual void subscribe_all() = 0;  // a new connection: subscribe to everything, then a fence
    virtual void heard(std::string_view channel, std::string_view bytes) = 0;
    virtual void subscribed(const std::string &channel, std::string_view refusal) = 0;  // empty: it is in force
    virtual void answered(uint64_t fence) = 0;
    virtual bool is_heard_elsewhere() = 0;  // since it was asked last: a sign of life, while nothing can be asked
    virtual void tick() = 0;                // while it is up
    virtual void lost() = 0;
};

// Tells its owner of all that happens on the connection, on the loop's thread.
class RedisFeed {
public:
    RedisFeed(const RedisUrl &url, const ConnectionName &name, Loop &loop, FeedOwner &owner);

    void begin(const Address &server);  // later it finds the server itself
    void subscribe(const std::string &channel) { ask({What::subscription, channel}, {"SUBSCRIBE", channel}); }
    void fence(uint64_t number);
    void send();

    // Everything followed is subscribed to: it is up. Whether it has the same content as the last time, but for changes.
    bool establish();
    bool is_up() const { return state_ == State::up; }
    const Address &server() const { return server_; }  // of the last attempt
    bool answered_at_once() const { return Clock::now() - asked_at_ < url_.probe / 5; }
    // Ends the connection, and goes for the next one. Its owner is told at once.
    void lose(const std::string &reason);
    // What the server said of itself on this connection.
    const Identity &identity() const { return identity_; }
    void adopt(const Identity &now) { last_identity_ = identity_ = now; }

private:
    enum class State { waiting, connecting, up };
    using EventPtr = std::unique_ptr<event, FreeEvent>;
    enum class What { credentials, identity, name, subscription, fence };
    // What was sent. Answers come in the order of sending, so the first of these is what the next answer is to.
    struct Asked {
        What what;
        std::string channel = {};
        uint64_t number = 0;
    };

    template <void (RedisFeed::*act)()> EventPtr new_event(int fd, short what);
    void start_timer(std::chrono::milliseconds delay);
    void connect();
    void on_timer();
    void on_readable();
    void ask(Asked asked, const Words &command);
    bool take_replies();
    void take(const redisReply &reply);
    void take_answer(const Asked &asked, const redisReply &reply);
    void take_error(const Asked &asked, std::string_view text);
    std::chrono::milliseconds next_delay();

    const RedisUrl &url_;
    const ConnectionName &name_;
    Loop &loop_;
    FeedOwner &owner_;
    Address server_;
    size_t attempts_ = 0;
    bool is_found_ = false;  // for the next attempt
    Clock::time_point asked_at_;
    std::string at_;  // for messages
    RedisConnection connection_;
    EventPtr readable_, writable_, timer_;
    State state_ = State::waiting;
    std::deque<Asked> asked_;  // what has no answer yet
    bool reached_ = false;     // a server took what was sent, and said nothing of loading
    int silent_ticks_ = 0;
    Identity identity_, last_identity_;
    Trouble trouble_;
    std::chrono::milliseconds retry_delay_;
    std::mt19937 random_{std::random_device{}()};
};

}  // namespace tq
