// The connection on which a client hears: it subscribes, loses its server, finds it again. All but the constructor and
// begin() belongs to the loop's thread; it takes no lock.
//
//   waiting      no connection; the timer makes the next attempt, never at the same moment as others: soon while there is
//                no server or it is loading, which costs nobody anything, else later and later
//   connecting   credentials, the server's run id and role, and what is to be followed are sent in one go; an error, a
//                server that is not the master, or silence: back to waiting
//   up           the answer to a ping behind all that has come. Silence, an error, the end of the connection, or drop():
//                back to waiting
//
// A server that is silent while it is asked something every tick is lost after ticks_of_silence. They are counted, not
// measured: when the loop's own thread was held up by a callback, what came meanwhile is read before the next tick.
#ifndef TQ_PLATFORM_REDIS_FEED_H
#define TQ_PLATFORM_REDIS_FEED_H

#include <random>

#include "platform/loop.h"
#include "platform/redis_connection.h"

namespace tq {

// What a feed tells. Its owner may call the feed from there.
class FeedOwner {
public:
    virtual ~FeedOwner() = default;
    virtual void subscribe_all() = 0;  // a new connection: subscribe to everything, then ping
    virtual void heard(std::string_view channel, std::string_view bytes) = 0;
    virtual void answered(uint64_t ping) = 0;
    virtual void tick() = 0;  // while it is up
    virtual void lost() = 0;
};

class RedisFeed {
public:
    RedisFeed(const RedisUrl &url, Loop &loop, FeedOwner &owner);

    void begin() { start_timer(std::chrono::milliseconds(0)); }
    void subscribe(const std::string &channel) { connection_.add(formatted({"SUBSCRIBE", channel})); }
    void ping(uint64_t number) { connection_.add(formatted({"PING", std::to_string(number)})); }
    void send();

    // Everything followed is subscribed to: it is up. Whether it is the same run of the same server as the last time.
    bool establish();
    void drop(const std::string &reason);

private:
    enum class State { waiting, connecting, up };
    using EventPtr = std::unique_ptr<event, FreeEvent>;

    template <void (RedisFeed::*act)()> EventPtr new_event(int fd, short what);
    void start_timer(std::chrono::milliseconds delay);
    void connect();
    void on_timer();
    void on_readable();
    bool take_replies();
    void take(const redisReply &reply);
    void take_list(const redisReply &list);
    void take_error(std::string_view text);
    std::chrono::milliseconds next_delay();
    void say(const std::string &reason);

    const RedisUrl &url_;
    Loop &loop_;
    FeedOwner &owner_;
    RedisConnection connection_;
    EventPtr readable_, writable_, timer_;
    State state_ = State::waiting;
    bool auth_owed_ = false;  // the next answer is to the credentials
    bool reached_ = false;    // a server took what was sent, and said nothing of loading
    int silent_ticks_ = 0;
    std::string run_id_, last_run_id_;
    std::string told_;  // the last reason on standard error
    std::chrono::milliseconds retry_delay_;
    std::mt19937 random_{std::random_device{}()};
};

}  // namespace tq

#endif
