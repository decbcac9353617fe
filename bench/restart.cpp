// How soon a client finds its server again. The server keeps its content.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <future>

#include "bench/bare_subscriber.h"
#include "bench/stores.h"
#include "tq_dm_cache/p_dev.pb-c.h"

namespace bench {

namespace {

// Of one database, and every callback hears of one thing at a time.
class Follower {
public:
    Follower() : client_(open_client(server().url())) {
        const ProtobufCMessage tmpl = PROTOBUF_C_MESSAGE_INIT(&p_dev__vsd_port__descriptor);
        now_ = this;
        heard.expect(1);
        check(tq_mom_client_set_reconnect_cb(client_.get(), 1, on_reconnect, 0), "reconnect callback");
        check(tq_mom_subscribe(client_.get(), 1, &tmpl, 0, hear, this), "subscribe");
        heard.wait();
        back.expect(1);
    }
    Tally heard, back;

private:
    static int32_t hear(tq_mom_handle *, store_msg *, void *self) {
        static_cast<Follower *>(self)->heard.hear();
        return 0;
    }
    static int32_t on_reconnect(void *, uint32_t, int32_t, void *) {
        now_->back.hear();
        return 0;
    }
    static inline Follower *now_ = nullptr;  // a reconnect callback has no word of its own
    const Client client_;
};

// Listens in the place of a server that has gone.
Clock::time_point first_knock(const std::string &socket) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    socket.copy(address.sun_path, sizeof address.sun_path - 1);
    ::unlink(socket.c_str());
    pollfd knock = {fd, POLLIN, 0};
    const bool heard = ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                       ::listen(fd, 16) == 0 && ::poll(&knock, 1, 60'000) == 1;
    const auto at = Clock::now();
    ::close(fd);
    if (!heard) throw std::runtime_error("nobody tries to connect");
    return at;
}

void measure_retry(Counters &counters) {
    Follower follower;
    const auto lost = Clock::now();
    server().kill();
    counters["ms after the loss"] = milliseconds(first_knock(server().socket()) - lost);
    server().start();
    follower.back.wait();
}

// A push shows that the subscription stands again.
void measure_restart(Counters &counters, int away_ms) {
    Follower follower;
    server().kill();
    ::poll(nullptr, 0, away_ms);
    auto answer = std::async(std::launch::async, first_answer);
    server().start();
    counters["ms after the first answer"] = milliseconds(follower.back.wait() - answer.get());
    follower.heard.expect(1);
    set(open_client(server().url()), *global_ports().front());
    follower.heard.wait();
}

}  // namespace

Clock::time_point first_answer() {
    const auto limit = Clock::now() + std::chrono::minutes(1);
    while (Clock::now() < limit) {
        const Context context = connect(server().socket());
        const std::unique_ptr<redisReply, void (*)(void *)> reply(
            context->err ? nullptr : static_cast<redisReply *>(redisCommand(context.get(), "PING")), freeReplyObject);
        if (reply && reply->type == REDIS_REPLY_STATUS) return Clock::now();
        ::poll(nullptr, 0, 1);
    }
    throw std::runtime_error("the server does not answer");
}

void add_restarts() {
    add("retry/redis", 15, measure_retry);
    add("restart/redis", 15, [](Counters &counters) { measure_restart(counters, 0); });
    add("outage/redis", 15, [](Counters &counters) { measure_restart(counters, 2000); });
}

}  // namespace bench
