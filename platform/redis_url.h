// The URL of a store on a Redis server, and what it says without its secret. No state, no lock.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace tq {

// Where to connect.
struct Address {
    std::string socket;  // the path of a unix socket; empty: TCP
    std::string host;
    int port = 6379;
    bool operator==(const Address &) const = default;
};

// Both empty: nothing is presented.
struct Credentials {
    std::string user;  // is shown; a password is to nobody
    std::string password;
};

// The server, or else who knows which one it is just now, and by what name.
struct RedisUrl {
    Address server;
    std::vector<Address> sentinels;
    std::string master_name;
    Credentials credentials, sentinel_credentials;
    std::chrono::milliseconds probe{5000};  // how long a server may be silent
    std::string shown;                      // for messages; parses, and shows itself
};

// What the URL does not give of user and password is taken from the environment. Throws what is wrong with it, in words
// without the secret, as std::invalid_argument.
RedisUrl parse_redis_url(const std::string &url);

// Any URL, a wrong one too, without what may be its secret: of one that does not parse, its scheme.
std::string url_without_secret(const std::string &url);

// For messages.
std::string name_of(const Address &address);

}  // namespace tq
