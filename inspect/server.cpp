// The socket of a process that is inspected: a thread of its own waits for clients and answers them, four at a time, and never for
// one of them alone. It begins with dm_cache_init() and ends with dm_cache_stop(), when DM_CACHE_INSPECT names a folder; else
// there is none. The server belongs to the thread; the caller's of dm_cache_init() and dm_cache_stop() make it and, when the thread
// has ended, free it. Takes no lock, but around a fork() those that its thread may have; what it reads of the cache, and under
// which lock, stands in answer.cpp.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "base/clock.h"
#include "base/lock.h"
#include "base/log.h"
#include "cache/events.h"
#include "cache/gate.h"
#include "cache/row_sync.h"
#include "cache/startup.h"
#include "cache/status.h"
#include "inspect/answer.h"

static constexpr dm::LogTag log_tag{"dm_cache"};

// What only the bundled platform has.
extern "C" __attribute__((weak)) DM_API int32_t tq_mom_client_store(tq_mom_handle *handle, char *text, uint32_t size);
extern "C" __attribute__((weak)) DM_API int32_t tq_mom_client_set_name(tq_mom_handle *handle, const char *name);

namespace dm {
namespace {

constexpr int64_t longest_answer_ms = 60000, deaf_ms = 100;
constexpr int nobody = -1;

// A connection and what is due to it. The inspecting thread's alone.
struct Client {
    int fd;
    int64_t until_ms;  // by then it has asked, or read on
    int64_t whole_ms;  // by then it has read all of an answer
    uint32_t heard;    // bytes of the line
    char line[16];
    Answer answer;
};

// Made and freed by the threads that start and stop the cache. While `thread` runs, `clients` and `deaf_until_ms` are its alone,
// `ending` is atomic, and nothing else changes.
struct Server {
    pthread_t thread;
    int32_t process;  // a child of it has this memory, too
    int listener;
    uint8_t ending;
    int64_t deaf_until_ms;  // nobody is let in: the process has no descriptor left
    sockaddr_un address;
    ProcessTexts texts;
    Client clients[DM_INSPECT_CLIENTS];
};

Server *server = nullptr;  // of the threads that start, stop and fork: the inspecting one is handed its own

void drop(Client &client) {
    close(client.fd);
    client.fd = nobody;
    end_answer(client.answer);
}

void give_time(Client &client, int64_t now) {
    client.until_ms = std::min(now + DM_INSPECT_PATIENCE_MS, client.whole_ms);
}

// A client is there, or has all of its answer: it may ask.
void expect_question(Client &client, int64_t now) {
    client.heard = 0;
    client.whole_ms = client.until_ms = now + DM_INSPECT_PATIENCE_MS;
}

// As much as goes. False: it is not there any more, or there is no memory.
bool send_more(Client &client) {
    Answer &answer = client.answer;
    Outgoing &out = answer.out;
    if (out.sent == out.filled && !go_on(answer)) return false;
    const ssize_t n = send(client.fd, out.bytes.get() + out.sent, out.filled - out.sent, MSG_NOSIGNAL);
    if (n < 0) return errno == EAGAIN || errno == EINTR;
    out.sent += static_cast<uint32_t>(n);
    const int64_t now = now_ms();
    if (has_more(answer))
        give_time(client, now);
    else
        expect_question(client, now);
    return true;
}

// No more than the line is read: what is asked next waits in the socket. False: it is no question, or nobody is there.
bool hear(Client &client, const ProcessTexts &texts) {
    char *const at = client.line + client.heard;
    ssize_t n = recv(client.fd, at, sizeof client.line - client.heard, MSG_PEEK);
    if (n < 0) return errno == EAGAIN || errno == EINTR;
    const auto *const end = static_cast<const char *>(std::memchr(at, '\n', static_cast<size_t>(n)));
    n = recv(client.fd, at, static_cast<size_t>(end ? end - at + 1 : n), 0);
    if (n <= 0) return false;
    client.heard += static_cast<uint32_t>(n);
    if (!end) return client.heard < sizeof client.line;
    client.line[client.heard - 1] = '\0';
    if (strlen(client.line) != client.heard - 1) return false;
    const int64_t now = now_ms();
    client.whole_ms = now + longest_answer_ms;
    give_time(client, now);
    return ask(client.answer, client.line, texts);
}

void send_away(int fd) {
    const dm_inspect_record busy = {0, DM_INSPECT_BUSY};
    send(fd, &busy, sizeof busy, MSG_NOSIGNAL);
    close(fd);
}

void let_in(Server &s, int64_t now) {
    const int fd = accept4(s.listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) s.deaf_until_ms = now + deaf_ms;
        return;
    }
    const auto client =
        std::find_if(std::begin(s.clients), std::end(s.clients), [](const Client &c) { return c.fd < 0; });
    if (client == std::end(s.clients)) return send_away(fd);
    client->fd = fd;
    expect_question(*client, now);
    if (!greet(client->answer, s.texts.name)) drop(*client);
}

void serve(Client &client, short events, int64_t now, const ProcessTexts &texts) {
    const bool answering = has_more(client.answer);
    const bool is_ready = (events & (answering ? POLLOUT : POLLIN | POLLHUP)) != 0;
    if ((events & (POLLERR | POLLNVAL)) != 0 || (answering && (events & POLLHUP) != 0) || now >= client.until_ms)
        return drop(client);
    if (is_ready && !(answering ? send_more(client) : hear(client, texts))) drop(client);
}

// Waits until something is to be done; what that is stands in `fds`, the listener last.
void wait_for_clients(const Server &s, pollfd (&fds)[DM_INSPECT_CLIENTS + 1], int64_t now) {
    int64_t until = INT64_MAX;
    for (int i = 0; i < DM_INSPECT_CLIENTS; ++i) {
        const Client &client = s.clients[i];
        fds[i] = {client.fd, static_cast<short>(has_more(client.answer) ? POLLOUT : POLLIN), 0};
        if (client.fd >= 0) until = std::min(until, client.until_ms);
    }
    const bool is_deaf = now < s.deaf_until_ms;
    if (is_deaf) until = std::min(until, s.deaf_until_ms);
    fds[DM_INSPECT_CLIENTS] = {is_deaf ? nobody : s.listener, POLLIN, 0};
    poll(fds, std::size(fds), until == INT64_MAX ? -1 : static_cast<int>(std::max<int64_t>(until - now, 0) + 1));
}

void *run(void *word) {
    Server &s = *static_cast<Server *>(word);
    pollfd fds[DM_INSPECT_CLIENTS + 1] = {};
    while (true) {
        wait_for_clients(s, fds, now_ms());
        if (load(s.ending) != 0) return nullptr;
        const int64_t now = now_ms();
        for (int i = 0; i < DM_INSPECT_CLIENTS; ++i)
            if (s.clients[i].fd >= 0) serve(s.clients[i], fds[i].revents, now, s.texts);
        if ((fds[DM_INSPECT_CLIENTS].revents & POLLIN) != 0) let_in(s, now);
    }
}

// Opening

const sockaddr *generic(const sockaddr_un &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

// A socket that nobody listens to is what a process has left that ended without dm_cache_stop().
bool is_left_behind(const sockaddr_un &address) {
    struct stat status;
    if (lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode)) return false;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return false;
    const bool is_refused = connect(fd, generic(address), sizeof address) != 0 && errno == ECONNREFUSED;
    close(fd);
    return is_refused;
}

// What failed; null: its file is there.
const char *bind_at(Server &s) {
    const sockaddr_un &address = s.address;
    s.listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (s.listener < 0) return "socket";
    if (bind(s.listener, generic(address), sizeof address) != 0) {
        if (errno != EADDRINUSE || !is_left_behind(address)) return "bind";
        unlink(address.sun_path);
        if (bind(s.listener, generic(address), sizeof address) != 0) return "bind";
    }
    return nullptr;
}

// The same; nobody gets in before the mode is right, since nobody listens yet.
const char *listen_there(const Server &s) {
    if (chmod(s.address.sun_path, S_IRUSR | S_IWUSR) != 0) return "chmod";
    return listen(s.listener, 8) == 0 ? nullptr : "listen";
}

// The thread takes no signals: they are the client's threads' own.
const char *start_thread(Server &s) {
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    errno = pthread_create(&s.thread, nullptr, run, &s);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return errno == 0 ? nullptr : "pthread_create";
}

void close_all(Server &s) {
    for (Client &client : s.clients)
        if (client.fd >= 0) drop(client);
    if (s.listener >= 0) close(s.listener);
}

// Around fork()

// What the inspecting thread may have at any moment, and would have for ever in the child, where it is not there. Each of these is
// held for a few words only, so fork() waits for nobody who waits.
void hold_for_fork() {
    hold_lock_for_fork();
    hold_events_for_fork();
    hold_status_for_fork();
}

void release_after_fork(bool in_child) {
    release_status_after_fork(in_child);
    release_events_after_fork(in_child);
    release_lock_after_fork(in_child);
}

void go_on_as_parent() {
    release_after_fork(false);
}

// The descriptors would keep the parent's clients waiting after its end.
void go_on_as_child() {
    release_after_fork(true);
    nobody_else_is_inside();
    if (!server) return;
    for (const Client &client : server->clients)
        if (client.fd >= 0) close(client.fd);
    close(server->listener);
    server = nullptr;
}

bool may_stand_in_a_name(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
           c == '_';
}

// What stands in its place in paths and in the store's list of clients.
void make_safe(char *name) {
    for (char *c = name; *c != '\0'; ++c)
        if (!may_stand_in_a_name(*c) || (c == name && *c == '.')) *c = '_';
}

bool write_address(Server &s, const char *folder, const char *safe_name) {
    s.address.sun_family = AF_UNIX;
    const int length =
        snprintf(s.address.sun_path, sizeof s.address.sun_path, "%s/%s.%d", folder, safe_name, s.process);
    return length > 0 && static_cast<size_t>(length) < sizeof s.address.sun_path;
}

// What failed; null: it is open.
const char *open_server(Server &s) {
    if (dm_cache_multi_thread_init() != 0) return "dm_cache_multi_thread_init";
    if (const char *failed = bind_at(s)) return failed;
    const char *failed = listen_there(s);
    if (!failed) failed = start_thread(s);
    if (failed) {
        unlink(s.address.sun_path);
        return failed;
    }
    static bool is_told_of_forks = false;
    if (!is_told_of_forks) is_told_of_forks = pthread_atfork(hold_for_fork, go_on_as_parent, go_on_as_child) == 0;
    return nullptr;
}

void begin_server(tq_mom_handle *handle, const char *folder, const char *safe_name) {
    OwnedMemory<Server> made(static_cast<Server *>(calloc(1, sizeof(Server))));
    if (!made) {
        DM_LOG(failure, "not inspected in %s: no memory.\n", folder);
        return;
    }
    for (Client &client : made->clients) client.fd = nobody;
    made->listener = nobody;
    made->process = getpid();
    std::memcpy(made->texts.name, dm_cache_my_name, sizeof made->texts.name);
    if (tq_mom_client_store) tq_mom_client_store(handle, made->texts.store, sizeof made->texts.store);
    if (!write_address(*made, folder, safe_name)) {
        DM_LOG(failure, "not inspected in %s: the path is too long for a socket.\n", folder);
        return;
    }
    if (const char *failed = open_server(*made)) {
        DM_LOG(failure, "not inspected at %s: %s: %s.\n", made->address.sun_path, failed, strerror(errno));
        return close_all(*made);
    }
    DM_LOG(notice, "inspected at %s.\n", made->address.sun_path);
    server = made.release();
}

}  // namespace

// Whoever waits for the listener is woken when it is shut.
void stop_begins() {
    if (!server) return;
    Server *const s = server;
    server = nullptr;
    store(s->ending, uint8_t{1});
    shutdown(s->listener, SHUT_RDWR);
    pthread_join(s->thread, nullptr);
    unlink(s->address.sun_path);
    close_all(*s);
    free(s);
}

void start_begins(tq_mom_handle *handle) {
    char safe_name[sizeof dm_cache_my_name];
    std::memcpy(safe_name, dm_cache_my_name, sizeof safe_name);
    make_safe(safe_name);
    if (tq_mom_client_set_name) tq_mom_client_set_name(handle, safe_name);
    const char *const folder = secure_getenv("DM_CACHE_INSPECT");
    stop_begins();  // of a start that failed: its handle may have gone
    if (folder && *folder != '\0') begin_server(handle, folder, safe_name);
}

}  // namespace dm
