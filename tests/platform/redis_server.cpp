// A Redis server of the tests' own, and proxies before it. Descriptors are shut down by whoever cuts, and closed by the
// proxy's destructor only.
#include "platform/redis_server.h"

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

namespace {

constexpr int start_limit_s = 20;

using Context = std::unique_ptr<redisContext, void (*)(redisContext *)>;

Context connect(const std::string &path) {
    return {redisConnectUnix(path.c_str()), redisFree};
}

std::string describe(const redisReply *reply) {
    if (!reply) return "no answer";
    if (reply->type == REDIS_REPLY_INTEGER) return std::to_string(reply->integer);
    if (reply->type != REDIS_REPLY_ARRAY) return reply->str ? std::string(reply->str, reply->len) : "nil";
    std::string text;
    for (size_t i = 0; i < reply->elements; i++) text += (i ? " " : "") + describe(reply->element[i]);
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
    std::vector<std::string> words = {"redis-server", "--port",      "0",     "--save", "",
                                      "--unixsocket", socket(),      "--dir", folder_,  "--logfile",
                                      "redis.log",    "--daemonize", "no"};
    words.insert(words.end(), options_.begin(), options_.end());
    std::vector<char *> arguments;
    for (std::string &word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    for (int i = 0; i < start_limit_s * 100; i++) {
        const Context context = connect(socket());
        const std::string answer = context->err ? "" : run(context.get(), {"PING"});
        if (answer == "PONG" || answer.starts_with("NOAUTH")) return;
        ::poll(nullptr, 0, 10);
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) break;
    }
    throw std::runtime_error("redis-server does not start");
}

void RedisServer::kill() {
    if (pid_ == 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = 0;
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

Proxy::Proxy(const std::string &listen_at, const std::string &server) : path_(listen_at), server_(server) {
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
        const int server = refusing_ ? -1 : unix_socket(server_, ::connect);
        if (server < 0) {
            ::close(client);
            continue;
        }
        Road &road = roads_.emplace_back(Road{client, server, {}});
        road.thread = std::thread([this, &road] { carry(road); });
    }
}

void Proxy::carry(Road &road) {
    pollfd ends[] = {{road.client, POLLIN, 0}, {road.server, POLLIN, 0}};
    bool open = true;
    while (open && ::poll(ends, 2, -1) > 0) {
        if (ends[0].revents) open = carry_some(road.client, road.server, false);
        if (open && ends[1].revents) open = carry_some(road.server, road.client, true);
    }
    ::shutdown(road.client, SHUT_RDWR);
    ::shutdown(road.server, SHUT_RDWR);
}

// A pong is small, and comes in one piece when nothing else is under way.
bool Proxy::carry_some(int from, int to, bool to_client) {
    char buffer[64 * 1024];
    const ssize_t n = ::recv(from, buffer, sizeof buffer, 0);
    if (n <= 0) return false;
    std::string bytes(buffer, static_cast<size_t>(n));
    const std::string pong = "*2\r\n$4\r\npong\r\n";
    for (size_t at = 0; to_client && pongs_to_drop_ > 0 && (at = bytes.find(pong)) != std::string::npos;
         pongs_to_drop_--) {
        const size_t length = bytes.find("\r\n", at + pong.size());
        bytes.erase(at, bytes.find("\r\n", length + 2) + 2 - at);
    }
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t m = ::send(to, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (m <= 0) return false;
        sent += static_cast<size_t>(m);
    }
    if (!to_client) return true;
    const std::lock_guard lock(mutex_);
    carried_ += bytes.size();
    carried_more_.notify_all();
    return true;
}

void Proxy::wait_for_bytes(size_t more, std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    const size_t until = carried_ + more;
    carried_more_.wait_for(lock, limit, [&] { return carried_ >= until; });
}

void Proxy::cut() {
    const std::lock_guard lock(mutex_);
    refusing_ = true;
    for (const Road &road : roads_) {
        ::shutdown(road.client, SHUT_RDWR);
        ::shutdown(road.server, SHUT_RDWR);
    }
}

void Proxy::let_in() {
    const std::lock_guard lock(mutex_);
    refusing_ = false;
}
