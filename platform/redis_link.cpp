// The command connection. mutex_ is held for the whole of a call; posted_mutex_ for a moment only.
#include "platform/redis_link.h"

#include <poll.h>
#include <utility>

#include "tq_dm_cache/tq_platform_bundled.h"

namespace tq {

namespace {

constexpr size_t commands_at_a_time = 256;  // their answers wait at the server until all of them are sent

}  // namespace

int32_t RedisLink::open(std::string &fault) {
    const std::lock_guard lock(mutex_);
    {
        const std::lock_guard posted_lock(posted_mutex_);
        posted_.clear();
        posted_answers_ = 0;
    }
    owed_ = 0;
    transactions_.clear();
    fault_.clear();
    usable_ = connection_.open(url_, /*is_blocking=*/true);
    const int32_t error = usable_ ? try_credentials(fault) : TQ_MOM_E_UNREACHABLE;
    if (!usable_) fault = connection_.fault();
    usable_ = error == 0;
    return error;
}

// Of what the server says to them only the first word is told: it may quote them.
int32_t RedisLink::try_credentials(std::string &fault) {
    const std::string auth = auth_command(url_);
    connection_.add(auth);
    connection_.add(formatted({"PING"}));
    for (int answers = auth.empty() ? 1 : 2; answers > 0; answers--) {
        const Reply reply = answer();
        if (!reply) return TQ_MOM_E_UNREACHABLE;
        if (!is_error(*reply)) continue;
        const std::string word(text_of(*reply).substr(0, text_of(*reply).find(' ')));
        const bool denied = (answers == 2 && !is_full(*reply)) || word == "NOAUTH" || word == "NOPERM";
        fault = denied ? "the server refuses the credentials (" + word + ")" : std::string(text_of(*reply));
        return denied ? TQ_MOM_E_DENIED : TQ_MOM_E_UNREACHABLE;
    }
    return 0;
}

Reply RedisLink::call(const Words &command) {
    Reply reply;
    {
        const std::lock_guard lock(mutex_);
        if (!usable_) return nullptr;
        take_posted();
        connection_.add(formatted(command));
        while (usable_ && owed_ > 0) take_owed(answer());
        if (usable_) reply = answer();
    }
    send_posted();
    return reply;
}

bool RedisLink::call_many(size_t count, const Command &command, const Take &take) {
    bool held = true, more = true;
    for (size_t begin = 0, end; held && more && begin < count; begin = end) {
        {
            const std::lock_guard lock(mutex_);
            take_posted();
            for (end = begin; end < count && end < begin + commands_at_a_time; end++) connection_.add(command(end));
            while (usable_ && owed_ > 0) take_owed(answer());
            for (size_t i = begin; held && i < end; i++) {
                const Reply reply = usable_ ? answer() : nullptr;
                held = reply != nullptr;
                if (held) more &= take(i, *reply);
            }
        }
        send_posted();
    }
    return held;
}

void RedisLink::post(const std::vector<Words> &commands) {
    std::string bytes;
    for (const Words &command : commands) bytes += formatted(command);
    {
        const std::lock_guard lock(posted_mutex_);
        posted_ += bytes;
        posted_answers_ += static_cast<int>(commands.size());
    }
    send_posted();
}

Reply RedisLink::take_transaction() {
    Reply taken;
    {
        const std::lock_guard lock(mutex_);
        while (usable_ && transactions_.empty() && owed_ > 0) take_owed(answer());
        if (!transactions_.empty()) {
            taken = std::move(transactions_.front());
            transactions_.pop_front();
        }
    }
    send_posted();
    return taken;
}

void RedisLink::take_posted() {
    const std::lock_guard lock(posted_mutex_);
    connection_.add(posted_);
    owed_ += std::exchange(posted_answers_, 0);
    posted_.clear();
}

// Whoever holds the lock looks here again when it has let go of it.
void RedisLink::send_posted() {
    const auto waiting = [this] {
        const std::lock_guard lock(posted_mutex_);
        return !posted_.empty();
    };
    while (waiting()) {
        const std::unique_lock lock(mutex_, std::try_to_lock);
        if (!lock) return;
        take_posted();
        if (usable_ && !connection_.send()) lose();
    }
}

// The next answer, after everything has been sent.
Reply RedisLink::answer() {
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
    owed_--;
    if (reply && is_error(*reply)) fault_ = text_of(*reply);
    if (reply && reply->type == REDIS_REPLY_ARRAY) transactions_.push_back(std::move(reply));
}

// What has come without a wait, be it the end of the connection.
void RedisLink::receive_owed() {
    pollfd waiting = {connection_.fd(), POLLIN, 0};
    while (usable_ && ::poll(&waiting, 1, 0) > 0) {
        if (connection_.receive() == RedisConnection::Received::failed) lose();
        while (Reply reply = connection_.next()) take_owed(std::move(reply));
        if (!connection_.fault().empty()) lose();
    }
}

std::string RedisLink::collect() {
    std::string fault;
    {
        const std::unique_lock lock(mutex_, std::try_to_lock);
        if (!lock) return {};
        if (usable_) receive_owed();
        fault = std::exchange(fault_, "");
        if (!usable_ && fault.empty()) fault = "the command connection is lost";
    }
    send_posted();
    return fault;
}

}  // namespace tq
