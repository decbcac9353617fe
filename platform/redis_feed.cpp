// The subscriber connection. Only the loop's thread comes here.
#include "platform/redis_feed.h"

#include <event2/event.h>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <utility>

#include "platform/sentinel.h"

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
            feed.lose(error.what());
        }
    };
    EventPtr made(event_new(loop_.base(), fd, what, run, this));
    if (!made) throw std::bad_alloc();
    return made;
}

RedisFeed::RedisFeed(const RedisUrl &url, const ConnectionName &name, Loop &loop, FeedOwner &owner)
    : url_(url),
      name_(name),
      loop_(loop),
      owner_(owner),
      timer_(new_event<&RedisFeed::on_timer>(-1, 0)),
      trouble_(url.shown),
      retry_delay_(shortest_retry) {}

void RedisFeed::start_timer(milliseconds delay) {
    const timeval time = {static_cast<time_t>(delay.count() / 1000),
                          static_cast<suseconds_t>(delay.count() % 1000 * 1000)};
    event_add(timer_.get(), &time);
}

void RedisFeed::begin(const Address &server) {
    server_ = server;
    is_found_ = true;
    start_timer(milliseconds(0));
}

void RedisFeed::connect() {
    state_ = State::connecting;
    std::string fault;
    at_.clear();
    if (!std::exchange(is_found_, false) && !find_master(url_, attempts_++, server_, fault)) return lose(fault);
    if (!url_.sentinels.empty()) at_ = name_of(server_) + ": ";
    if (!connection_.open(server_, url_.probe, /*is_blocking=*/false)) return lose(connection_.fault());
    readable_ = new_event<&RedisFeed::on_readable>(connection_.fd(), EV_READ | EV_PERSIST);
    writable_ = new_event<&RedisFeed::send>(connection_.fd(), EV_WRITE);
    event_add(readable_.get(), nullptr);

    silent_ticks_ = 0;
    asked_at_ = Clock::now();
    asked_.clear();
    const std::string auth = auth_command(url_.credentials);
    if (!auth.empty()) asked_.push_back({What::credentials});
    connection_.add(auth);
    asked_.push_back({What::identity});
    connection_.add(identity_question());
    asked_.push_back({What::name});
    connection_.add(name_.command());
    owner_.subscribe_all();
    event_add(writable_.get(), nullptr);  // it may still be on its way
    start_timer(url_.probe / ticks_of_silence);
}

void RedisFeed::send() {
    if (state_ == State::waiting) return;
    if (!connection_.send()) return lose(connection_.fault());
    reached_ = true;
    if (!connection_.all_sent()) event_add(writable_.get(), nullptr);
}

void RedisFeed::ask(Asked asked, const Words &command) {
    asked_.push_back(std::move(asked));
    connection_.add(formatted(command));
}

void RedisFeed::fence(uint64_t number) {
    const std::string channel = "dm:fence/" + std::to_string(number);
    ask({What::fence, channel, number}, {"UNSUBSCRIBE", channel});
    if (state_ == State::connecting) silent_ticks_ = 0;  // it has answered the one before
}

bool RedisFeed::establish() {
    state_ = State::up;
    silent_ticks_ = 0;
    return same_content(std::exchange(last_identity_, identity_), identity_);
}

void RedisFeed::lose(const std::string &reason) {
    if (state_ == State::waiting) return;
    state_ = State::waiting;
    readable_.reset();
    writable_.reset();
    connection_.close();
    const bool costs = std::exchange(reached_, false) || !url_.sentinels.empty();  // somebody was asked
    const milliseconds delay = costs ? next_delay() : shortest_retry;
    start_timer(delay + milliseconds(std::uniform_int_distribution<>(0, static_cast<int>(delay.count()))(random_)));
    trouble_.say(at_ + reason);
    owner_.lost();
}

milliseconds RedisFeed::next_delay() {
    return std::exchange(retry_delay_, std::min(retry_delay_ * 2, longest_retry));
}

void RedisFeed::on_timer() {
    if (state_ == State::waiting) return connect();
    if (state_ == State::up && owner_.is_heard_elsewhere()) silent_ticks_ = 0;
    if (silent_ticks_++ == ticks_of_silence) return lose("no answer");
    start_timer(url_.probe / ticks_of_silence);
    if (state_ != State::up) return;
    owner_.tick();
    if (state_ != State::up) return;
    retry_delay_ = shortest_retry;
    trouble_.end();
}

void RedisFeed::on_readable() {
    auto received = RedisConnection::Received::much;
    for (int i = 0; i < reads_at_a_time && received == RedisConnection::Received::much; ++i) {
        received = connection_.receive();
        if (received == RedisConnection::Received::failed) return lose(connection_.fault());
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
    lose(connection_.fault());
    return false;
}

// In the order of how often they come.
void RedisFeed::take(const redisReply &reply) {
    const bool is_list = reply.type == REDIS_REPLY_ARRAY && reply.elements == 3;
    if (is_list && text_of(*reply.element[0]) == "message")
        return owner_.heard(text_of(*reply.element[1]), text_of(*reply.element[2]));
    if (is_full(reply)) return lose(std::string(text_of(reply)));
    while (is_list && !asked_.empty() && asked_.front().what == What::fence &&
           text_of(*reply.element[1]) != asked_.front().channel)
        asked_.pop_front();  // its answer has got lost; what it confirms waits for another connection
    if (asked_.empty()) return lose(other_answer);
    const Asked asked = std::move(asked_.front());
    asked_.pop_front();
    if (is_error(reply)) return take_error(asked, text_of(reply));
    take_answer(asked, reply);
}

void RedisFeed::take_answer(const Asked &asked, const redisReply &reply) {
    const bool is_list = reply.type == REDIS_REPLY_ARRAY && reply.elements == 3;
    const std::string_view word = is_list ? text_of(*reply.element[0]) : std::string_view();
    if ((asked.what == What::credentials || asked.what == What::name) && reply.type == REDIS_REPLY_STATUS) return;
    if (asked.what == What::subscription && word == "subscribe" && text_of(*reply.element[1]) == asked.channel)
        return owner_.subscribed(asked.channel, {});
    if (asked.what == What::fence && word == "unsubscribe") return owner_.answered(asked.number);
    if (asked.what != What::identity || reply.type != REDIS_REPLY_STRING || !parse_identity(text_of(reply), identity_))
        return lose(other_answer);
    if (const std::string fault = unfit(identity_); !fault.empty()) return lose(fault);
    if (identity_.role != "master") lose("the server is no master (" + identity_.role + ")");
}

// What the server says to the credentials may quote them.
void RedisFeed::take_error(const Asked &asked, std::string_view text) {
    if (text.starts_with("LOADING")) reached_ = false;
    if (asked.what == What::name) return;
    if (asked.what == What::credentials)
        return lose("the server refuses the credentials (" + std::string(text.substr(0, text.find(' '))) + ")");
    if (asked.what == What::subscription && text.starts_with("NOPERM")) return owner_.subscribed(asked.channel, text);
    lose(std::string(text));
}

}  // namespace tq
