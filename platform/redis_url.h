// The URL of a store on a Redis server, and what it says without its secret. No state, no lock.
#ifndef TQ_PLATFORM_REDIS_URL_H
#define TQ_PLATFORM_REDIS_URL_H

#include <chrono>
#include <string>

namespace tq {

struct RedisUrl {
    std::string socket;  // the path of a unix socket; empty: TCP
    std::string host;
    int port = 6379;
    std::string user;  // a secret is shown to nobody, a user name is
    std::string password;
    std::chrono::milliseconds probe{5000};  // how long a server may be silent
    std::string shown;                      // for messages
};

bool is_redis_url(const std::string &url);

// What the URL does not give of user and password is taken from the environment. Throws what is wrong with it, in words
// without the secret, as std::invalid_argument.
RedisUrl parse_redis_url(const std::string &url);

// Any URL, a wrong one too, without what may be its secret.
std::string url_without_secret(const std::string &url);

}  // namespace tq

#endif
