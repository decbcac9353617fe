// One connection to a Redis server. hiredis connects and reads; bytes are sent here, because a server that has gone must
// not end the process with a signal.
#include "platform/redis_connection.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <new>

namespace tq {

namespace {

constexpr size_t longest_name = 63;
constexpr size_t most_bytes = (512u << 20) + (64u << 10);  // of a reply that is half read: a server's longest string

timeval timeval_of(std::chrono::milliseconds time) {
    return {static_cast<time_t>(time.count() / 1000), static_cast<suseconds_t>(time.count() % 1000 * 1000)};
}

redisContext *connect(const Address &server, std::chrono::milliseconds limit, bool blocking) {
    const char *socket = server.socket.c_str(), *host = server.host.c_str();
    const bool tcp = server.socket.empty();
    if (!blocking) return tcp ? redisConnectNonBlock(host, server.port) : redisConnectUnixNonBlock(socket);
    const timeval time = timeval_of(limit);
    return tcp ? redisConnectWithTimeout(host, server.port, time) : redisConnectUnixWithTimeout(socket, time);
}

std::string reason_of(int error) {
    if (error == 0 || error == EPIPE || error == ECONNRESET) return "the server closed the connection";
    return error == EAGAIN ? "no answer" : std::strerror(error);
}

}  // namespace

std::string formatted(const Words &command) {
    std::vector<const char *> words;
    std::vector<size_t> sizes;
    for (const std::string_view word : command) {
        words.push_back(word.data());
        sizes.push_back(word.size());
    }
    char *bytes = nullptr;
    const long long size = redisFormatCommandArgv(&bytes, static_cast<int>(words.size()), words.data(), sizes.data());
    if (size < 0) throw std::bad_alloc();
    const std::unique_ptr<char, void (*)(char *)> owner(bytes, redisFreeCommand);
    return {bytes, static_cast<size_t>(size)};
}

std::string auth_command(const Credentials &credentials) {
    const auto &[user, password] = credentials;
    if (user.empty() && password.empty()) return {};
    if (user.empty()) return formatted({"AUTH", password});
    return formatted({"AUTH", user, password});
}

ConnectionName::ConnectionName() {
    set(program_invocation_short_name);
}

// The server takes no blanks, and what is not printable would come back in its list.
void ConnectionName::set(std::string_view name) {
    std::string safe(name.substr(0, longest_name));
    const auto may_stay = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-'; };
    std::replace_if(
        safe.begin(), safe.end(), [&](char c) { return !may_stay(c); }, '_');
    const std::lock_guard lock(mutex_);
    name_ = std::move(safe);
}

std::string ConnectionName::text() const {
    const std::lock_guard lock(mutex_);
    return name_;
}

std::string ConnectionName::command() const {
    const std::string name = text();
    return formatted({"CLIENT", "SETNAME", name});
}

bool RedisConnection::open(const Address &server, std::chrono::milliseconds limit, bool is_blocking) {
    out_.clear();
    fault_.clear();
    set_deadline(limit);
    std::unique_ptr<redisContext, FreeContext> made(connect(server, limit, is_blocking));
    if (!made) throw std::bad_alloc();
    {
        const std::lock_guard lock(mutex_);
        context_.swap(made);
    }
    if (context_->err) return fail(context_->errstr);
    fcntl(context_->fd, F_SETFD, FD_CLOEXEC);
    const linger unsent_is_dropped = {1, 0};  // else a cable that is mended brings an old write after newer ones
    setsockopt(context_->fd, SOL_SOCKET, SO_LINGER, &unsent_is_dropped, sizeof unsent_is_dropped);
    replies_.serve(*context_->reader, /*kept=*/!is_blocking);
    begun_ = false;
    limit_ = limit;
    may_wait_ = std::chrono::milliseconds(0);
    return true;
}

void RedisConnection::close() {
    const std::lock_guard lock(mutex_);
    context_.reset();
}

// By TCP what is unsent is dropped at once: a shutdown alone would still send it. By unix sockets nothing is ever unsent.
void RedisConnection::shut() {
    const std::lock_guard lock(mutex_);
    if (!context_ || context_->fd < 0) return;
    const sockaddr nowhere = {.sa_family = AF_UNSPEC, .sa_data = {}};
    if (::connect(context_->fd, &nowhere, sizeof nowhere) != 0) ::shutdown(context_->fd, SHUT_RDWR);
}

bool RedisConnection::fail(const std::string &why) {
    fault_ = why;
    return false;
}

// The socket's own limit, which is told again only when it changes.
bool RedisConnection::may_wait() {
    using namespace std::chrono;
    if (!blocking()) return true;
    const auto left = ceil<milliseconds>(deadline_ - steady_clock::now());
    if (left <= milliseconds(0)) return fail(reason_of(EAGAIN));
    const milliseconds wait = std::min(left, limit_);
    if (wait != may_wait_ && redisSetTimeout(context_.get(), timeval_of(wait)) != REDIS_OK)
        return fail(context_->errstr);
    may_wait_ = wait;
    return true;
}

bool RedisConnection::send() {
    size_t sent = 0;
    while (sent < out_.size()) {
        if (!may_wait()) return false;
        const ssize_t n = ::send(fd(), out_.data() + sent, out_.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN && !blocking()) break;
        if (n < 0) return fail(reason_of(errno));
        sent += static_cast<size_t>(n);
    }
    out_.erase(0, sent);
    return true;
}

RedisConnection::Received RedisConnection::receive() {
    char buffer[16 * 1024];
    ssize_t n = 0;
    do {
        if (!may_wait()) return Received::failed;
        n = ::recv(fd(), buffer, sizeof buffer, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0 && errno == EAGAIN && !blocking()) return Received::nothing;
    if (n <= 0) {
        fail(reason_of(n == 0 ? 0 : errno));
        return Received::failed;
    }
    const auto size = static_cast<size_t>(n);
    received_ += size;
    const bool fits = context_->reader->len + size <= most_bytes;
    if (!fits || redisReaderFeed(context_->reader, buffer, size) != REDIS_OK) {
        fail(fits ? "no memory for what the server sends" : "the server sends more than a reply can be");
        return Received::failed;
    }
    return size == sizeof buffer ? Received::much : Received::some;
}

Reply RedisConnection::next() {
    void *reply = nullptr;
    if (!begun_) replies_.begin_next();
    if (redisGetReplyFromReader(context_.get(), &reply) != REDIS_OK)
        fail(replies_.exceeded() ? "the server announces more than a reply can be" : context_->errstr);
    begun_ = reply == nullptr;
    return Reply(static_cast<redisReply *>(reply), {!blocking()});
}

}  // namespace tq
