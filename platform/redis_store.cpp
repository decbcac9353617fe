// A store on a Redis server. mutex_ guards who follows what, what is owed and what is under way; the sink and the link
// are told under it. The feed is told of a loss without it, for the feed answers with lost() at once.
#include "platform/redis_store.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "platform/sentinel.h"
#include "platform/text.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace tq {

namespace {

constexpr uint64_t echoes_without_answer = 5, most_echoes_due = 20;
constexpr const char *other_content = "the server has other content than before";
constexpr int32_t shortest_rescan_ms = 10, rescan_spread_ms = 500;

}  // namespace

RedisStore::RedisStore(const RedisUrl &url, Sink &sink, Loop &loop)
    : url_(url), sink_(sink), loop_(loop), link_(url_, name_), feed_(url_, name_, loop, *this), holds_(url_.shown) {}

std::unique_ptr<Store> RedisStore::open(const RedisUrl &url, Sink &sink, Loop &loop, int32_t &error) {
    std::unique_ptr<RedisStore> store(new RedisStore(url, sink, loop));
    error = store->start();
    if (error == 0) return store;
    loop.stop();
    return nullptr;
}

// The feed says itself what keeps it from coming up, and never keeps silent for good.
int32_t RedisStore::start() {
    Address server;
    std::string fault;
    const bool is_found = find_master(url_, /*attempt=*/0, server, fault);
    if (const int32_t error = is_found ? link_.open(server, link_identity_, fault) : TQ_MOM_E_UNREACHABLE) {
        const std::string at = is_found && !url_.sentinels.empty() ? name_of(server) + ": " : "";
        std::fprintf(stderr, "tq_platform: store %s: %s%s\n", url_.shown.c_str(), at.c_str(), printable(fault).c_str());
        return error;
    }
    feed_.begin(server);
    return started_.get_future().get() ? 0 : TQ_MOM_E_UNREACHABLE;
}

void RedisStore::end() {
    link_.end();
}

// Once it has subscribed to something, the feed's connection may not be named any more: its next one is.
void RedisStore::set_name(std::string_view name) {
    name_.set(name);
    const std::string safe = name_.text();
    link_.post_wish({"CLIENT", "SETNAME", safe});
}

int32_t RedisStore::list_clients(std::string &list) {
    const Reply reply = link_.call({"CLIENT", "LIST"});
    if (!reply) return TQ_MOM_E_UNREACHABLE;
    if (reply->type != REDIS_REPLY_STRING) return TQ_MOM_E_REFUSED;
    list = text_of(*reply);
    return 0;
}

bool RedisStore::up() const {
    const std::lock_guard lock(mutex_);
    return up_;
}

// Following

void RedisStore::follow(const Place &place, const std::string *key, const Ticket &ticket) {
    const std::lock_guard lock(mutex_);
    const std::string hash = hash_of(place);
    const auto [found, is_new] = channels_.try_emplace(key ? channel_of(place, *key) : hash, Channel{hash});
    auto &[name, channel] = *found;
    if (is_new) {
        if (!key) places_.push_back(&*found);
        to_subscribe_.push_back(name);
    }
    auto &followers = channel.followers;
    if (std::find(followers.begin(), followers.end(), ticket) == followers.end()) followers.push_back(ticket);
    const Confirmation confirmation = {ticket, &channel};
    if (!up_) return owed_.push_back(confirmation);
    to_confirm_[++fence_due_] = confirmation;
    loop_.post([this] { send_follows(); });
}

// One fence each, so that a confirmation that goes missing is that of its own subscription.
void RedisStore::send_follows() {
    {
        const std::lock_guard lock(mutex_);
        if (!up_) return;
        subscribe_rest();
        while (fence_sent_ < fence_due_) feed_.fence(++fence_sent_);
    }
    feed_.send();
}

bool RedisStore::subscribe_rest() {
    for (const std::string &name : to_subscribe_) feed_.subscribe(name);
    const bool any = !to_subscribe_.empty();
    to_subscribe_.clear();
    return any;
}

void RedisStore::subscribe_all() {
    const std::lock_guard lock(mutex_);
    to_subscribe_ = {private_channel_};
    for (auto &[name, channel] : channels_) {
        channel.is_refused = channel.has_objects = false;
        to_subscribe_.push_back(name);
    }
    subscribe_rest();
    feed_.fence(fence_sent_ = ++fence_due_);
}

void RedisStore::subscribed(const std::string &name, std::string_view refusal) {
    const std::string fault = "no subscription to " + name + ": " + std::string(refusal);
    {
        const std::lock_guard lock(mutex_);
        const auto found = channels_.find(name);
        if (found != channels_.end()) {
            Channel &channel = found->second;
            const bool was_refused = std::exchange(channel.is_refused, !refusal.empty());
            if (channel.is_refused) holds_.refuse(channel.hash, fault);
            if (was_refused && !is_refused(channel.hash)) release(channel.hash);
            return;
        }
    }
    if (!refusal.empty()) feed_.lose(fault);
}

void RedisStore::answered(uint64_t fence) {
    {
        const std::lock_guard lock(mutex_);
        fence_answered_ = fence;
        echo_before_ = echo_asked_;
        if (up_) {
            confirm(fence);
            return ask_page();
        }
    }
    if (!feed_.is_up()) establish();  // else a call has lost it already
}

// One whose answer has been passed over is confirmed by the next connection.
void RedisStore::confirm(uint64_t fence) {
    while (!to_confirm_.empty() && to_confirm_.begin()->first <= fence) {
        const auto first = to_confirm_.extract(to_confirm_.begin());
        if (first.key() == fence)
            confirm(first.mapped());
        else
            owed_.push_back(first.mapped());
    }
}

void RedisStore::confirm(const Confirmation &confirmation) {
    const auto &[ticket, channel] = confirmation;
    if (!channel->is_refused) return sink_.post(Confirmed{ticket});
    holds_.find(channel->hash)->confirmations.push_back(confirmation);
    sink_.post(OnHold{ticket, /*is_scan=*/false});
}

// The link is opened here, with a wait: this server has just answered.
void RedisStore::establish() {
    std::string fault;
    if (!starting_ && link_.open(feed_.server(), link_identity_, fault) != 0) return feed_.lose(fault);
    if (!same_content(link_identity_, feed_.identity()))
        return feed_.lose("the address leads to two servers, one after the other");
    if (!is_master_still()) return feed_.lose("the sentinels name another master by now");
    if (!come_up()) return feed_.send();
    if (std::exchange(starting_, false)) started_.set_value(true);
}

// A master that was frozen answers late, and takes itself for the master until it is told otherwise.
bool RedisStore::is_master_still() {
    if (url_.sentinels.empty() || feed_.answered_at_once()) return true;
    Address now = feed_.server();
    std::string fault;
    return !find_master(url_, /*attempt=*/0, now, fault) || now == feed_.server();
}

// False: not all that was asked for while it was away is in force yet; another answer will tell.
bool RedisStore::come_up() {
    const std::lock_guard lock(mutex_);
    if (subscribe_rest()) {
        feed_.fence(fence_sent_ = ++fence_due_);
        return false;
    }
    const int32_t reason = feed_.establish() && !replaced_ ? 1 : 2;
    rescan_delay_ms_ = shortest_rescan_ms + std::uniform_int_distribution<int32_t>(0, rescan_spread_ms)(random_);
    up_ = true;
    lost_why_ = nullptr;
    replaced_ = false;
    ++connection_;
    std::vector<Ticket> confirmed;
    std::vector<Confirmation> refused;
    for (const Confirmation &owed : std::exchange(owed_, {})) {
        if (owed.channel->is_refused)
            refused.push_back(owed);
        else
            confirmed.push_back(owed.ticket);
    }
    if (!starting_) sink_.connected(reason, std::move(confirmed));
    for (const Confirmation &owed : refused) confirm(owed);
    return true;
}

// Holding

bool RedisStore::is_refused(const std::string &hash) const {
    return std::any_of(channels_.begin(), channels_.end(),
                       [&](const auto &entry) { return entry.second.is_refused && entry.second.hash == hash; });
}

// Confirmations first: a scan must not be older than the first change that is pushed.
void RedisStore::release(const std::string &hash) {
    Hold released = holds_.release(hash);
    for (const Confirmation &confirmation : released.confirmations) confirm(confirmation);
    for (Ticket &ticket : released.scans) scans_.add({hash, std::move(ticket), /*is_told=*/true});
    ask_page();
}

// A scan is tried alone: the hold stays until there is a page.
void RedisStore::try_held() {
    {
        const std::lock_guard lock(mutex_);
        if (!up_) return;
        for (const std::string &hash : holds_.take_due(Clock::now())) {
            auto &scans = holds_.find(hash)->scans;
            if (is_refused(hash)) {
                for (const auto &[name, channel] : channels_)
                    if (channel.is_refused && channel.hash == hash) to_subscribe_.push_back(name);
            } else if (!scans.empty()) {
                scans_.add({hash, std::move(scans.front()), /*is_told=*/true});
                scans.erase(scans.begin());
            }
        }
        subscribe_rest();
        ask_page();
    }
    feed_.send();
}

// Losing

void RedisStore::lost() {
    {
        const std::lock_guard lock(mutex_);
        lose();
    }
    link_.shut();
    if (std::exchange(starting_, false)) started_.set_value(false);
}

void RedisStore::lose() {
    if (std::exchange(up_, false)) sink_.lost();
    for (const auto &[fence, confirmation] : to_confirm_) owed_.push_back(confirmation);
    to_confirm_.clear();
    for (Confirmation &confirmation : holds_.lose()) owed_.push_back(std::move(confirmation));
    scans_.lose();
    echo_heard_ = echo_asked_;
    echo_times_.clear();
}

// A caller has found out before the loop has. A call of an earlier connection says nothing of this one.
void RedisStore::lose(uint64_t connection, const char *why) {
    {
        const std::lock_guard lock(mutex_);
        if (!up_ || connection != connection_) return;
        lose();
        lost_why_ = why;
    }
    loop_.post([this] { lose_feed(); });
}

// The loop's part of what a call has lost.
void RedisStore::lose_feed() {
    const char *why = nullptr;
    {
        const std::lock_guard lock(mutex_);
        if (up_ || !feed_.is_up() || link_.has_ended()) return;
        why = lost_why_;
    }
    const std::string fault = link_.collect();
    feed_.lose(why ? why : fault.empty() ? "a call has failed" : fault);
}

// While a long answer comes in, nothing can be asked, and the feed may be silent.
bool RedisStore::is_heard_elsewhere() {
    const bool heard = link_.received() != received_;
    received_ = link_.received();
    return heard && link_.is_waiting();
}

void RedisStore::tick() {
    if (link_.has_ended()) return;
    lose_feed();
    ask_echo();
    const std::string fault = link_.collect();
    if (!fault.empty()) return feed_.lose(fault);
    bool no_echoes = false;
    RedisLink::Transaction failed;
    {
        const std::lock_guard lock(mutex_);
        no_echoes = echo_asked_ > echo_heard_ + most_echoes_due;
        if (scans_.is_page_due() && link_.take_failed(failed)) page_refused(failed.fault);
    }
    if (no_echoes) return feed_.lose("echoes do not come");
    try_held();
}

// What a server asks itself shows that both connections work, that it is still the master, and that it has what it had.
void RedisStore::ask_echo() {
    if (link_.is_waiting()) return;
    std::vector<std::string> hashes;
    std::string number;
    {
        const std::lock_guard lock(mutex_);
        if (!up_) return;
        number = std::to_string(++echo_asked_);
        echo_times_.push_back(Clock::now());
        for (const auto *place : places_) hashes.push_back(place->first);
    }
    const std::string keys = std::to_string(hashes.size()), id = random_id();
    Words words = {"EVAL", identity_script, keys};
    words.insert(words.end(), hashes.begin(), hashes.end());
    words.insert(words.end(), {id, private_channel_, number});
    link_.post(words);
}

// Hearing

void RedisStore::heard(std::string_view channel, std::string_view bytes) {
    const char *fault = nullptr;
    bool page_is_due = false;
    if (!parse_frame(bytes, frame_)) {
        fault = "a damaged frame";
    } else {
        const std::lock_guard lock(mutex_);
        if (up_) fault = take(channel);
        page_is_due = up_ && is_my_mark();
    }
    if (page_is_due) return deliver_page();
    if (fault) feed_.lose(channel == private_channel_ ? fault : "what came by " + std::string(channel) + ": " + fault);
}

const char *RedisStore::take(std::string_view channel) {
    const bool own = frame_.letter == 'M' || frame_.letter == 'E';
    if (own != (channel == private_channel_)) return "a frame that does not belong there";
    if (frame_.letter == 'E') return take_echo();
    if (frame_.letter == 'M') return nullptr;
    if (const auto found = channels_.find(channel); found != channels_.end()) take_change(found->second);
    return nullptr;
}

// A hash that is there no more, though the last that was told of it was no deletion, has been removed by other means.
const char *RedisStore::take_echo() {
    const auto number = whole_number<uint64_t>(frame_.strings[2]);
    if (!number || *number > echo_asked_) return "an echo that nobody asked for";
    if (*number <= echo_heard_) return nullptr;  // of an earlier connection
    while (echo_asked_ - *number + 1 < echo_times_.size()) echo_times_.pop_front();
    echo_heard_ = *number;
    if (!scans_.is_page_due() && fence_answered_ == fence_due_) echo_before_ = echo_asked_;
    if (echo_heard_ > echo_before_ + echoes_without_answer) return "echoes, and a request has no answer";
    Identity now;
    if (!parse_identity(frame_.strings[0], now)) return "an echo that names no server";
    if (now.role != "master") return no_master;
    replaced_ = !same_content(feed_.identity(), now);
    if (feed_.identity().content_id.empty()) feed_.adopt(now);
    const std::string_view there = frame_.strings[1];
    for (size_t i = 0; i < std::min(there.size(), places_.size()); ++i) {
        if (holds_.find(places_[i]->first)) continue;
        bool &has_objects = places_[i]->second.has_objects;
        replaced_ |= std::exchange(has_objects, there[i] == '1') && !has_objects;
    }
    if (replaced_) return other_content;
    sink_.heard_until(echo_times_.front());
    echo_times_.pop_front();
    return nullptr;
}

void RedisStore::take_change(Channel &channel) {
    const auto &strings = frame_.strings;
    Changed change;
    if (frame_.letter == 'D') change.before = new_object(strings[0], "");
    if (frame_.letter == 'C') change.before = new_object(strings[0], strings[2]);
    if (frame_.letter != 'D') change.after = new_object(strings[0], strings[1]);
    channel.has_objects = frame_.letter != 'D';
    for (const Ticket &ticket : channel.followers) {
        change.ticket = ticket;
        sink_.post(change);
    }
}

// Scanning

// The first page is asked for here, if it can be: before anything that this thread asks for later.
void RedisStore::scan(const Place &place, const Ticket &ticket) {
    const std::lock_guard lock(mutex_);
    if (!up_) return;
    const std::string hash = hash_of(place);
    if (Hold *hold = holds_.find(hash)) {
        hold->scans.push_back(ticket);
        return sink_.post(OnHold{ticket, /*is_scan=*/true});
    }
    scans_.add({hash, ticket});
    ask_page();
}

// One at a time, and none while a subscription may not be in force yet: a scan must not be older than the first change
// that is pushed.
void RedisStore::ask_page() {
    if (fence_answered_ != fence_due_) return;
    const RedisScans::Scan *const scan = scans_.ask();
    if (!scan) return;
    echo_before_ = echo_asked_;
    link_.post_transaction({{"MULTI"},
                            {"EVAL", mark_script, "0", private_channel_, mark_frame(scan->number)},
                            {"HSCAN", scan->hash, scan->cursor, "COUNT", std::to_string(scan->count)},
                            {"EXEC"}});
}

// The mark of a scan that a lost connection has cut off may still come.
bool RedisStore::is_my_mark() const {
    return frame_.letter == 'M' && scans_.is_page_due() && frame_.strings[0] == std::to_string(scans_.current().number);
}

// Here in the order the page belongs. The server has carried out the transaction, so the answer is on its way: what
// the feed has to tell after it waits. Not with the lock held: a caller may be before it on the link, and wants it.
void RedisStore::deliver_page() {
    const RedisLink::Transaction answer = link_.take_transaction();
    if (!answer.answer) {
        const std::string fault = link_.collect();
        return feed_.lose(fault.empty() ? "a page of a scan is missing" : fault);
    }
    const redisReply *const page = answer.answer->elements == 2 ? answer.answer->element[1] : nullptr;
    const bool is_page = page && page->type == REDIS_REPLY_ARRAY && page->elements == 2 &&
                         page->element[0]->type == REDIS_REPLY_STRING && is_list_of_pairs(*page->element[1]);
    if (!is_page && answer.fault.empty()) return feed_.lose("a page of a scan means nothing");
    const std::lock_guard lock(mutex_);
    if (!up_ || !scans_.is_page_due()) return;
    if (is_page)
        take_page(*page);
    else
        page_refused(answer.fault);
}

// Scans of other places go on.
void RedisStore::page_refused(const std::string &fault) {
    Hold &hold = holds_.refuse(scans_.current().hash, "a scan is refused: " + fault);
    for (RedisScans::Scan &scan : scans_.refuse()) {
        if (!scan.is_told) sink_.post(OnHold{scan.ticket, /*is_scan=*/true});
        hold.scans.push_back(std::move(scan.ticket));
    }
    ask_page();
}

void RedisStore::take_page(const redisReply &reply) {
    const std::string hash = scans_.current().hash;
    Page page = scans_.take(reply);
    ask_page();
    sink_.post(std::move(page));
    if (!is_refused(hash)) release(hash);
}

}  // namespace tq
