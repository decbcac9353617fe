// The command connection. mutex_ is held for the whole of a call; posted_mutex_ for a moment only.
#include "platform/redis_link.h"

#include <poll.h>
#include <utility>

#include "tq_dm_cache/tq_platform_bundled.h"

namespace tq {

namespace {

constexpr int longest_answer = 12;  // probe times, while it keeps coming
constexpr int longest_silence = 5;  // fifths of a probe time

}  // namespace

int32_t RedisLink::open(const Address &server, Identity &identity, std::string &fault) {
    const std::lock_guard lock(mutex_);
    {
        const std::lock_guard posted_lock(posted_mutex_);
        posted_.clear();
        posted_owed_.clear();
    }
    owed_.clear();
    silences_ = waits_ = 0;
    transactions_.clear();
    fault_.clear();
    usable_ = connection_.open(server, url_.probe, /*is_blocking=*/true);
    if (ended_) connection_.shut();
    const int32_t error = usable_ ? ask_identity(identity, fault) : TQ_MOM_E_UNREACHABLE;
    if (!usable_) fault = connection_.fault();
    usable_ = error == 0;
    return error;
}

void RedisLink::end() {
    ended_ = true;
    connection_.shut();
}

// Of what the server says to the credentials only the first word is told: it may quote them.
int32_t RedisLink::ask_identity(Identity &identity, std::string &fault) {
    const std::string auth = auth_command(url_.credentials);
    connection_.add(auth);
    connection_.add(identity_question());
    connection_.add(name_.command());
    for (int answers = auth.empty() ? 1 : 2; answers > 0; --answers) {
        const Reply reply = read_answer();
        if (!reply) return TQ_MOM_E_UNREACHABLE;
        if (is_error(*reply)) {
            const std::string word(text_of(*reply).substr(0, text_of(*reply).find(' ')));
            const bool denied = (answers == 2 && !is_full(*reply)) || word == "NOAUTH" || word == "NOPERM";
            fault = denied ? "the server refuses the credentials (" + word + ")" : std::string(text_of(*reply));
            return denied ? TQ_MOM_E_DENIED : TQ_MOM_E_UNREACHABLE;
        }
        if (answers > 1) continue;
        if (reply->type != REDIS_REPLY_STRING || !parse_identity(text_of(*reply), identity)) {
            fault = other_answer;
            return TQ_MOM_E_UNREACHABLE;
        }
        fault = unfit(identity);
        if (!fault.empty()) return TQ_MOM_E_REFUSED;
    }
    return read_answer() ? 0 : TQ_MOM_E_UNREACHABLE;  // to the name, whatever it is
}

Reply RedisLink::call(const Words &command) {
    Reply reply;
    {
        const std::lock_guard lock(mutex_);
        if (!usable_) return nullptr;
        const LoseWhenThrown guard{*this};
        take_posted();
        connection_.add(formatted(command));
        take_all_owed();
        if (usable_) reply = answer();
    }
    send_posted();
    return reply;
}

std::vector<Reply> RedisLink::call_many(size_t count, const std::string &commands) {
    std::vector<Reply> replies;
    replies.reserve(count);
    {
        const std::lock_guard lock(mutex_);
        const LoseWhenThrown guard{*this};
        take_posted();
        connection_.add(commands);
        take_all_owed();
        while (usable_ && replies.size() < count)
            if (Reply reply = answer()) replies.push_back(std::move(reply));
    }
    send_posted();
    return replies;
}

void RedisLink::post(const std::vector<Words> &commands, bool is_transaction, bool may_be_refused) {
    std::string bytes;
    for (const Words &command : commands) bytes += formatted(command);
    {
        const std::lock_guard lock(posted_mutex_);
        posted_.reserve(posted_.size() + bytes.size());
        posted_owed_.push_back({commands.size(), is_transaction, may_be_refused});
        posted_ += bytes;
    }
    send_posted();
}

RedisLink::Transaction RedisLink::take_transaction() {
    Transaction taken;
    {
        const std::lock_guard lock(mutex_);
        const LoseWhenThrown guard{*this};
        while (usable_ && transactions_.empty() && !owed_.empty()) take_owed(answer());
        if (!transactions_.empty()) {
            taken = std::move(transactions_.front());
            transactions_.pop_front();
        }
    }
    send_posted();
    return taken;
}

bool RedisLink::take_failed(Transaction &failed) {
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock || transactions_.empty() || transactions_.front().fault.empty()) return false;
    failed = std::move(transactions_.front());
    transactions_.pop_front();
    return true;
}

bool RedisLink::is_waiting() {
    const std::lock_guard lock(posted_mutex_);
    return !posted_.empty();
}

void RedisLink::take_posted() {
    const std::lock_guard lock(posted_mutex_);
    connection_.add(posted_);
    posted_.clear();
    for (Owed &owed : posted_owed_) owed_.push_back(std::move(owed));
    posted_owed_.clear();
}

// Whoever holds the lock looks here again when it has let go of it.
void RedisLink::send_posted() {
    while (is_waiting()) {
        const std::unique_lock lock(mutex_, std::try_to_lock);
        if (!lock) return;
        take_posted();
        connection_.set_deadline(url_.probe);
        if (usable_ && !connection_.send()) lose();
    }
}

void RedisLink::take_all_owed() {
    while (usable_ && !owed_.empty()) take_owed(answer());
}

// The next answer, after everything has been sent. One that keeps coming may take its time, but not for ever.
Reply RedisLink::answer() {
    connection_.set_deadline(url_.probe * longest_answer);
    return read_answer();
}

Reply RedisLink::read_answer() {
    if (!connection_.send()) return lose();
    for (;;) {
        if (Reply reply = connection_.next()) return reply;
        if (!connection_.fault().empty() || connection_.receive() == RedisConnection::Received::failed) return lose();
    }
}

Reply RedisLink::lose() {
    usable_ = false;
    fault_ = connection_.fault();
    connection_.shut();
    return nullptr;
}

void RedisLink::take_owed(Reply reply) {
    if (!reply) return;
    if (owed_.empty()) {  // nobody has asked: later answers would be taken for others
        lose();
        fault_ = other_answer;
        return;
    }
    Owed &owed = owed_.front();
    if (is_error(*reply) && owed.fault.empty() && !owed.may_be_refused) owed.fault = text_of(*reply);
    for (size_t i = 0; i < reply->elements && owed.fault.empty(); ++i)
        if (is_error(*reply->element[i])) owed.fault = text_of(*reply->element[i]);
    ++answers_;
    if (--owed.answers > 0) return;
    if (owed.is_transaction)
        transactions_.push_back({std::move(reply), std::move(owed.fault)});
    else if (!owed.fault.empty())
        fault_ = std::move(owed.fault);
    owed_.pop_front();
}

// What has come without a wait, be it the end of the connection.
void RedisLink::receive_owed() {
    pollfd waiting = {connection_.fd(), POLLIN, 0};
    connection_.set_deadline(url_.probe);
    while (usable_ && ::poll(&waiting, 1, 0) > 0) {
        if (connection_.receive() == RedisConnection::Received::failed) lose();
        for (Reply reply; usable_ && (reply = connection_.next());) take_owed(std::move(reply));
        if (usable_ && !connection_.fault().empty()) lose();
    }
}

// An answer that is owed, and nothing of it has come since the last time this was looked at; or it has been coming for as
// long as a call waits for one.
void RedisLink::notice_silence() {
    const bool is_silent = !owed_.empty() && received() == received_before_;
    received_before_ = received();
    silences_ = is_silent ? silences_ + 1 : 0;
    waits_ = owed_.empty() || answers_ != answers_before_ ? 0 : waits_ + 1;
    answers_before_ = answers_;
    if (silences_ < longest_silence && waits_ < longest_silence * longest_answer) return;
    lose();
    fault_ = "no answer";
}

std::string RedisLink::collect() {
    std::string fault;
    {
        const std::unique_lock lock(mutex_, std::try_to_lock);
        if (!lock) return {};
        const LoseWhenThrown guard{*this};
        if (usable_) receive_owed();
        if (usable_) notice_silence();
        fault = std::exchange(fault_, "");
        if (!usable_ && fault.empty()) fault = "the command connection is lost";
    }
    send_posted();
    return fault;
}

}  // namespace tq
