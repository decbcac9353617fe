// The connection on which a client gives commands. call() waits for its answer. post() does not wait, and what it sends
// goes before whatever is called later: one thread's requests keep their order.
#ifndef TQ_PLATFORM_REDIS_LINK_H
#define TQ_PLATFORM_REDIS_LINK_H

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
    // Waits for no call under way: whoever is in one sends it along.
    void post(const Words &command);
    // What is wrong with the connection, or with a posted command; empty: nothing known. Does not wait.
    std::string collect();

private:
    int32_t try_credentials(std::string &fault);
    void take_posted();
    void send_posted();
    Reply answer();
    Reply lose();
    void take_owed(const Reply &reply);
    void receive_owed();

    const RedisUrl &url_;

    std::mutex mutex_;  // guards the connection and what follows
    RedisConnection connection_;
    bool usable_ = false;
    int owed_ = 0;  // answers to posted commands
    std::string fault_;

    std::mutex posted_mutex_;  // guards posted_; taken last
    std::vector<std::string> posted_;
};

}  // namespace tq

#endif
