// Asking sentinels. Each has a connection of its own that does not block, so that a silent or slow one takes no other's
// time; what they say is believed as far as an address goes: the store itself asks a server for its role.
#include "platform/sentinel.h"

#include <poll.h>
#include <algorithm>
#include <utility>

#include "platform/redis_connection.h"
#include "platform/text.h"

namespace tq {

namespace {

using std::chrono::milliseconds;
using SteadyClock = std::chrono::steady_clock;

constexpr milliseconds most_patience(100);  // with one that is silent, before the next one is asked beside it
constexpr size_t longest_saying = 80;
constexpr int most_reads = 16;  // of what takes one

// One that is being asked; `said` once it has answered or failed.
struct Sentinel {
    RedisConnection connection;
    int reads = 0;
    bool auth_owed = false;  // the next answer is to the credentials
    std::string said;        // empty: nothing yet
    bool is_waited_for() const { return connection.is_open() && said.empty(); }
};

// One round of questions.
struct Round {
    const RedisUrl &url;
    const size_t first;
    const Address last;
    std::vector<Sentinel> sentinels = std::vector<Sentinel>(url.sentinels.size());
    size_t asked = 0;
    bool last_named = false;
    Address found = {};

    bool is_over() const { return !found.host.empty(); }  // else it goes on after the last one has been named
};

void end_with(Sentinel &sentinel, std::string_view said) {
    sentinel.said = said;
    sentinel.connection.close();
}

void ask_next(Round &round) {
    const size_t number = (round.first + round.asked++) % round.sentinels.size();
    const Address &address = round.url.sentinels[number];
    Sentinel &sentinel = round.sentinels[number];
    RedisConnection &connection = sentinel.connection;
    if (!connection.open(address, round.url.probe, /*is_blocking=*/false))
        return end_with(sentinel, connection.fault());
    const std::string auth = auth_command(round.url.sentinel_credentials);
    sentinel.auth_owed = !auth.empty();
    connection.add(auth);
    connection.add(formatted({"SENTINEL", "get-master-addr-by-name", round.url.master_name}));
}

bool parse_address(const redisReply &reply, Address &address) {
    if (reply.type != REDIS_REPLY_ARRAY || reply.elements != 2) return false;
    if (reply.element[0]->type != REDIS_REPLY_STRING || reply.element[1]->type != REDIS_REPLY_STRING) return false;
    const std::string_view host = text_of(*reply.element[0]), port = text_of(*reply.element[1]);
    address.host = host;
    address.port = whole_number<int>(port).value_or(0);
    return !host.empty() && std::all_of(host.begin(), host.end(), is_printable) && address.port > 0 &&
           address.port < 65536;
}

// What is said to the credentials may quote them.
void take_answer(Round &round, Sentinel &sentinel, const redisReply &reply) {
    const std::string_view text = text_of(reply);
    if (is_error(reply) && sentinel.auth_owed && !is_full(reply))
        return end_with(sentinel, "refuses the credentials (" + std::string(text.substr(0, text.find(' '))) + ")");
    if (is_error(reply)) return end_with(sentinel, text);
    if (std::exchange(sentinel.auth_owed, false)) return;
    const bool is_empty = reply.type == REDIS_REPLY_ARRAY && reply.elements == 0;
    if (is_empty || reply.type == REDIS_REPLY_NIL) return end_with(sentinel, "does not know it");
    Address address;
    if (!parse_address(reply, address)) return end_with(sentinel, "answers something else than was asked");
    sentinel.connection.close();
    if (address == round.last)
        round.last_named = true;
    else if (!round.is_over())
        round.found = address;
}

void hear(Round &round, Sentinel &sentinel, short events) {
    RedisConnection &connection = sentinel.connection;
    if (!connection.all_sent() && !connection.send()) return end_with(sentinel, connection.fault());
    if ((events & ~POLLOUT) == 0) return;
    if (++sentinel.reads > most_reads) return end_with(sentinel, "answers without an end");
    if (connection.receive() == RedisConnection::Received::failed) return end_with(sentinel, connection.fault());
    while (sentinel.is_waited_for()) {
        const Reply reply = connection.next();
        if (!reply && !connection.fault().empty()) return end_with(sentinel, connection.fault());
        if (!reply) return;
        take_answer(round, sentinel, *reply);
    }
}

// Hears whoever has something to say. False: nobody is waited for.
bool hear_all(Round &round, SteadyClock::time_point until) {
    std::vector<pollfd> ready;
    std::vector<Sentinel *> of;
    for (Sentinel &sentinel : round.sentinels) {
        if (!sentinel.is_waited_for()) continue;
        const short events = sentinel.connection.all_sent() ? POLLIN : POLLIN | POLLOUT;
        ready.push_back({sentinel.connection.fd(), events, 0});
        of.push_back(&sentinel);
    }
    if (ready.empty()) return false;
    const auto wait = std::chrono::ceil<milliseconds>(until - SteadyClock::now());
    ::poll(ready.data(), ready.size(), static_cast<int>(std::max<milliseconds::rep>(wait.count(), 0)));
    for (size_t i = 0; i < ready.size(); ++i)
        if (ready[i].revents != 0) hear(round, *of[i], ready[i].revents);
    return true;
}

void ask_all(Round &round) {
    const auto deadline = SteadyClock::now() + round.url.probe;
    const milliseconds patience = std::min(most_patience, round.url.probe / 10);
    const auto hear_until = [&](SteadyClock::time_point until) {
        while (!round.is_over() && SteadyClock::now() < until && hear_all(round, until)) continue;
    };
    while (!round.is_over() && round.asked < round.sentinels.size()) {
        ask_next(round);
        hear_until(std::min(deadline, SteadyClock::now() + patience));
    }
    if (!round.last_named) hear_until(deadline);
}

std::string all_said(const Round &round) {
    std::string text = "no sentinel names the master of \"" + round.url.master_name + "\"";
    for (size_t i = 0; i < round.sentinels.size(); ++i) {
        const std::string &said = round.sentinels[i].said;
        text += (i == 0 ? " (" : "; ") + name_of(round.url.sentinels[i]) + ": ";
        text += said.empty() ? "no answer" : said.substr(0, longest_saying);
    }
    return text + ")";
}

}  // namespace

bool find_master(const RedisUrl &url, size_t attempt, Address &found, std::string &fault) {
    if (url.sentinels.empty()) {
        found = url.server;
        return true;
    }
    Round round{url, attempt % url.sentinels.size(), found};
    ask_all(round);
    if (round.is_over()) found = round.found;
    if (round.is_over() || round.last_named) return true;
    fault = all_said(round);
    return false;
}

}  // namespace tq
