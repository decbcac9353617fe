// The subscriber connection. Only the loop's thread comes here.
#include "platform/redis_feed.h"

#include <event2/event.h>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <utility>

namespace tq {

namespace {

using std::chrono::milliseconds;

constexpr int ticks_of_silence = 5;
constexpr int reads_at_a_time = 32;  // then timers and tasks have their turn
constexpr milliseconds shortest_retry(20), longest_retry(250);

}  // namespace

// An event whose handler runs out of memory has lost what it read: the connection is taken for lost.
template <void (RedisFeed::*act)()> RedisFeed::EventPtr RedisFeed::new_event(int fd, short what) {
    const auto run = [](int, short, void *self) {
        auto &feed = *static_cast<RedisFeed *>(self);
        try {
            (feed.*act)();
        } catch (const std::exception &error) {
            feed.drop(error.what());
        }
    };
    EventPtr made(event_new(loop_.base(), fd, what, run, this));
    if (!made) throw std::bad_alloc();
    return made;
}

RedisFeed::RedisFeed(const RedisUrl &url, Loop &loop, FeedOwner &owner)
    : url_(url),
      loop_(loop),
      owner_(owner),
      timer_(new_event<&RedisFeed::on_timer>(-1, 0)),
      retry_delay_(shortest_retry) {}

void RedisFeed::start_timer(milliseconds delay) {
    const timeval time = {static_cast<time_t>(delay.count() / 1000),
                          static_cast<suseconds_t>(delay.count() % 1000 * 1000)};
    event_add(timer_.get(), &time);
}

void RedisFeed::connect() {
    state_ = State::connecting;
    if (!connection_.open(url_, /*is_blocking=*/false)) return drop(connection_.fault());
    readable_ = new_event<&RedisFeed::on_readable>(connection_.fd(), EV_READ | EV_PERSIST);
    writable_ = new_event<&RedisFeed::send>(connection_.fd(), EV_WRITE);
    event_add(readable_.get(), nullptr);

    run_id_.clear();
    silent_ticks_ = 0;
    const std::string auth = auth_command(url_);
    auth_owed_ = !auth.empty();
    connection_.add(auth);
    connection_.add(formatted({"INFO", "server"}));
    connection_.add(formatted({"ROLE"}));
    owner_.subscribe_all();
    event_add(writable_.get(), nullptr);  // it may still be on its way
    start_timer(url_.probe / ticks_of_silence);
}

void RedisFeed::send() {
    if (state_ == State::waiting) return;
    if (!connection_.send()) return drop(connection_.fault());
    reached_ = true;
    if (!connection_.all_sent()) event_add(writable_.get(), nullptr);
}

bool RedisFeed::establish() {
    state_ = State::up;
    return std::exchange(last_run_id_, run_id_) == run_id_;
}

void RedisFeed::drop(const std::string &reason) {
    if (state_ == State::waiting) return;
    state_ = State::waiting;
    readable_.reset();
    writable_.reset();
    connection_.close();
    const milliseconds delay = std::exchange(reached_, false) ? next_delay() : shortest_retry;
    start_timer(delay + milliseconds(std::uniform_int_distribution<>(0, static_cast<int>(delay.count()))(random_)));
    say(reason);
    owner_.lost();
}

milliseconds RedisFeed::next_delay() {
    return std::exchange(retry_delay_, std::min(retry_delay_ * 2, longest_retry));
}

// Each reason once, however often it comes: until a connection has lasted for a tick.
void RedisFeed::say(const std::string &reason) {
    if (reason == told_) return;
    told_ = reason;
    std::fprintf(stderr, "tq_platform: store %s: %s\n", url_.shown.c_str(), reason.c_str());
}

void RedisFeed::on_timer() {
    if (state_ == State::waiting) return connect();
    if (silent_ticks_++ == ticks_of_silence) return drop("no answer");
    start_timer(url_.probe / ticks_of_silence);
    if (state_ != State::up) return;
    owner_.tick();
    if (state_ != State::up) return;
    retry_delay_ = shortest_retry;
    told_.clear();
}

void RedisFeed::on_readable() {
    auto received = RedisConnection::Received::much;
    for (int i = 0; i < reads_at_a_time && received == RedisConnection::Received::much; i++) {
        received = connection_.receive();
        if (received == RedisConnection::Received::failed) return drop(connection_.fault());
        if (received == RedisConnection::Received::nothing) return;
        if (state_ == State::up) silent_ticks_ = 0;  // one that trickles must not hold up an attempt to connect
        if (!take_replies()) return;
    }
}

// False: one of them has ended the connection.
bool RedisFeed::take_replies() {
    while (const Reply reply = connection_.next()) {
        take(*reply);
        if (state_ == State::waiting) return false;
    }
    if (connection_.fault().empty()) return true;
    drop(connection_.fault());
    return false;
}

void RedisFeed::take(const redisReply &reply) {
    constexpr std::string_view run_id = "run_id:";
    if (is_full(reply)) return drop(std::string(text_of(reply)));
    if (is_error(reply)) return take_error(text_of(reply));
    auth_owed_ = false;
    if (reply.type == REDIS_REPLY_STATUS) return;
    if (reply.type == REDIS_REPLY_ARRAY && reply.elements > 0) return take_list(reply);
    const std::string_view text = text_of(reply);
    const size_t at = text.find(run_id);
    if (at == std::string_view::npos) return drop("the server answers something else than was asked");
    run_id_ = text.substr(at + run_id.size(), text.find('\r', at) - at - run_id.size());
}

// In the order of how often they come.
void RedisFeed::take_list(const redisReply &list) {
    const auto at = [&](size_t i) { return i < list.elements ? text_of(*list.element[i]) : std::string_view(); };
    const std::string_view what = at(0);
    if (what == "message") return owner_.heard(at(1), at(2));
    if (what == "pong") {
        uint64_t number = 0;
        std::from_chars(at(1).data(), at(1).data() + at(1).size(), number);
        return owner_.answered(number);
    }
    if (what == "subscribe" || what == "master") return;
    drop("the server is no master (" + std::string(what) + ")");
}

// What the server says to the credentials may quote them.
void RedisFeed::take_error(std::string_view text) {
    if (text.starts_with("LOADING")) reached_ = false;
    if (!auth_owed_) return drop(std::string(text));
    drop("the server refuses the credentials (" + std::string(text.substr(0, text.find(' '))) + ")");
}

}  // namespace tq
