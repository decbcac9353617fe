// A store on a Redis server. mutex_ guards who follows what, what is owed and what is under way; the sink and the link
// are told under it, the feed's own news never is: the feed may answer at once with a loss.
#include "platform/redis_store.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "tq_dm_cache/tq_platform_bundled.h"

namespace tq {

namespace {

constexpr int echoes_without_answer = 5;
constexpr const char *no_master = "the server is no master any more";
constexpr size_t page_bytes = 262144, most_at_once = 256, growth = 4;
constexpr int32_t shortest_rescan_ms = 10, rescan_spread_ms = 500;

bool hash_is_refused(const redisReply &error) {
    return text_of(error).starts_with("NOSCRIPT") || text_of(error).starts_with("NOPERM");
}

ObjectPtr object(std::string_view key, std::string_view bytes) {
    return std::make_shared<const Object>(Object{std::string(key), std::string(bytes)});
}

}  // namespace

RedisStore::RedisStore(const RedisUrl &url, Sink &sink, Loop &loop)
    : url_(url), sink_(sink), loop_(loop), link_(url_), feed_(url_, loop, *this) {}

std::unique_ptr<Store> RedisStore::open(const RedisUrl &url, Sink &sink, Loop &loop, int32_t &error) {
    std::unique_ptr<RedisStore> store(new RedisStore(url, sink, loop));
    error = store->start();
    if (error == 0) return store;
    loop.stop();
    return nullptr;
}

// The feed says itself what keeps it from coming up, and never keeps silent for good.
int32_t RedisStore::start() {
    std::string fault;
    if (const int32_t error = link_.open(fault)) {
        std::fprintf(stderr, "tq_platform: store %s: %s\n", url_.shown.c_str(), fault.c_str());
        return error;
    }
    feed_.begin();
    return started_.get_future().get() ? 0 : TQ_MOM_E_UNREACHABLE;
}

bool RedisStore::up() const {
    const std::lock_guard lock(mutex_);
    return phase_ == Phase::up;
}

// Following

void RedisStore::follow(const Place &place, const std::string *key, const Ticket &ticket) {
    const std::lock_guard lock(mutex_);
    const auto [channel, is_new] = channels_.try_emplace(key ? channel_of(place, *key) : hash_of(place));
    if (is_new) to_subscribe_.push_back(channel->first);
    Followers &followers = channel->second;
    if (std::find(followers.begin(), followers.end(), ticket) == followers.end()) followers.push_back(ticket);
    if (phase_ != Phase::up) return owed_.push_back(ticket);
    to_confirm_[++asked_] = ticket;
    loop_.post([this] { send_follows(); });
}

// One ping each, so that a confirmation that goes missing is that of its own subscription.
void RedisStore::send_follows() {
    {
        const std::lock_guard lock(mutex_);
        if (phase_ != Phase::up) return;
        subscribe_rest();
        while (pinged_ < asked_) feed_.ping(++pinged_);
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
    phase_ = Phase::restoring;
    to_subscribe_ = {private_channel_};
    for (const auto &[name, followers] : channels_) to_subscribe_.push_back(name);
    subscribe_rest();
    feed_.ping(pinged_ = ++asked_);
}

void RedisStore::answered(uint64_t ping) {
    {
        const std::lock_guard lock(mutex_);
        answered_ = ping;
        echoes_ = -echoes_due_;
        if (phase_ == Phase::up) {
            confirm(ping);
            return ask_page();
        }
        if (phase_ == Phase::lost) return;
    }
    establish();
}

// One whose answer has been passed over is confirmed by the next connection.
void RedisStore::confirm(uint64_t ping) {
    while (!to_confirm_.empty() && to_confirm_.begin()->first <= ping) {
        const auto first = to_confirm_.extract(to_confirm_.begin());
        if (first.key() == ping) {
            sink_.post(Confirmed{first.mapped()});
        } else {
            owed_.push_back(first.mapped());
        }
    }
}

// The link is opened here, with a wait: this server has just answered.
void RedisStore::establish() {
    std::string fault;
    if (!starting_ && link_.open(fault) != 0) return feed_.drop(fault);
    if (!come_up()) return feed_.send();
    if (std::exchange(starting_, false)) started_.set_value(true);
}

// False: not all that was asked for while it was away is in force yet; another answer will tell.
bool RedisStore::come_up() {
    const std::lock_guard lock(mutex_);
    if (subscribe_rest()) {
        feed_.ping(pinged_ = ++asked_);
        return false;
    }
    const int32_t reason = feed_.establish() && !demoted_ ? 1 : 2;
    rescan_delay_ms_ = shortest_rescan_ms + std::uniform_int_distribution<int32_t>(0, rescan_spread_ms)(random_);
    phase_ = Phase::up;
    demoted_ = false;
    connection_++;
    refusal_.clear();
    if (!starting_) sink_.connected(reason, std::exchange(owed_, {}));
    return true;
}

// Losing

void RedisStore::lost() {
    {
        const std::lock_guard lock(mutex_);
        cut_off();
    }
    link_.shut();
    if (std::exchange(starting_, false)) started_.set_value(false);
}

void RedisStore::cut_off() {
    if (phase_ == Phase::up) sink_.lost();
    phase_ = Phase::lost;
    for (const auto &[ping, ticket] : to_confirm_) owed_.push_back(ticket);
    to_confirm_.clear();
    scans_.clear();
    page_asked_ = false;
    echoes_due_ = 0;
}

// A caller has found out before the loop has: from now on nothing of this connection is told.
void RedisStore::lost_by_call(uint64_t connection, bool demoted) {
    {
        const std::lock_guard lock(mutex_);
        if (phase_ != Phase::up || connection != connection_) return;
        cut_off();
        demoted_ |= demoted;  // it may have been found out already
    }
    loop_.post([this] { drop_cut_off(); });
}

void RedisStore::drop_cut_off() {
    bool demoted = false;
    {
        const std::lock_guard lock(mutex_);
        if (phase_ != Phase::lost) return;
        demoted = demoted_;
    }
    const std::string fault = link_.collect();
    feed_.drop(demoted ? no_master : fault.empty() ? "a call has failed" : fault);
}

// What a server asks itself shows that both connections work, and that it is still the master.
void RedisStore::tick() {
    drop_cut_off();
    {
        const std::lock_guard lock(mutex_);
        if (phase_ == Phase::up) echoes_due_++;
    }
    link_.post({{"EVAL", echo_script, "0", private_channel_}});
    const std::string fault = link_.collect();
    if (!fault.empty()) feed_.drop(fault);
}

// Hearing

void RedisStore::heard(std::string_view channel, std::string_view bytes) {
    const char *fault = nullptr;
    bool page_is_due = false;
    if (!parse_frame(bytes, frame_)) {
        fault = "it is damaged";
    } else {
        const std::lock_guard lock(mutex_);
        if (phase_ == Phase::up) fault = take(channel);
        page_is_due = phase_ == Phase::up && is_my_mark();
    }
    if (page_is_due) return deliver_page();
    if (fault) feed_.drop("what came by " + std::string(channel) + ": " + fault);
}

const char *RedisStore::take(std::string_view channel) {
    const bool own = frame_.letter == 'M' || frame_.letter == 'E';
    if (own != (channel == private_channel_)) return "it does not belong there";
    if (frame_.letter == 'E') return take_echo();
    if (frame_.letter == 'M') return nullptr;
    if (const auto found = channels_.find(channel); found != channels_.end()) {
        take_change(found->second);
    }
    return nullptr;
}

const char *RedisStore::take_echo() {
    const bool owed = page_asked_ || answered_ != asked_;
    echoes_due_ = std::max(0, echoes_due_ - 1);
    echoes_ = owed ? echoes_ + 1 : -echoes_due_;
    if (echoes_ > echoes_without_answer) return "echoes, and a request has no answer";
    if (frame_.strings[0] == "master") return nullptr;
    demoted_ = true;
    return no_master;
}

void RedisStore::take_change(const Followers &followers) {
    const auto &strings = frame_.strings;
    Changed change;
    if (frame_.letter == 'D') change.before = object(strings[0], "");
    if (frame_.letter == 'C') change.before = object(strings[0], strings[2]);
    if (frame_.letter != 'D') change.after = object(strings[0], strings[1]);
    for (const Ticket &ticket : followers) {
        change.ticket = ticket;
        sink_.post(change);
    }
}

// Scanning

// The first page is asked for here, if it can be: before anything that this thread asks for later.
void RedisStore::scan(const Place &place, const Ticket &ticket) {
    const std::lock_guard lock(mutex_);
    if (phase_ != Phase::up) return;
    scans_.push_back({++scans_so_far_, hash_of(place), ticket});
    ask_page();
}

// One at a time, and none while a subscription may not be in force yet: a scan must not be older than the first change
// that is pushed.
void RedisStore::ask_page() {
    if (scans_.empty() || page_asked_ || answered_ != asked_) return;
    const Scan &scan = scans_.front();
    page_asked_ = true;
    echoes_ = -echoes_due_;
    link_.post({{"MULTI"},
                {"PUBLISH", private_channel_, mark_frame(scan.number)},
                {"HSCAN", scan.hash, scan.cursor, "COUNT", std::to_string(scan.count)},
                {"EXEC"}});
}

// The mark of a scan that a lost connection has cut off may still come.
bool RedisStore::is_my_mark() const {
    return frame_.letter == 'M' && page_asked_ && frame_.strings[0] == std::to_string(scans_.front().number);
}

// The page has its place here in the order. The server has carried out the transaction, so the answer is on its way: what
// the feed has to tell after it waits. Not with the lock held: a caller may be before it on the link, and wants it.
void RedisStore::deliver_page() {
    const Reply answer = link_.take_transaction();
    if (!answer) {
        const std::string fault = link_.collect();
        return feed_.drop(fault.empty() ? "a page of a scan is missing" : fault);
    }
    const redisReply *const page = answer->elements == 2 ? answer->element[1] : nullptr;
    if (page && is_error(*page)) return feed_.drop(std::string(text_of(*page)));
    if (!page || page->type != REDIS_REPLY_ARRAY || page->elements != 2 || page->element[1]->elements % 2 != 0)
        return feed_.drop("a page of a scan means nothing");
    const std::lock_guard lock(mutex_);
    if (phase_ == Phase::up && page_asked_) take_page(*page);
}

void RedisStore::take_page(const redisReply &reply) {
    Scan &scan = scans_.front();
    scan.cursor = text_of(*reply.element[0]);
    Page page{scan.ticket, {}, scan.cursor == "0"};
    const redisReply &list = *reply.element[1];
    page.objects.reserve(list.elements / 2);
    for (size_t i = 0; i < list.elements; i += 2) {
        const std::string_view key = text_of(*list.element[i]), bytes = text_of(*list.element[i + 1]);
        scan.largest = std::max(scan.largest, key.size() + bytes.size());
        page.objects.push_back(object(key, bytes));
    }
    scan.count = std::clamp(page_bytes / scan.largest, size_t{1}, std::min(growth * scan.count, most_at_once));
    if (page.last) scans_.pop_front();
    page_asked_ = false;
    ask_page();
    sink_.post(std::move(page));
}

// Commanding

int32_t RedisStore::call(const Words &words, Reply &reply, uint64_t &connection) {
    {
        const std::lock_guard lock(mutex_);
        if (phase_ != Phase::up) return TQ_MOM_E_UNREACHABLE;
        connection = connection_;
    }
    reply = link_.call(words);
    if (reply) return 0;
    lost_by_call(connection, /*demoted=*/false);
    return TQ_MOM_E_UNREACHABLE;
}

int32_t RedisStore::command(const Words &words, Reply &reply) {
    uint64_t connection = 0;
    if (const int32_t error = call(words, reply, connection)) return error;
    return is_error(*reply) ? refused(text_of(*reply), connection) : 0;
}

// A script by its hash. A server that does not know it yet, or a user who may not name it so, has the text sent.
int32_t RedisStore::run(const Script &script, Words words, Reply &reply) {
    words.insert(words.begin(), {"EVALSHA", script.hash});
    uint64_t connection = 0;
    if (const int32_t error = call(words, reply, connection)) return error;
    if (!is_error(*reply)) return 0;
    if (!hash_is_refused(*reply)) return refused(text_of(*reply), connection);
    words[0] = "EVAL";
    words[1] = script.text;
    return command(words, reply);
}

int32_t RedisStore::refused(std::string_view error, uint64_t connection) {
    const std::string_view word = error.substr(0, error.find(' '));
    {
        const std::lock_guard lock(mutex_);
        if (refusal_ != word) {
            refusal_ = word;
            std::fprintf(stderr, "tq_platform: store %s: refused: %.*s\n", url_.shown.c_str(),
                         static_cast<int>(error.size()), error.data());
        }
    }
    if (word == "READONLY") lost_by_call(connection, /*demoted=*/true);
    return TQ_MOM_E_REFUSED;
}

int32_t RedisStore::read(const Place &place, const std::string &key, ObjectPtr &found) {
    Reply reply;
    if (const int32_t error = command({"HGET", hash_of(place), key}, reply)) return error;
    if (reply->type != REDIS_REPLY_STRING) return TQ_MOM_E_NOT_FOUND;
    found = object(key, text_of(*reply));
    return 0;
}

int32_t RedisStore::read_all(const Place &place, std::vector<ObjectPtr> &objects) {
    Reply reply;
    if (const int32_t error = command({"HGETALL", hash_of(place)}, reply)) return error;
    for (size_t i = 0; i + 1 < reply->elements; i += 2) {
        objects.push_back(object(text_of(*reply->element[i]), text_of(*reply->element[i + 1])));
    }
    return 0;
}

int32_t RedisStore::write(const Place &place, Object object) {
    Reply reply;
    return run(write_script, {"1", hash_of(place), object.key, object.bytes, channel_of(place, object.key)}, reply);
}

// The first one makes the server know the script. Should it forget it on the way, the rest goes one by one.
int32_t RedisStore::write_many(const std::vector<Write> &writes, size_t &taken, size_t &refused_at) {
    taken = 0;
    refused_at = writes.size();
    int32_t code = 0;
    const auto note = [&](size_t i, int32_t error) {
        if (error == 0) taken++;
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
        answered++;
        if (is_error(reply) && hash_is_refused(reply)) one_by_one = std::min(one_by_one, i + 1);
        if (one_by_one < writes.size()) return false;
        note(i + 1, is_error(reply) ? refused(text_of(reply), connection) : 0);
        return code == 0;
    };
    if (!link_.call_many(writes.size() - 1, command_of, take)) {
        lost_by_call(connection, /*demoted=*/false);
        note(answered, TQ_MOM_E_UNREACHABLE);
    }
    for (size_t i = one_by_one; code == 0 && i < writes.size(); i++) write_alone(i);
    return code;
}

int32_t RedisStore::erase(const Place &place, const std::string &key) {
    Reply reply;
    if (const int32_t error = run(erase_script, {"1", hash_of(place), key, channel_of(place, key)}, reply))
        return error;
    return reply->integer == 1 ? 0 : TQ_MOM_E_NOT_FOUND;
}

int32_t RedisStore::replace(const Place &place, const ObjectPtr &before, const ObjectPtr &after) {
    const std::string expected = before ? "=" + before->bytes : "";
    const std::string &key = after ? after->key : before->key;
    const std::string hash = hash_of(place), channel = channel_of(place, key);
    Reply reply;
    const int32_t error = after ? run(write_script, {"1", hash, key, after->bytes, channel, expected}, reply)
                                : run(erase_script, {"1", hash, key, channel, expected}, reply);
    if (error) return error;
    return reply->type == REDIS_REPLY_INTEGER && reply->integer == 0 ? TQ_MOM_E_CHANGED : 0;
}

}  // namespace tq
