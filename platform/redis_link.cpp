// The command connection. mutex_ is held for the whole of a call; posted_mutex_ for a moment only.
#include "platform/redis_link.h"

#include <poll.h>
#include <utility>

#include "tq_dm_cache/tq_platform_bundled.h"

namespace tq {

int32_t RedisLink::open(std::string &fault) {
    const std::lock_guard lock(mutex_);
    {
        const std::lock_guard posted_lock(posted_mutex_);
        posted_.clear();
    }
    owed_ = 0;
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

void RedisLink::post(const Words &command) {
    std::string bytes = formatted(command);
    {
        const std::lock_guard lock(posted_mutex_);
        posted_.push_back(std::move(bytes));
    }
    send_posted();
}

void RedisLink::take_posted() {
    const std::lock_guard lock(posted_mutex_);
    for (const std::string &command : posted_) connection_.add(command);
    owed_ += static_cast<int>(posted_.size());
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

void RedisLink::take_owed(const Reply &reply) {
    owed_--;
    if (reply && is_error(*reply)) fault_ = text_of(*reply);
}

// What has come without a wait, be it the end of the connection.
void RedisLink::receive_owed() {
    pollfd waiting = {connection_.fd(), POLLIN, 0};
    while (usable_ && ::poll(&waiting, 1, 0) > 0) {
        if (connection_.receive() == RedisConnection::Received::failed) lose();
        while (Reply reply = connection_.next()) take_owed(reply);
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
