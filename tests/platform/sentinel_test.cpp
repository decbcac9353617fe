// A store that moves from one board to the other, and those who say where it is: scripted ones that say anything, and real
// ones that watch two servers, one of which dies.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/platform/recording_client.h"
#include "tests/platform/redis_server.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const std::string hash = "dm:1:p_dev.card_info";
constexpr std::chrono::seconds limit(20);

template <class Done> void wait_until(const std::string &what, Done done) {
    const auto end = Clock::now() + limit;
    while (!done()) {
        ASSERT_LT(Clock::now(), end) << what;
        ::poll(nullptr, 0, 5);
    }
}

milliseconds since(Clock::time_point begin) {
    return std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
}

// Says the same to whoever asks: an answer, and behind it some bytes without an end.
class ScriptedSentinel {
public:
    explicit ScriptedSentinel(const std::string &path) : listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (::bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            ::listen(listener_, 16) != 0)
            throw std::runtime_error(path);
        thread_ = std::thread([this] { answer_all(); });
    }
    ~ScriptedSentinel() {
        ::shutdown(listener_, SHUT_RDWR);
        thread_.join();
        ::close(listener_);
    }
    ScriptedSentinel(const ScriptedSentinel &) = delete;
    ScriptedSentinel &operator=(const ScriptedSentinel &) = delete;

    void say(const std::string &answer, const std::string &without_end = "") {
        const std::lock_guard lock(mutex_);
        answer_ = answer;
        without_end_ = without_end;
    }

private:
    void answer_all() {
        for (int client; (client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; ::close(client)) {
            char question[1000];
            if (::recv(client, question, sizeof question, 0) <= 0) continue;
            std::string answer, more;
            {
                const std::lock_guard lock(mutex_);
                answer = answer_;
                more = without_end_;
            }
            if (answer == "closes") continue;
            ::send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
            while (!more.empty() && ::send(client, more.data(), more.size(), MSG_NOSIGNAL) > 0) ::poll(nullptr, 0, 1);
            while (::recv(client, question, sizeof question, 0) > 0) continue;
        }
    }

    const int listener_;
    std::mutex mutex_;  // guards what follows
    std::string answer_, without_end_;
    std::thread thread_;
};

std::string address(const std::string &host, const std::string &port) {
    const auto word = [](const std::string &text) {
        return "$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
    };
    return "*2\r\n" + word(host) + word(port);
}

class ScriptedSentinels : public testing::Test {
protected:
    RedisServer server;
    const std::string at = server.socket() + ".";
    ScriptedSentinel a{at + "a"}, b{at + "b"}, c{at + "c"};
    const std::string url = "redis-sentinel+unix://" + at + "a," + at + "b," + at + "c?name=store&probe=1000";
    const std::string right = address("127.0.0.1", std::to_string(server.listen_on_loopback()));
};

// One sentinel that is gone, mistaken or mad must not keep a process from its store, and when none helps, whoever reads the
// log must see which one says what.
TEST_F(ScriptedSentinels, AreAskedInTurnUntilOneHasAnAddress) {
    const std::string unknown = "*-1\r\n", wrong = "answers something else than was asked";
    const struct {
        std::string a, b, c;
        int32_t code;
        std::vector<std::string> words;
        int least_ms, most_ms;
    } rows[] = {
        {unknown, "hello\r\n", right, 0, {}, 0, 900},
        {"-ERR unknown command\r\n", "closes", right, 0, {}, 0, 900},
        {"", "", right, 0, {}, 200, 900},
        {right, "", "", 0, {}, 0, 90},
        {unknown,
         "-NOAUTH \x1b[2J\r\n",
         ":5\r\n",
         TQ_MOM_E_UNREACHABLE,
         {"a: does not know it; ", "b: NOAUTH \\x1b[2J; ", "c: " + wrong + ")"},
         0,
         900},
        {address("127.0.0.1", "0"),
         address("127.0.0.1", "6379x"),
         address("", "6379"),
         TQ_MOM_E_UNREACHABLE,
         {"a: " + wrong, "b: " + wrong, "c: " + wrong},
         0,
         900},
        {address("\x1b[2J", "1"),
         "*2\r\n*-1\r\n*-1\r\n",
         "*3\r\n$1\r\nh\r\n$1\r\n1\r\n$1\r\n1\r\n",
         TQ_MOM_E_UNREACHABLE,
         {"a: " + wrong, "b: " + wrong, "c: " + wrong},
         0,
         900},
        {"closes",
         "endless",
         "",
         TQ_MOM_E_UNREACHABLE,
         {"a: the server closed the connection", "b: answers without an end", "c: no answer"},
         990,
         1900},
        {address("127.0.0.1", "1"), right, right, TQ_MOM_E_UNREACHABLE, {"127.0.0.1:1: Connection refused"}, 0, 900},
    };
    for (const auto &row : rows) {
        a.say(row.a);
        row.b == "endless" ? b.say(":", "1") : b.say(row.b);
        c.say(row.c);
        tq_mom_handle *handle = nullptr;
        const auto begin = Clock::now();
        testing::internal::CaptureStderr();
        const int32_t code = tq_mom_client_open(url.c_str(), &handle);
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(code, row.code) << said;
        EXPECT_GE(since(begin).count(), row.least_ms) << said;
        EXPECT_LE(since(begin).count(), row.most_ms) << said;
        for (const std::string &words : row.words)
            EXPECT_NE(said.find(words), std::string::npos) << words << "\n" << said;
        EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), row.words.empty() ? 0 : 1) << said;
        if (code == 0) {
            EXPECT_EQ(tq_mom_client_close(handle), 0);
        }
    }
}

// Sentinels that have not heard yet go on naming a board that is gone, or one that is no master any more.
TEST_F(ScriptedSentinels, AreNotBelievedForEver) {
    RedisServer standby;
    const std::string former = address("127.0.0.1", std::to_string(standby.listen_on_loopback()));
    standby.command({"REPLICAOF", "127.0.0.1", "1"});
    a.say(right);
    RecordingClient reader(url);
    reader.follow_connection();
    reader.subscribe("sub");
    ASSERT_TRUE(reader.wait("sub: confirmed"));
    a.say(address("127.0.0.1", "1"));
    b.say(former);
    c.say(right);
    testing::internal::CaptureStderr();
    server.command({"CLIENT", "KILL", "TYPE", "pubsub"});
    EXPECT_TRUE(reader.wait("reconnect 3 1"));
    reader.set(1, 7);
    EXPECT_TRUE(reader.wait("sub: set 1:7"));
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("127.0.0.1:1: Connection refused"), std::string::npos) << said;
    EXPECT_NE(said.find("is no master"), std::string::npos) << said;
}

// For seconds after a change most sentinels name the former master. Thawed, it would take writes that will be gone.
TEST_F(ScriptedSentinels, NameAServerThatWasLostAsTheLastChoice) {
    RedisServer next;
    const std::string other = address("127.0.0.1", std::to_string(next.listen_on_loopback()));
    for (ScriptedSentinel *sentinel : {&a, &b, &c}) sentinel->say(right);
    RecordingClient reader(url);
    reader.follow_connection();
    testing::internal::CaptureStderr();
    for (const char *reason : {"1", "2"}) {
        server.command({"CLIENT", "KILL", "TYPE", "pubsub"});
        EXPECT_TRUE(reader.wait("reconnect 3 " + std::string(reason)));
        c.say(other);
    }
    reader.set(1, 7);
    EXPECT_EQ(next.command({"HLEN", hash}), "1");
    testing::internal::GetCapturedStderr();
}

// Watches `store`; listens on loopback and at a socket.
class RealSentinel {
public:
    RealSentinel(const std::string &folder, int number, int master_port, const std::string &password)
        : at_(folder + "/sentinel" + std::to_string(number)), password_(password) {
        static int next_port = 31000 + getpid() % 1500;
        for (int tries = 0; pid_ == 0; tries++) {
            if (tries == 100) throw std::runtime_error("redis-server --sentinel does not start");
            start(folder, port_ = next_port++, master_port);
        }
    }
    ~RealSentinel() { end_program(pid_); }
    RealSentinel(const RealSentinel &) = delete;
    RealSentinel &operator=(const RealSentinel &) = delete;

    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
    std::string command(const std::vector<std::string> &words) const {
        return command_at(at_ + ".sock", words, password_);
    }

private:
    // A port that is taken ends it at once.
    void start(const std::string &folder, int port, int master_port) {
        std::ofstream(at_ + ".conf") << "port " << port << "\ndir " << folder << "\nlogfile " << at_
                                     << ".log\nunixsocket " << at_ << ".sock\nrequirepass " << password_
                                     << "\nsentinel sentinel-pass " << password_
                                     << "\nsentinel monitor store 127.0.0.1 " << master_port
                                     << " 2\nsentinel down-after-milliseconds store 500\n"
                                        "sentinel failover-timeout store 2000\n";
        pid_ = start_program({"redis-server", at_ + ".conf", "--sentinel"});
        wait_until("an answer of a sentinel", [&] {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = 0;
            return pid_ == 0 || command({"PING"}) == "PONG";
        });
    }

    const std::string at_, password_;
    int port_ = 0, pid_ = 0;
};

// Type by slot, of what a reader has been told, in order; nothing is deleted here.
std::map<int, int> picture(const std::string &told) {
    std::map<int, int> types;
    std::istringstream lines(told);
    for (std::string line; std::getline(lines, line, ',');) {
        const size_t has = line.find("has "), set = line.find("set ");
        const size_t at = std::min(has, set), colon = line.find(':', at);
        if (colon != std::string::npos) types[std::stoi(line.substr(at + 4))] = std::stoi(line.substr(colon + 1));
    }
    return types;
}

class TwoBoards : public testing::TestWithParam<const char *> {
protected:
    TwoBoards() {
        const int port = master.listen_on_loopback();
        next = std::to_string(standby.listen_on_loopback());
        master.command({"CONFIG", "SET", "repl-diskless-sync-delay", "0"});
        standby.command({"REPLICAOF", "127.0.0.1", std::to_string(port)});
        wait_until("a replica in step", [&] {
            return standby.command({"INFO", "replication"}).find("master_link_status:up") != std::string::npos;
        });
        const std::string folder = std::filesystem::path(master.socket()).parent_path();
        for (int i = 0; i < 3; i++) sentinels.push_back(std::make_unique<RealSentinel>(folder, i, port, "s3cret"));
        for (const auto &sentinel : sentinels) {
            wait_until("sentinels that know each other", [&] {
                return sentinel->command({"SENTINEL", "CKQUORUM", "store"}).starts_with("OK 3") &&
                       sentinel->command({"SENTINEL", "REPLICAS", "store"}).size() > 2;
            });
        }
        setenv("TQ_SENTINEL_PASSWORD", "s3cret", 1);
        for (const auto &sentinel : sentinels) url += (url.empty() ? "redis-sentinel://" : ",") + sentinel->address();
        url += "/store?probe=1000";
    }
    ~TwoBoards() override { unsetenv("TQ_SENTINEL_PASSWORD"); }

    RedisServer master, standby;
    std::vector<std::unique_ptr<RealSentinel>> sentinels;
    std::string url, next;
};

// A board dies, or stops, under a writer that goes on. What the other board had is there, and readers have the same picture.
TEST_P(TwoBoards, TheOtherOneTakesOverWithWhatItHas) {
    const bool frozen = GetParam() == std::string("frozen");
    RecordingClient reader(url), writer(url);
    reader.follow_connection();
    reader.subscribe("sub");
    ASSERT_TRUE(reader.wait("sub: confirmed"));
    testing::internal::CaptureStderr();

    std::atomic<int> acknowledged = 0;
    int first_failed = -1;  // acknowledged later: by the new master
    std::jthread writing([&](const std::stop_token &stop) {
        for (int i = 0; !stop.stop_requested(); ::poll(nullptr, 0, 2)) {
            if (tq_mom_set(writer.handle(), 1, card_of_type(i, i).get(), 0, 0) == 0) {
                acknowledged = ++i;
            } else if (first_failed < 0) {
                first_failed = i;
            }
        }
    });
    const auto wait_for_more = [&](int more) {
        wait_until("acknowledged writes", [&, least = acknowledged + more] { return acknowledged >= least; });
        return acknowledged.load();
    };
    const int safe = wait_for_more(100);
    wait_until("the replica", [&] { return std::stoi(standby.command({"HLEN", hash})) >= safe; });

    const auto begin = Clock::now();
    frozen ? master.freeze(true) : master.kill();
    EXPECT_TRUE(reader.wait("reconnect 3 2"));
    RecordProperty("failover_ms", std::to_string(since(begin).count()));
    reader.told();
    reader.scan("s");
    ASSERT_TRUE(reader.wait("s: end"));
    if (frozen) {
        for (const auto &sentinel : sentinels) {
            wait_until("sentinels that have all heard", [&] {
                return sentinel->command({"SENTINEL", "GET-MASTER-ADDR-BY-NAME", "store"}) ==
                       "[127.0.0.1 " + next + "]";
            });
        }
        master.freeze(false);  // it still takes itself for the master
    }
    wait_for_more(200);
    writing.request_stop();
    writing.join();
    writer.set(1'000'000, 1);
    ASSERT_TRUE(reader.wait("sub: set 1000000:1"))
        << testing::internal::GetCapturedStderr() << reader.told().substr(0, 300);

    const std::map<int, int> read = picture(reader.told()), stored = picture(join(writer.scan_sync()));
    EXPECT_EQ(read, stored);
    EXPECT_EQ(standby.command({"HLEN", hash}), std::to_string(stored.size()));
    int gone = 0;
    ASSERT_GE(first_failed, safe);
    for (int i = 0; i < acknowledged; i++) gone += (i < safe || i >= first_failed) && !stored.contains(i);
    EXPECT_EQ(gone, 0);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(said.find("s3cret"), std::string::npos) << said;
}
INSTANTIATE_TEST_SUITE_P(Faults, TwoBoards, testing::Values("killed", "frozen"),
                         [](const auto &fault) { return std::string(fault.param); });

}  // namespace
