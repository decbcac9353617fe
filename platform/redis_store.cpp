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
constexpr const char *no_master = "the server is no master any more";
constexpr const char *other_content = "the server has other content than before";
constexpr size_t page_bytes = 262144, most_at_once = 256, growth = 4, regrowth = 16;
constexpr int32_t shortest_rescan_ms = 10, rescan_spread_ms = 500;

bool hash_is_refused(const redisReply &error) {
    return text_of(error).starts_with("NOSCRIPT") || text_of(error).starts_with("NOPERM");
}

// What the whole server refuses, whatever it is asked to write.
bool is_of_server(std::string_view word) {
    return word == "OOM" || word == "MISCONF" || word == "READONLY" || word == "NOREPLICAS" || word == "MASTERDOWN";
}

bool is_nil(const redisReply &reply) {
    return reply.type == REDIS_REPLY_NIL;
}
bool is_number(const redisReply &reply) {
    return reply.type == REDIS_REPLY_INTEGER;
}
bool is_list_of_pairs(const redisReply &reply) {
    if (reply.type != REDIS_REPLY_ARRAY || reply.elements % 2 != 0) return false;
    return std::all_of(reply.element, reply.element + reply.elements,
                       [](const redisReply *element) { return element->type == REDIS_REPLY_STRING; });
}

ObjectPtr new_object(std::string_view key, std::string_view bytes) {
    return std::make_shared<const Object>(Object{std::string(key), std::string(bytes)});
}

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
        if (first.key() == fence) {
            confirm(first.mapped());
        } else {
            owed_.push_back(first.mapped());
        }
    }
}

void RedisStore::confirm(const Confirmation &confirmation) {
    const auto &[ticket, channel] = confirmation;
    if (!channel->is_refused) return sink_.post(Confirmed{ticket});
    holds_.find(channel->hash)->confirmations.push_back(confirmation);
    sink_.post(Held{ticket, /*is_scan=*/false});
}

// The link is opened here, with a wait: this server has just answered.
void RedisStore::establish() {
    std::string fault;
    if (!starting_ && link_.open(feed_.server(), link_identity_, fault) != 0) return feed_.lose(fault);
    if (!same_content(link_identity_, feed_.identity())) {
        return feed_.lose("the address leads to two servers, one after the other");
    }
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
        if (owed.channel->is_refused) {
            refused.push_back(owed);
        } else {
            confirmed.push_back(owed.ticket);
        }
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
    for (Ticket &ticket : released.scans) add_scan({hash, std::move(ticket), /*is_told=*/true});
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
                for (const auto &[name, channel] : channels_) {
                    if (channel.is_refused && channel.hash == hash) to_subscribe_.push_back(name);
                }
            } else if (!scans.empty()) {
                add_scan({hash, std::move(scans.front()), /*is_told=*/true});
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
    if (page_asked_) most_at_once_ = std::max(scans_.front().count / growth, size_t{1});
    scans_.clear();
    page_asked_ = false;
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
        if (page_asked_ && link_.take_failed(failed)) page_refused(failed.fault);
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
    if (!page_asked_ && fence_answered_ == fence_due_) echo_before_ = echo_asked_;
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
        return sink_.post(Held{ticket, /*is_scan=*/true});
    }
    add_scan({hash, ticket});
    ask_page();
}

void RedisStore::add_scan(Scan scan) {
    scan.number = ++last_scan_;
    scan.count = std::min(scan.count, most_at_once_);
    scans_.push_back(std::move(scan));
}

// One at a time, and none while a subscription may not be in force yet: a scan must not be older than the first change
// that is pushed.
void RedisStore::ask_page() {
    if (scans_.empty() || page_asked_ || fence_answered_ != fence_due_) return;
    const Scan &scan = scans_.front();
    page_asked_ = true;
    echo_before_ = echo_asked_;
    link_.post_transaction({{"MULTI"},
                            {"EVAL", mark_script, "0", private_channel_, mark_frame(scan.number)},
                            {"HSCAN", scan.hash, scan.cursor, "COUNT", std::to_string(scan.count)},
                            {"EXEC"}});
}

// The mark of a scan that a lost connection has cut off may still come.
bool RedisStore::is_my_mark() const {
    return frame_.letter == 'M' && page_asked_ && frame_.strings[0] == std::to_string(scans_.front().number);
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
    if (!up_ || !page_asked_) return;
    if (is_page) {
        take_page(*page);
    } else {
        page_refused(answer.fault);
    }
}

// Scans of other places go on.
void RedisStore::page_refused(const std::string &fault) {
    const std::string hash = scans_.front().hash;
    Hold &hold = holds_.refuse(hash, "a scan is refused: " + fault);
    std::deque<Scan> others;
    for (Scan &scan : scans_) {
        if (scan.hash != hash) {
            others.push_back(std::move(scan));
            continue;
        }
        if (!scan.is_told) sink_.post(Held{scan.ticket, /*is_scan=*/true});
        hold.scans.push_back(std::move(scan.ticket));
    }
    scans_ = std::move(others);
    page_asked_ = false;
    ask_page();
}

void RedisStore::take_page(const redisReply &reply) {
    Scan &scan = scans_.front();
    const std::string hash = scan.hash;
    scan.cursor = text_of(*reply.element[0]);
    Page page{scan.ticket, {}, scan.cursor == "0"};
    const redisReply &list = *reply.element[1];
    page.objects.reserve(list.elements / 2);
    for (size_t i = 0; i < list.elements; i += 2) {
        const std::string_view key = text_of(*list.element[i]), bytes = text_of(*list.element[i + 1]);
        scan.largest = std::max(scan.largest, key.size() + bytes.size());
        page.objects.push_back(new_object(key, bytes));
    }
    scan.count = std::clamp(page_bytes / scan.largest, size_t{1}, std::min(growth * scan.count, most_at_once_));
    if (page.last) {
        scans_.pop_front();
        most_at_once_ = std::min(most_at_once_ + regrowth, most_at_once);
    }
    page_asked_ = false;
    ask_page();
    sink_.post(std::move(page));
    if (!is_refused(hash)) release(hash);
}

// Commanding

int32_t RedisStore::call(const Words &words, Reply &reply, uint64_t &connection) {
    {
        const std::lock_guard lock(mutex_);
        if (!up_) return TQ_MOM_E_UNREACHABLE;
        connection = connection_;
    }
    reply = link_.call(words);
    if (reply) return 0;
    lose(connection, nullptr);
    return TQ_MOM_E_UNREACHABLE;
}

int32_t RedisStore::carry_out(const Command &command, Reply &reply) {
    uint64_t connection = 0;
    if (const int32_t error = call(command.words, reply, connection)) return error;
    return judge(command, *reply, connection);
}

// A script by its hash. A server that does not know it yet, or a user who may not name it so, has the text sent.
int32_t RedisStore::run(const Script &script, const std::string &hash, Words words, IsAnswer is_answer, Reply &reply) {
    words.insert(words.begin(), {"EVALSHA", script.hash, "1", hash});
    Command command = {/*is_write=*/true, hash, std::move(words), is_answer};
    uint64_t connection = 0;
    if (const int32_t error = call(command.words, reply, connection)) return error;
    if (!is_error(*reply) || !hash_is_refused(*reply)) return judge(command, *reply, connection);
    command.words[0] = "EVAL";
    command.words[1] = script.text;
    return carry_out(command, reply);
}

// An answer of another type than the request can have is no answer: the server is not what it should be.
int32_t RedisStore::judge(const Command &command, const redisReply &reply, uint64_t connection) {
    if (is_error(reply)) return refused(command, text_of(reply), connection);
    if (!command.is_answer(reply)) {
        lose(connection, other_answer);
        return TQ_MOM_E_UNREACHABLE;
    }
    const std::lock_guard lock(mutex_);
    for (auto &[about, trouble] : call_troubles_) {
        if (about.second == command.is_write && (about.first == command.hash || is_of_server(about.first))) {
            trouble.end();
        }
    }
    return 0;
}

int32_t RedisStore::refused(const Command &command, std::string_view error, uint64_t connection) {
    const std::string word(error.substr(0, error.find(' ')));
    const std::string text(error.substr(0, error.find(" script: ")));  // which one it was is nobody's business
    {
        const std::lock_guard lock(mutex_);
        const auto about = std::pair(is_of_server(word) ? word : command.hash, command.is_write);
        Trouble &trouble = call_troubles_.try_emplace(about, url_.shown).first->second;
        trouble.say((is_of_server(word) ? "refused: " : command.hash + ": refused: ") + text);
    }
    if (word == "READONLY") lose(connection, no_master);
    return TQ_MOM_E_REFUSED;
}

int32_t RedisStore::read(const Place &place, const std::string &key, ObjectPtr &found) {
    const auto is_answer = [](const redisReply &reply) {
        return reply.type == REDIS_REPLY_STRING || reply.type == REDIS_REPLY_NIL;
    };
    const std::string hash = hash_of(place);
    Reply reply;
    if (const int32_t error = carry_out({false, hash, {"HGET", hash, key}, is_answer}, reply)) return error;
    if (reply->type == REDIS_REPLY_NIL) return TQ_MOM_E_NOT_FOUND;
    found = new_object(key, text_of(*reply));
    return 0;
}

int32_t RedisStore::read_all(const Place &place, std::vector<ObjectPtr> &objects) {
    const std::string hash = hash_of(place);
    Reply reply;
    if (const int32_t error = carry_out({false, hash, {"HGETALL", hash}, is_list_of_pairs}, reply)) return error;
    for (size_t i = 0; i < reply->elements; i += 2) {
        objects.push_back(new_object(text_of(*reply->element[i]), text_of(*reply->element[i + 1])));
    }
    return 0;
}

int32_t RedisStore::write(const Place &place, Object object) {
    Reply reply;
    return run(write_script, hash_of(place), {object.key, object.bytes, channel_of(place, object.key)}, is_nil, reply);
}

// The first one makes the server know the script. Should it forget it on the way, the rest goes one by one.
int32_t RedisStore::write_many(const std::vector<Write> &writes, size_t &taken, size_t &refused_at) {
    taken = 0;
    refused_at = writes.size();
    int32_t code = 0;
    const auto note = [&](size_t i, int32_t error) {
        if (error == 0) ++taken;
        if (error == 0 || i > refused_at) return;
        refused_at = i;
        code = error;
    };
    size_t answered = 0, one_by_one = writes.size();
    const auto write_alone = [&](size_t i) { note(i, write(writes[i].place, writes[i].object)); };
    if (writes.empty()) return 0;
    write_alone(answered++);
    if (code != 0) return code;

    uint64_t connection = 0;
    {
        const std::lock_guard lock(mutex_);
        connection = connection_;
    }
    const auto command_of = [&](size_t i) {
        const auto &[place, object] = writes[i + 1];
        return formatted({"EVALSHA", write_script.hash, "1", hash_of(place), object.key, object.bytes,
                          channel_of(place, object.key)});
    };
    const auto take = [&](size_t i, const redisReply &reply) {
        ++answered;
        if (is_error(reply) && hash_is_refused(reply)) one_by_one = std::min(one_by_one, i + 1);
        if (one_by_one < writes.size()) return false;
        const bool is_fine = is_nil(reply);
        note(i + 1, is_fine ? 0 : judge({true, hash_of(writes[i + 1].place), {}, is_nil}, reply, connection));
        return code == 0;
    };
    if (!link_.call_many(writes.size() - 1, command_of, take)) {
        lose(connection, nullptr);
        note(std::min(answered, one_by_one), TQ_MOM_E_UNREACHABLE);
    }
    for (size_t i = one_by_one; code == 0 && i < writes.size(); ++i) write_alone(i);
    return code;
}

int32_t RedisStore::erase(const Place &place, const std::string &key) {
    Reply reply;
    if (const int32_t error = run(erase_script, hash_of(place), {key, channel_of(place, key)}, is_number, reply)) {
        return error;
    }
    return reply->integer == 1 ? 0 : TQ_MOM_E_NOT_FOUND;
}

int32_t RedisStore::replace(const Place &place, const ObjectPtr &before, const ObjectPtr &after) {
    const std::string expected = before ? "=" + before->bytes : "";
    const std::string &key = (after ? after : before)->key;
    const std::string hash = hash_of(place), channel = channel_of(place, key);
    const auto is_answer = [](const redisReply &reply) { return is_nil(reply) || is_number(reply); };
    Reply reply;
    const int32_t error = after ? run(write_script, hash, {key, after->bytes, channel, expected}, is_answer, reply)
                                : run(erase_script, hash, {key, channel, expected}, is_answer, reply);
    if (error) return error;
    return is_number(*reply) && reply->integer == 0 ? TQ_MOM_E_CHANGED : 0;
}

}  // namespace tq
