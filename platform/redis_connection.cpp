// One connection to a Redis server. hiredis connects and reads; bytes are sent here, because a server that has gone must
// not end the process with a signal.
#include "platform/redis_connection.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <cerrno>
#include <cstring>
#include <new>

namespace tq {

namespace {

timeval timeval_of(std::chrono::milliseconds time) {
    return {static_cast<time_t>(time.count() / 1000), static_cast<suseconds_t>(time.count() % 1000 * 1000)};
}

redisContext *connect(const RedisUrl &url, bool blocking) {
    const char *socket = url.socket.c_str(), *host = url.host.c_str();
    const bool tcp = url.socket.empty();
    if (!blocking) return tcp ? redisConnectNonBlock(host, url.port) : redisConnectUnixNonBlock(socket);
    const timeval limit = timeval_of(url.probe);
    return tcp ? redisConnectWithTimeout(host, url.port, limit) : redisConnectUnixWithTimeout(socket, limit);
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
    const int size = redisFormatCommandArgv(&bytes, static_cast<int>(words.size()), words.data(), sizes.data());
    if (size < 0) throw std::bad_alloc();
    const std::unique_ptr<char, void (*)(char *)> owner(bytes, redisFreeCommand);
    return {bytes, static_cast<size_t>(size)};
}

std::string auth_command(const RedisUrl &url) {
    if (url.user.empty() && url.password.empty()) return {};
    if (url.user.empty()) return formatted({"AUTH", url.password});
    return formatted({"AUTH", url.user, url.password});
}

bool RedisConnection::open(const RedisUrl &url, bool is_blocking) {
    out_.clear();
    fault_.clear();
    context_.reset(connect(url, is_blocking));
    if (!context_) throw std::bad_alloc();
    if (context_->err) return fail(context_->errstr);
    fcntl(context_->fd, F_SETFD, FD_CLOEXEC);
    const linger unsent_is_dropped = {1, 0};  // else a cable that is mended brings an old write after newer ones
    setsockopt(context_->fd, SOL_SOCKET, SO_LINGER, &unsent_is_dropped, sizeof unsent_is_dropped);
    if (!is_blocking) replies_.serve(*context_->reader);
    begun_ = false;
    if (is_blocking && redisSetTimeout(context_.get(), timeval_of(url.probe)) != REDIS_OK)
        return fail(context_->errstr);
    return true;
}

void RedisConnection::shut() {
    if (context_) ::shutdown(context_->fd, SHUT_RDWR);
}

bool RedisConnection::fail(const std::string &why) {
    fault_ = why;
    return false;
}

bool RedisConnection::send() {
    size_t sent = 0;
    while (sent < out_.size()) {
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
        n = ::recv(fd(), buffer, sizeof buffer, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0 && errno == EAGAIN && !blocking()) return Received::nothing;
    if (n <= 0) {
        fail(reason_of(n == 0 ? 0 : errno));
        return Received::failed;
    }
    if (redisReaderFeed(context_->reader, buffer, static_cast<size_t>(n)) != REDIS_OK) throw std::bad_alloc();
    return static_cast<size_t>(n) == sizeof buffer ? Received::much : Received::some;
}

Reply RedisConnection::next() {
    void *reply = nullptr;
    if (!begun_) replies_.begin_next();
    if (redisGetReplyFromReader(context_.get(), &reply) != REDIS_OK) fail(context_->errstr);
    begun_ = reply == nullptr;
    return Reply(static_cast<redisReply *>(reply), {!blocking()});
}

}  // namespace tq
