// The connection on which a client gives commands. call() waits for its answer. post() does not wait, and what it sends
// goes before whatever is called later: one thread's requests keep their order. Of the answers to what is posted only those
// of transactions are kept.
#ifndef TQ_PLATFORM_REDIS_LINK_H
#define TQ_PLATFORM_REDIS_LINK_H

#include <deque>
#include <functional>
#include <mutex>

#include "platform/redis_connection.h"

namespace tq {

class RedisLink {
public:
    explicit RedisLink(const RedisUrl &url) : url_(url) {}

    // Connects, and tries the credentials out. 0, TQ_MOM_E_UNREACHABLE or TQ_MOM_E_DENIED with a fault in words.
    int32_t open(std::string &fault);
    // Ends the calls under way, and all to come until it is opened again. On the thread that opens it.
    void shut() { connection_.shut(); }

    // Null: the connection is lost.
    Reply call(const Words &command);
    // The same for many commands, some hundred at a time: those are sent before the first one's answer is waited for. `take`
    // gets the answers in order; when one of a group made it answer false, no further group is sent. False: the connection
    // is lost.
    using Command = std::function<std::string(size_t number)>;
    using Take = std::function<bool(size_t number, const redisReply &answer)>;
    bool call_many(size_t count, const Command &command, const Take &take);
    // Waits for no call under way: whoever is in one sends it along.
    void post(const std::vector<Words> &commands);
    // The answer of the first posted transaction that has not been taken. Waits for it: the server must have it already.
    // Null: there is none any more.
    Reply take_transaction();
    // What is wrong with the connection, or with a posted command; empty: nothing known. Does not wait.
    std::string collect();

private:
    int32_t try_credentials(std::string &fault);
    void take_posted();
    void send_posted();
    Reply answer();
    Reply lose();
    void take_owed(Reply reply);
    void receive_owed();

    const RedisUrl &url_;

    std::mutex mutex_;  // guards the connection and what follows
    RedisConnection connection_;
    bool usable_ = false;
    int owed_ = 0;  // answers to posted commands
    std::deque<Reply> transactions_;
    std::string fault_;

    std::mutex posted_mutex_;  // guards posted_; taken last
    std::string posted_;
    int posted_answers_ = 0;
};

}  // namespace tq

#endif
