// A process that is looked into: what it answers, and that no client, however it behaves, stops it, holds it up or gets at more.
#include "tests/support/live_cache.h"

#include "tq_dm_cache/dm_cache_inspect.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

namespace fs = std::filesystem;

// Time that has passed for the library, beside the clock's own.
static std::atomic<int64_t> later_s = 0;
extern "C" __attribute__((visibility("default"))) int __real_clock_gettime(clockid_t clock, timespec *time);
extern "C" __attribute__((visibility("default"))) int __wrap_clock_gettime(clockid_t clock, timespec *time);
int __wrap_clock_gettime(clockid_t clock, timespec *time) {
    const int code = __real_clock_gettime(clock, time);
    time->tv_sec += static_cast<time_t>(later_s);
    return code;
}

// How often a client was to be let in.
static std::atomic<int> accepts = 0;
extern "C" __attribute__((visibility("default"))) int __real_accept4(int, sockaddr *, socklen_t *, int);
extern "C" __attribute__((visibility("default"))) int __wrap_accept4(int, sockaddr *, socklen_t *, int);
int __wrap_accept4(int fd, sockaddr *address, socklen_t *size, int flags) {
    ++accepts;
    return __real_accept4(fd, address, size, flags);
}

namespace {

size_t count_of(const char *folder) {
    return static_cast<size_t>(std::distance(fs::directory_iterator(folder), {}));
}
size_t threads() {
    return count_of("/proc/self/task");
}
size_t descriptors() {
    return count_of("/proc/self/fd");
}

// A path without the folder's: a socket's path may not be long.
struct Inspect : testing::Test {
    std::string folder = "inspect.XXXXXX";

    Inspect() {
        dm_cache_stop();  // what another case began
        EXPECT_TRUE(mkdtemp(folder.data()));
        setenv("DM_CACHE_INSPECT", folder.c_str(), 1);
    }
    ~Inspect() override {
        dm_cache_stop();
        fs::permissions(folder, fs::perms::owner_all);
        fs::remove_all(folder);
    }
    std::string path(const char *name = "test") const { return folder + "/" + name + "." + std::to_string(getpid()); }
};

struct Record {
    uint32_t what;
    std::string bytes;

    template <class T> T as() const {
        T part{};
        std::memcpy(&part, bytes.data(), std::min(sizeof part, bytes.size()));
        return part;
    }
    template <class T> std::string behind() const { return bytes.substr(sizeof(T)); }
};

class Client {
public:
    explicit Client(const std::string &path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        connected = connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
        const timeval limit = {60, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    Client(const Client &) = delete;
    ~Client() { close(fd_); }

    void say(std::string_view text) { EXPECT_GE(send(fd_, text.data(), text.size(), MSG_NOSIGNAL), 0); }
    // `what` 0: the connection has ended.
    Record next() {
        dm_inspect_record record{};
        Record read{};
        if (recv(fd_, &record, sizeof record, MSG_WAITALL) != sizeof record) return read;
        read.bytes.resize(record.length);
        // A stream waits for a byte before it hands out none.
        const auto length = static_cast<ssize_t>(record.length);
        if (length == 0 || recv(fd_, read.bytes.data(), record.length, MSG_WAITALL) == length) read.what = record.what;
        return read;
    }
    std::vector<Record> ask(std::string_view line) {
        say(line);
        std::vector<Record> records;
        do records.push_back(next());
        while (records.back().what != DM_INSPECT_END && records.back().what != 0);
        return records;
    }

    bool connected;

private:
    int fd_;
};

// A new client gets what it asks for.
bool answers(const std::string &path) {
    Client client(path);
    return client.connected && client.next().what == DM_INSPECT_HELLO &&
           client.ask("process\n").back().what == DM_INSPECT_END;
}

void reads_until(const std::atomic<bool> &done, const std::string &path) {
    Client client(path);
    client.next();
    while (!done)
        for (const char *question : {"objects 17\n", "process\n"}) client.ask(question);
}

void fill(int32_t cards) {
    platform.synchronise();
    for (int32_t n = 0; n < cards; ++n) receive(17, SET, card(1, n, 0).set("name", std::string(100, 'x')));
}

}  // namespace

// Somebody who looks for a fault believes every word of it.
TEST_F(Inspect, TellsWhatTheProcessHas) {
    dm_cache_follow(
        17, [](const dm_cache_event *, void *) {}, nullptr, 0);
    platform.put(static_port(1, 2, 3, 7));
    start({7, 17, 30});
    Client client(path());
    const Record hello = client.next();
    EXPECT_EQ(hello.as<dm_inspect_hello>().version, 1U);
    EXPECT_EQ(hello.as<dm_inspect_hello>().pid, getpid());
    EXPECT_EQ(hello.behind<dm_inspect_hello>(), "test");
    EXPECT_EQ(client.ask("process\n")[0].behind<dm_inspect_process>().substr(0, 3), "row");
    fill(250);
    receive(30, SET, global_port(1, 1, 2, 3, 7, 5));
    receive(30, SET, global_port(1, 1, 2, 3, 7, 5).set("index.t_vsdid", 2));
    dm_cache_set_obj(30, global_port(1, 1, 2, 4, 7, 6).get());

    const auto process = client.ask("process\n");
    EXPECT_EQ(process[0].as<dm_inspect_process>().live, 1U);
    EXPECT_EQ(process[0].as<dm_inspect_process>().applied, dm_cache_applied());
    EXPECT_EQ(process[0].behind<dm_inspect_process>(), std::string("\0\0", 2));
    EXPECT_EQ(process.size(), 25U);
    const auto row = process[17].as<dm_inspect_row>();
    EXPECT_EQ(row.type, 17);
    EXPECT_EQ(row.stats.objects, 250U);
    EXPECT_EQ(row.followers + row.callbacks, 2U);

    const auto cards = client.ask("objects 17\n");
    ASSERT_EQ(cards.size(), 251U);
    for (int32_t n = 0; n < 250; ++n)
        EXPECT_EQ(cards[static_cast<size_t>(n)].behind<dm_inspect_object>(), packed(element(17, card(1, n, 0))->obj));
    const auto ports = client.ask("objects 30\n");
    ASSERT_EQ(ports.size(), 4U);
    const uint8_t found[] = {DM_INSPECT_FINDS_OBJECT, DM_INSPECT_FINDS_ANOTHER, DM_INSPECT_FINDS_NOTHING};
    for (size_t i = 0; i < 3; ++i) {
        const auto port = ports[i].as<dm_inspect_object>();
        EXPECT_EQ(port.trees, 4);
        EXPECT_EQ(port.indexed, i < 2);
        EXPECT_EQ(port.by_client, i < 2 ? DM_INSPECT_BY_STORE : DM_INSPECT_BY_SET_OBJ);
        EXPECT_EQ(port.found[1], found[i]);
        EXPECT_EQ(port.key[0], i < 2 ? 0x01000005 + static_cast<int64_t>(i) * 0x01000000 : 0);
    }
}

TEST_F(Inspect, OutlivesWhateverItsClientsDo) {
    start({17});
    fill(9000);
    for (const std::string_view nonsense :
         {std::string_view("nonsense\n"), std::string_view("objects 99\n"), std::string_view("objects -1\n"),
          std::string_view("objects 18\n"), std::string_view("objects +7\n"), std::string_view("objects 17 x\n"),
          std::string_view("objects\n"), std::string_view("\n"), std::string_view("\0process\n", 9),
          std::string_view("GET / HTTP/1.1 and so on for long")}) {
        SCOPED_TRACE(nonsense);
        Client client(path());
        client.next();
        EXPECT_EQ(client.ask(nonsense).back().what, 0U);
        EXPECT_TRUE(answers(path()));
    }
    for (int i = 0; i < 1000; ++i) {
        Client client(path());
        if (i % 3 == 0) client.say("objects 17\n");  // and does not wait: a send to it fails
        if (i % 3 == 1) client.say("obj");
    }
    std::optional<Client> other;
    do other.emplace(path());
    while (other->next().what != DM_INSPECT_HELLO);  // those before may still be leaving
    Client &two = *other;
    two.say("process\nobjects 17\n");
    for (int ends = 0; ends < 2;) ends += two.next().what == DM_INSPECT_END;

    // Three that stay: one asks and never reads, one asks half, one nothing. They hold up neither others nor the cache.
    Client greedy(path()), slow(path()), silent(path()), fifth(path());
    greedy.say("objects 17\n");
    slow.say("objects 1");
    for (Client *client : {&slow, &silent}) EXPECT_EQ(client->next().what, DM_INSPECT_HELLO);
    EXPECT_EQ(fifth.next().what, DM_INSPECT_BUSY);
    EXPECT_EQ(fifth.next().what, 0U);
    EXPECT_EQ(two.ask("objects 17\n").size(), 9001U);
    receive(17, DELETE, card(1, 5, 0));
    EXPECT_EQ(two.ask("objects 17\n").size(), 9000U);
    later_s = DM_INSPECT_PATIENCE_MS / 1000 + 1;
    two.say("process\n");
    for (Client *client : {&slow, &silent}) EXPECT_EQ(client->next().what, 0U);
    while (greedy.next().what != 0) continue;
    EXPECT_TRUE(answers(path()));
}

// A process that has run out of descriptors has more to do than to turn in a circle.
TEST_F(Inspect, WaitsForDescriptors) {
    start({17});
    Client first(path());
    EXPECT_EQ(first.next().what, DM_INSPECT_HELLO);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const int next = dup(0);
    close(next);
    const rlimit one_more = {static_cast<rlim_t>(next) + 1, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &one_more);
    Client second(path());
    EXPECT_TRUE(second.connected);
    const int tries = accepts;
    for (int i = 0; i < 500; ++i) EXPECT_EQ(first.ask("process\n").back().what, DM_INSPECT_END);
    EXPECT_LT(accepts - tries, 400);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(second.next().what, DM_INSPECT_HELLO);
}

// What stays behind is a leak in every process of the switch; a signal that the thread takes is one that a client's loses.
TEST_F(Inspect, IsThereFromStartToStopAndOnlyWhenAskedFor) {
    pid_t first = 0;
    std::thread([&] { first = gettid(); }).join();  // a sanitizer's own thread comes with it
    while (fs::exists("/proc/self/task/" + std::to_string(first))) std::this_thread::yield();
    const size_t before[] = {threads(), descriptors()};
    // A thread that has been joined may still be on its way out.
    const auto threads_become = [](size_t expected) {
        for (int i = 0; i < 10'000 && threads() != expected; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return threads() == expected;
    };
    unsetenv("DM_CACHE_INSPECT");
    start({17});
    EXPECT_EQ(threads() + descriptors(), before[0] + before[1]);
    setenv("DM_CACHE_INSPECT", folder.c_str(), 1);
    for (int i = 0; i < 3; ++i) {
        dm_cache_stop();
        EXPECT_FALSE(fs::exists(path()));
        start({});
        EXPECT_TRUE(answers(path()));
    }
    EXPECT_TRUE(threads_become(before[0] + 1));
    struct stat status {};
    EXPECT_EQ(stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        const bool is_socket = fd > 2 && fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode);
        EXPECT_TRUE(!is_socket || fcntl(fd, F_GETFD) == FD_CLOEXEC) << fd;
    }
    for (const auto &entry : fs::directory_iterator("/proc/self/task")) {
        if (entry.path().filename() == std::to_string(getpid())) continue;
        std::ifstream lines(entry.path() / "status");
        std::string line, blocked;
        while (std::getline(lines, line))
            if (line.starts_with("SigBlk:")) blocked = line;
        EXPECT_NE(blocked.find("fff"), std::string::npos) << blocked;
    }
    Client asking(path());
    dm_cache_stop();
    EXPECT_TRUE(threads_become(before[0]));
    EXPECT_EQ(descriptors(), before[1] + 1);
}

// A child that answers for its parent tells what the parent once had; one that is forked while somebody reads, and finds its
// lock taken for ever, hangs.
TEST_F(Inspect, BelongsToTheProcessThatOpenedIt) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "a child may start no thread here";
#endif
    start({17});
    fill(1000);
    const std::string own = path();
    std::atomic<bool> done = false;
    std::thread reader(reads_until, std::cref(done), own);
    std::thread waiter([&done] {
        while (!done) dm_cache_wait_applied(1000, 50);
    });
    for (int code = 0, i = 0; i < 300 && code == 0; ++i) {
        const pid_t copy = fork();
        if (copy == 0) {
            alarm(10);
            unsetenv("DM_CACHE_INSPECT");
            dm_cache_lock();
            dm_cache_unlock();
            _exit(dm_cache_stop() == 0 && dm_cache_init(&platform.handle, "test") == 0 ? 0 : 1);
        }
        waitpid(copy, &code, 0);
        EXPECT_EQ(code, 0) << i;
    }
    done = true;
    reader.join();
    waiter.join();
    const pid_t child = fork();
    if (child == 0) {
        bool is_right = true;
        for (const auto &entry : fs::directory_iterator("/proc/self/fd")) is_right &= !entry.is_socket();
        dm_cache_stop();
        is_right &= fs::exists(own);
        dm_cache_init(&platform.handle, "test");
        _exit(is_right && answers(path()) ? 0 : 1);
    }
    int code = -1;
    waitpid(child, &code, 0);
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(answers(own));
    const std::string left = folder + "/test." + std::to_string(child);
    EXPECT_TRUE(fs::exists(left));
    dm_cache_stop();
    fs::rename(left, own);  // as if the number were this process's now
    start({});
    EXPECT_TRUE(answers(own));
}

// A switch must come up whatever is the matter with the folder of somebody who once looked for a fault.
TEST_F(Inspect, StartsAllTheSameWhenItCannotBeOpened) {
    const std::string odd = folder + "/_._a_b__.x." + std::to_string(getpid());
    std::ofstream(odd) << "somebody else's";
    const std::string there_is = folder + "/file";
    std::ofstream(there_is) << "x";
    const std::string at = "not inspected at ", in = "not inspected in ";
    const std::pair<std::string, std::string> cases[] = {
        {folder, at + odd + ": bind: Address already in use"},
        {folder + "/none",
         at + folder + "/none/_._a_b__.x." + std::to_string(getpid()) + ": bind: No such file or directory"},
        {there_is, at + there_is + "/_._a_b__.x." + std::to_string(getpid()) + ": bind: Not a directory"},
        {folder + "/" + std::string(100, 'l'),
         in + folder + "/" + std::string(100, 'l') + ": the path is too long for a socket"},
    };
    platform.capabilities = {{"g_capacity_spec/high_availablility/CAP_VSU_CHASSIS_NUM", 4}};
    LogCapture log(2);
    for (const auto &[where, line] : cases) {
        setenv("DM_CACHE_INSPECT", where.c_str(), 1);
        const size_t before = threads() + descriptors();
        EXPECT_EQ(dm_cache_init(&platform.handle, "../a b/\xff.x"), 0);
        EXPECT_EQ(log.take(), at_threshold(2, {"2 begin_server>" + line + ".\n"}));
        EXPECT_EQ(threads() + descriptors(), before);
        dm_cache_stop();
    }
    fs::remove(odd);
    setenv("DM_CACHE_INSPECT", folder.c_str(), 1);
    EXPECT_EQ(dm_cache_init(&platform.handle, "../a b/\xff.x"), 0);
    EXPECT_TRUE(answers(odd));
}
