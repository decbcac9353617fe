// A store that moves from one board to the other, and those who say where it is: scripted ones that say anything, and real
// ones that watch two servers, one of which dies.
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/platform/recording_client.h"
#include "tests/platform/redis_server.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const std::string hash = "dm:1:p_dev.card_info";

milliseconds since(Clock::time_point begin) {
    return std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
}

std::string address(const std::string &host, const std::string &port) {
    const auto word = [](const std::string &text) {
        return "$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
    };
    return "*2\r\n" + word(host) + word(port);
}

// Sentinels that say anything: proxies before a server, whose answers they replace.
class ScriptedSentinels : public testing::Test {
protected:
    RedisServer server;
    const std::string at = server.socket() + ".";
    Proxy a{at + "a", server.socket()}, b{at + "b", server.socket()}, c{at + "c", server.socket()};
    const std::string url = "redis-sentinel+unix://" + at + "a," + at + "b," + at + "c?name=store&probe=1000";
    const std::string right = address("127.0.0.1", std::to_string(server.listen_on_loopback()));
    StandardError log;

    // To whoever asks from now on; empty: nothing. What has no end ends by "...".
    static void say(Proxy &sentinel, const std::string &answer) {
        sentinel.bend(Proxy::Roads::to_come, [answer](std::string &bytes, int client) {
            bytes = answer;
            if (answer != "...") return answer != "closes";
            ::send(client, ":", 1, MSG_NOSIGNAL);
            while (::send(client, "1", 1, MSG_NOSIGNAL) == 1) ::poll(nullptr, 0, 1);
            return false;
        });
    }
};

// One sentinel that is gone, mistaken or mad must not keep a process from its store, and when none helps, whoever reads the
// log must see which one says what.
TEST_F(ScriptedSentinels, AreAskedInTurnUntilOneHasAnAddress) {
    const std::string none = "*-1\r\n", wrong = "answers something else than was asked",
                      empty_lists = "*2\r\n*-1\r\n*-1\r\n", three = "*3\r\n$1\r\nh\r\n$1\r\n1\r\n$1\r\n1\r\n",
                      nobody = address("127.0.0.1", "1");
    const std::string refuses = "-ERR unknown command\r\n", rude = "-NOAUTH \x1b[2J\r\n",
                      port_0 = address("127.0.0.1", "0"), port_x = address("127.0.0.1", "6379x"),
                      no_host = address("", "6379"), odd = address("\x1b[2J", "1");
    const struct {
        std::string a, b, c;
        std::vector<std::string> words;  // none: the client is open
        int least_ms;
    } rows[] = {
        {none, "hello\r\n", right, {}, 0},
        {refuses, "closes", right, {}, 0},
        {"", "", right, {}, 200},
        {right, "", "", {}, 0},
        {none, rude, ":5\r\n", {"a: does not know it; ", "b: NOAUTH \\x1b[2J; ", "c: " + wrong + ")"}, 0},
        {port_0, port_x, no_host, {"a: " + wrong, "b: " + wrong, "c: " + wrong}, 0},
        {odd, empty_lists, three, {"a: " + wrong, "b: " + wrong, "c: " + wrong}, 0},
        {"closes", "...", "", {"a: the server closed", "b: answers without an end", "c: no answer"}, 990},
        {nobody, right, right, {"127.0.0.1:1: Connection refused"}, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        say(a, row.a);
        say(b, row.b);
        say(c, row.c);
        tq_mom_handle *handle = nullptr;
        const auto begin = Clock::now();
        EXPECT_EQ(tq_mom_client_open(url.c_str(), &handle), row.words.empty() ? 0 : TQ_MOM_E_UNREACHABLE);
        EXPECT_GE(since(begin).count(), row.least_ms);
        EXPECT_LE(since(begin).count(), row.least_ms + 890);  // where one answers nobody waits for the probe time
        const std::string said = log.take();
        for (const std::string &words : row.words) EXPECT_NE(said.find(words), std::string::npos) << said;
        EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), row.words.empty() ? 0 : 1) << said;
        if (handle) {
            EXPECT_EQ(tq_mom_client_close(handle), 0);
        }
    }
}

// Sentinels that have not heard yet go on naming a board that is gone, or one that is no master any more.
TEST_F(ScriptedSentinels, AreNotBelievedForEver) {
    RedisServer standby;
    const std::string former = address("127.0.0.1", std::to_string(standby.listen_on_loopback()));
    standby.command({"REPLICAOF", "127.0.0.1", "1"});
    say(a, right);
    RecordingClient reader(url);
    reader.follow_connection();
    ASSERT_TRUE(reader.follow("sub"));
    say(a, address("127.0.0.1", "1"));
    say(b, former);
    say(c, right);
    server.command({"CLIENT", "KILL", "TYPE", "pubsub"});
    EXPECT_TRUE(reader.wait("reconnect 3 1"));
    reader.set(1, 7);
    EXPECT_TRUE(reader.wait("sub: set 1:7"));
    EXPECT_TRUE(log.wait("127.0.0.1:1: Connection refused"));
    EXPECT_TRUE(log.wait("is no master"));
}

// For seconds after a change most sentinels name the former master. Thawed, it would take writes that will be gone.
TEST_F(ScriptedSentinels, NameAServerThatWasLostAsTheLastChoice) {
    RedisServer next;
    const std::string other = address("127.0.0.1", std::to_string(next.listen_on_loopback()));
    for (Proxy *sentinel : {&a, &b, &c}) say(*sentinel, right);
    RecordingClient reader(url);
    reader.follow_connection();
    for (const char *reason : {"1", "2"}) {
        server.command({"CLIENT", "KILL", "TYPE", "pubsub"});
        EXPECT_TRUE(reader.wait("reconnect 3 " + std::string(reason)));
        say(c, other);
    }
    reader.set(1, 7);
    EXPECT_EQ(next.command({"HLEN", hash}), "1");
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
        EXPECT_TRUE(wait_until([&] {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = 0;
            return pid_ == 0 || command({"PING"}) == "PONG";
        }));
    }

    const std::string at_, password_;
    int port_ = 0, pid_ = 0;
};

class TwoBoards : public testing::TestWithParam<const char *> {
protected:
    TwoBoards() {
        const int port = master.listen_on_loopback();
        next = std::to_string(standby.listen_on_loopback());
        master.command({"CONFIG", "SET", "repl-diskless-sync-delay", "0"});
        standby.command({"REPLICAOF", "127.0.0.1", std::to_string(port)});
        EXPECT_TRUE(wait_until([&] {
            return standby.command({"INFO", "replication"}).find("master_link_status:up") != std::string::npos;
        }));
        const std::string folder = std::filesystem::path(master.socket()).parent_path();
        for (int i = 0; i < 3; ++i) sentinels.push_back(std::make_unique<RealSentinel>(folder, i, port, "s3cret"));
        for (const auto &sentinel : sentinels) {
            EXPECT_TRUE(wait_until([&] {
                return sentinel->command({"SENTINEL", "CKQUORUM", "store"}).starts_with("OK 3") &&
                       sentinel->command({"SENTINEL", "REPLICAS", "store"}).size() > 2;
            }));
        }
        setenv("TQ_SENTINEL_PASSWORD", "s3cret", 1);
        for (const auto &sentinel : sentinels) url += (url.empty() ? "redis-sentinel://" : ",") + sentinel->address();
        url += "/store?probe=1000";
    }
    ~TwoBoards() override { unsetenv("TQ_SENTINEL_PASSWORD"); }

    StandardError log;
    RedisServer master, standby;
    std::vector<std::unique_ptr<RealSentinel>> sentinels;
    std::string url, next;
};

// A board dies, or stops, under a writer that goes on. What the other board had is there, and readers have the same picture.
TEST_P(TwoBoards, TheOtherOneTakesOverWithWhatItHas) {
    const bool frozen = GetParam() == std::string("frozen");
    RecordingClient reader(url), writer(url);
    reader.follow_connection();
    ASSERT_TRUE(reader.follow("sub"));

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
        EXPECT_TRUE(wait_until([&, least = acknowledged + more] { return acknowledged >= least; }));
        return acknowledged.load();
    };
    const int safe = wait_for_more(100);
    ASSERT_TRUE(wait_until([&] { return std::stoi(standby.command({"HLEN", hash})) >= safe; }));

    const auto begin = Clock::now();
    if (frozen) {
        master.freeze(true);
    } else {
        master.kill();
    }
    EXPECT_TRUE(reader.wait("reconnect 3 2"));
    RecordProperty("failover_ms", std::to_string(since(begin).count()));
    reader.told();
    reader.scan("s");
    ASSERT_TRUE(reader.wait("s: end"));
    if (frozen) {
        for (const auto &sentinel : sentinels) {
            ASSERT_TRUE(wait_until([&] {
                return sentinel->command({"SENTINEL", "GET-MASTER-ADDR-BY-NAME", "store"}) ==
                       "[127.0.0.1 " + next + "]";
            }));
        }
        master.freeze(false);  // it still takes itself for the master
    }
    wait_for_more(200);
    writing.request_stop();
    writing.join();
    writer.set(1'000'000, 1);
    ASSERT_TRUE(reader.wait("sub: set 1000000:1")) << log.take() << reader.told().substr(0, 300);

    const std::map<int, int> read = picture(reader.told()), stored = picture(join(writer.scan_sync()));
    EXPECT_EQ(read, stored);
    EXPECT_EQ(standby.command({"HLEN", hash}), std::to_string(stored.size()));
    int gone = 0;
    ASSERT_GE(first_failed, safe);
    for (int i = 0; i < acknowledged; ++i) gone += (i < safe || i >= first_failed) && !stored.contains(i);
    EXPECT_EQ(gone, 0);
    const std::string said = log.take();
    EXPECT_EQ(said.find("s3cret"), std::string::npos) << said;
}
INSTANTIATE_TEST_SUITE_P(Faults, TwoBoards, testing::Values("killed", "frozen"),
                         [](const auto &fault) { return std::string(fault.param); });

}  // namespace
