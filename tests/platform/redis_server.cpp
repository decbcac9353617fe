// A Redis server of the tests' own, and proxies before it. Whoever cuts shuts descriptors down; the destructor closes them.
#include "tests/platform/redis_server.h"

#include <hiredis.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace {

using Context = std::unique_ptr<redisContext, void (*)(redisContext *)>;

Context connect(const std::string &path) {
    return {redisConnectUnix(path.c_str()), redisFree};
}

std::string describe(const redisReply *reply) {
    if (!reply) return "no answer";
    if (reply->type == REDIS_REPLY_INTEGER) return std::to_string(reply->integer);
    if (reply->type != REDIS_REPLY_ARRAY) return reply->str ? std::string(reply->str, reply->len) : "nil";
    std::string text;
    for (size_t i = 0; i < reply->elements; ++i) text += (i ? " " : "") + describe(reply->element[i]);
    return "[" + text + "]";
}

std::string run(redisContext *context, const std::vector<std::string> &words) {
    std::vector<const char *> data;
    std::vector<size_t> sizes;
    for (const std::string &word : words) {
        data.push_back(word.data());
        sizes.push_back(word.size());
    }
    auto *reply =
        static_cast<redisReply *>(redisCommandArgv(context, static_cast<int>(words.size()), data.data(), sizes.data()));
    const std::string text = describe(reply);
    if (reply) freeReplyObject(reply);
    return text;
}

int unix_socket(const std::string &path, decltype(::connect) *attach) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (attach(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return fd;
    ::close(fd);
    return -1;
}

}  // namespace

void pass(std::chrono::milliseconds time) {
    ::poll(nullptr, 0, static_cast<int>(time.count()));
}

RedisServer::RedisServer(const std::vector<std::string> &options) : options_(options) {
    std::string folder = std::filesystem::temp_directory_path() / "dm-redis-XXXXXX";
    if (!mkdtemp(folder.data())) throw std::runtime_error(folder);
    folder_ = folder;
    start();
}

RedisServer::~RedisServer() {
    kill();
    std::filesystem::remove_all(folder_);
}

void RedisServer::start() {
    std::vector<std::string> words = {"redis-server"};
    words.insert(words.end(), options_.begin(), options_.end());
    words.insert(words.end(), {"--port", "0", "--save", "", "--unixsocket", socket(), "--dir", folder_, "--logfile",
                               "redis.log", "--daemonize", "no"});
    std::vector<char *> arguments;
    for (std::string &word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    const bool answers = wait_until([&] {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) throw std::runtime_error("redis-server has ended");
        const Context context = connect(socket());
        const std::string answer = context->err ? "" : run(context.get(), {"PING"});
        return answer == "PONG" || answer.starts_with("NOAUTH");
    });
    if (!answers) throw std::runtime_error("redis-server does not start");
}

void RedisServer::kill() {
    if (pid_ == 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(std::exchange(pid_, 0), nullptr, 0);
}

void RedisServer::freeze(bool frozen) {
    ::kill(pid_, frozen ? SIGSTOP : SIGCONT);
}

void RedisServer::restart(bool keep) {
    if (keep && command({"SAVE"}) != "OK") throw std::runtime_error("redis-server does not save");
    kill();
    if (!keep) std::filesystem::remove(folder_ + "/dump.rdb");
    start();
}

std::string RedisServer::command(const std::vector<std::string> &words, const std::string &password) const {
    const Context context = connect(socket());
    if (!password.empty()) run(context.get(), {"AUTH", password});
    return run(context.get(), words);
}

// Below those that the system gives to whoever connects.
int RedisServer::listen_on_loopback() {
    static int port = 20000 + getpid() % 10000;
    while (command({"CONFIG", "SET", "port", std::to_string(++port)}) != "OK") continue;
    return port_ = port;
}

void RedisServer::replicate(const RedisServer &master) const {
    master.command({"CONFIG", "SET", "repl-diskless-sync-delay", "0"});
    command({"REPLICAOF", "127.0.0.1", std::to_string(master.port_)});
    const auto is_there = [&] { return command({"INFO", "replication"}).find("link_status:up") != std::string::npos; };
    if (!wait_until(is_there)) throw std::runtime_error("redis-server does not replicate");
}

long RedisServer::number(const std::string &before) const {
    const std::string info = command({"INFO", "everything"});
    const size_t at = info.find("\n" + before);
    return at == std::string::npos ? 0 : std::stol(info.substr(at + 1 + before.size()));
}

Proxy::Proxy(const std::string &listen_at, const std::string &server) : path_(listen_at), servers_({server}) {
    listener_ = unix_socket(path_, ::bind);
    if (listener_ < 0 || listen(listener_, 16) != 0) throw std::runtime_error(path_);
    thread_ = std::thread([this] { accept_all(); });
}

Proxy::~Proxy() {
    cut();
    ::shutdown(listener_, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
    for (Road &road : roads_) {
        road.thread.join();
        ::close(road.client);
        ::close(road.server);
    }
    ::unlink(path_.c_str());
}

void Proxy::accept_all() {
    for (;;) {
        const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) return;
        const std::lock_guard lock(mutex_);
        const int server = refusing_ ? -1 : unix_socket(servers_.front(), ::connect);
        if (servers_.size() > 1) servers_.pop_front();
        if (server < 0) {
            ::close(client);
            continue;
        }
        Road &road = roads_.emplace_back(Road{client, server, bend_to_come_});
        road.thread = std::thread([this, &road] { carry(road); });
    }
}

void Proxy::carry(Road &road) {
    for (bool open = true; open;) {
        pollfd ends[] = {{road.client, POLLIN, 0}, {road.server, POLLIN, 0}};
        {
            const std::lock_guard lock(mutex_);
            for (int way : {0, 1}) ends[way].fd = road.held_up[way] ? -1 : ends[way].fd;
        }
        if (::poll(ends, 2, 5) <= 0) continue;
        if (ends[0].revents) open = carry_some(road, false);
        if (open && ends[1].revents) open = carry_some(road, true);
    }
    ::shutdown(road.client, SHUT_RDWR);
    ::shutdown(road.server, SHUT_RDWR);
}

// A fence's answer is small, and comes in one piece when nothing else is under way.
bool Proxy::carry_some(Road &road, bool to_client) {
    char buffer[64 * 1024];
    std::string bytes;
    std::shared_ptr<const Bend> bend;
    {
        const std::lock_guard lock(mutex_);
        if (road.held_up[to_client]) return true;
        const ssize_t n = ::recv(to_client ? road.server : road.client, buffer, sizeof buffer, 0);
        if (n <= 0) return false;
        bytes.assign(buffer, static_cast<size_t>(n));
        if (!to_client && bytes.find("\r\nSUBSCRIBE\r\n") != std::string::npos) road.is_feed = true;
        if (to_client) bend = road.bend;
    }
    if (bend && *bend && !(*bend)(bytes, road.client)) return false;
    const std::string fence = "*3\r\n$11\r\nunsubscribe\r\n";
    for (size_t at = 0; to_client && fences_to_drop_ > 0 && (at = bytes.find(fence)) != std::string::npos;
         fences_to_drop_--) {
        bytes.erase(at, bytes.find("\r\n", bytes.find("\r\n:", at) + 2) + 2 - at);
    }
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t m =
            ::send(to_client ? road.client : road.server, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (m <= 0) return false;
        sent += static_cast<size_t>(m);
    }
    if (to_client) carried_ += bytes.size();
    return true;
}

void Proxy::bend(Roads which, Bend bend) {
    const auto shared = std::make_shared<const Bend>(std::move(bend));
    const std::lock_guard lock(mutex_);
    if (which == Roads::to_come) bend_to_come_ = shared;
    for (Road &road : roads_) {
        if (which != Roads::to_come && road.is_feed == (which == Roads::feeds)) road.bend = shared;
    }
}

void Proxy::hold_up(Roads which, Way way) {
    const std::lock_guard lock(mutex_);
    for (Road &road : roads_) {
        if (road.is_feed == (which == Roads::feeds)) road.held_up[way == Way::back] = true;
    }
}

void Proxy::go_on() {
    const std::lock_guard lock(mutex_);
    for (Road &road : roads_) road.held_up[0] = road.held_up[1] = false;
}

void Proxy::lead_to(std::deque<std::string> servers) {
    const std::lock_guard lock(mutex_);
    servers_ = std::move(servers);
}

void Proxy::wait_for_bytes(size_t more, std::chrono::milliseconds limit) {
    wait_until([&, until = carried_ + more] { return carried_ >= until; }, limit);
}

void Proxy::cut() {
    const std::lock_guard lock(mutex_);
    refusing_ = true;
    for (Road &road : roads_) {
        road.held_up[0] = road.held_up[1] = false;
        ::shutdown(road.client, SHUT_RDWR);
        ::shutdown(road.server, SHUT_RDWR);
    }
}

void Proxy::let_in() {
    const std::lock_guard lock(mutex_);
    refusing_ = false;
}
