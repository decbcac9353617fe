// A Redis server of the tests' own, on a unix socket in a temporary folder, and the road of one client to it, which can be
// cut. A server ends with the test program, however that ends.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

void pass(std::chrono::milliseconds time);  // where being slow is what is tested

// Until it is so; false after a long while.
template <class Done> bool wait_until(Done done, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (; !done(); pass(std::chrono::milliseconds(5))) {
        if (std::chrono::steady_clock::now() > end) return false;
    }
    return true;
}

class RedisServer {
public:
    explicit RedisServer(const std::vector<std::string> &options = {});  // a file may be the first
    ~RedisServer();
    RedisServer(const RedisServer &) = delete;

    std::string socket() const { return folder_ + "/redis.sock"; }
    std::string url() const { return "redis+unix://" + socket(); }

    void start();              // with the content that was saved last
    void kill();               // without saving
    void freeze(bool frozen);  // SIGSTOP, SIGCONT
    void restart(bool keep);   // with its content, or empty

    // The answer as text, lists in brackets, errors too. Binary words are fine.
    std::string command(const std::vector<std::string> &words, const std::string &password = "") const;
    int listen_on_loopback();                         // the port
    void replicate(const RedisServer &master) const;  // which listens there; waits for a copy of what it has
    void lose_feeds() const { command({"CLIENT", "KILL", "TYPE", "pubsub"}); }
    long number(const std::string &before) const;  // behind these words in what it tells of itself; 0: not there
    long calls_of(const std::string &command) const { return number("cmdstat_" + command + ":calls="); }

private:
    std::string folder_;
    std::vector<std::string> options_;
    int pid_ = 0, port_ = 0;
};

// Between one client and its server.
class Proxy {
public:
    // What happens to bytes on their way to the client: it may change them, wait, or send some itself. False ends the road.
    using Bend = std::function<bool(std::string &bytes, int client)>;
    enum class Roads { commands, feeds, to_come };
    enum class Way { there, back };

    Proxy(const std::string &listen_at, const std::string &server);
    ~Proxy();
    Proxy(const Proxy &) = delete;

    void cut();  // ends what passes, and refuses to begin anew
    void let_in();
    void drop_fences(int n) { fences_to_drop_ = n; }
    void bend(Roads which, Bend bend);
    void hold_up(Roads which, Way way);  // what comes waits, until all go on
    void go_on();
    void lead_to(std::deque<std::string> servers);  // the roads to come, in turn; the last one stays
    void wait_for_bytes(size_t more, std::chrono::milliseconds limit);  // to the client

private:
    struct Road {
        int client, server;
        std::shared_ptr<const Bend> bend = {};
        bool is_feed = false;
        bool held_up[2] = {};  // there, back
        std::thread thread = {};
    };
    void accept_all();
    void carry(Road &road);
    bool carry_some(Road &road, bool to_client);

    const std::string path_;
    int listener_ = -1;
    std::atomic<int> fences_to_drop_ = 0;
    std::atomic<size_t> carried_ = 0;
    std::mutex mutex_;  // guards what follows
    bool refusing_ = false;
    std::deque<std::string> servers_;
    std::shared_ptr<const Bend> bend_to_come_;
    std::list<Road> roads_;
    std::thread thread_;
};
