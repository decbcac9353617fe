// A store that moves from one board to the other, and those who say where it is: scripted ones that say anything, and a real
// one that watches two servers, one of which dies.
#include <sys/socket.h>
#include <fstream>

#include "tests/platform/recording_client.h"
#include "tests/platform/redis_server.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const std::string hash = "dm:1:p_dev.card_info";

std::string address(const std::string &host, const std::string &port) {
    const auto word = [](const std::string &text) {
        return "$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
    };
    return "*2\r\n" + word(host) + word(port);
}

// Sentinels that say anything: proxies before a server, whose answers they replace.
class ScriptedSentinels : public testing::Test {
protected:
    RedisServer server, other;
    std::atomic<int> answers = 0;
    const std::string at = other.socket() + ".";
    Proxy a{at + "a", other.socket()}, b{at + "b", other.socket()}, c{at + "c", other.socket()};
    const std::string url = "redis-sentinel+unix://" + at + "a," + at + "b," + at + "c?name=store&probe=1000";
    const std::string right = address("127.0.0.1", std::to_string(server.listen_on_loopback())),
                      wrong = address("127.0.0.1", std::to_string(other.listen_on_loopback())),
                      nobody = address("127.0.0.1", "1");
    StandardError log;

    // To whoever asks from now on; empty: nothing. What has no end ends by "...".
    void say(const std::string &by_a, const std::string &by_b, const std::string &by_c) {
        for (const auto &[sentinel, answer] : {std::pair(&a, by_a), {&b, by_b}, {&c, by_c}})
            sentinel->bend(Proxy::Roads::to_come, [this, says = answer](std::string &bytes, int client) {
                ++answers;
                bytes = says;
                if (says != "...") return says != "closes";
                ::send(client, ":", 1, MSG_NOSIGNAL);
                while (::send(client, "1", 1, MSG_NOSIGNAL) == 1) pass(milliseconds(1));
                return false;
            });
    }
};

// One sentinel that is gone, mistaken or mad keeps no process from its store; when none helps, the log says who said what.
TEST_F(ScriptedSentinels, AreAskedInTurnUntilOneHasAnAddress) {
    const std::string none = "*-1\r\n", empty_lists = "*2\r\n*-1\r\n*-1\r\n",
                      three = "*3\r\n$1\r\nh\r\n$1\r\n1\r\n$1\r\n1\r\n", refuses = "-ERR unknown command\r\n",
                      rude = "-NOAUTH \x1b[2J\r\n", port_0 = address("127.0.0.1", "0"),
                      port_x = address("127.0.0.1", "6379x"), no_host = address("", "6379"),
                      odd = address("\x1b[2J", "1"), nonsense = "answers something else than was asked";
    const struct {
        std::string a, b, c;
        std::vector<std::string> words;  // none: the client is open
        int least_ms = 0;
    } rows[] = {
        {none, "hello\r\n", right, {}},
        {refuses, "closes", right, {}},
        {"", "", right, {}, 200},
        {right, "", "", {}},
        {none, rude, ":5\r\n", {"a: does not know it; ", "b: NOAUTH \\x1b[2J; ", "c: " + nonsense + ")"}},
        {port_0, port_x, no_host, {"a: " + nonsense, "b: " + nonsense, "c: " + nonsense}},
        {odd, empty_lists, three, {"a: " + nonsense, "b: " + nonsense, "c: " + nonsense}},
        {"closes", "...", "", {"a: the server closed", "b: answers without an end", "c: no answer"}, 990},
        {nobody, right, right, {"127.0.0.1:1: Connection refused"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        say(row.a, row.b, row.c);
        tq_mom_handle *handle = nullptr;
        const auto begin = Clock::now();
        EXPECT_EQ(tq_mom_client_open(url.c_str(), &handle), row.words.empty() ? 0 : TQ_MOM_E_UNREACHABLE);
        const auto took = Clock::now() - begin;
        EXPECT_GE(took, milliseconds(row.least_ms));
        EXPECT_LE(took, milliseconds(row.least_ms + 890));  // where one answers nobody waits for the probe time
        const std::string said = log.take();
        for (const std::string &words : row.words) EXPECT_TRUE(has(said, words));
        EXPECT_TRUE(has_lines(said, row.words.empty() ? 0 : 1));
        if (handle) close_client(handle);
    }
}

// Sentinels that have not heard yet go on naming a board that is gone, or one that is no master any more.
TEST_F(ScriptedSentinels, AreNotBelievedForEver) {
    other.command({"REPLICAOF", "127.0.0.1", "1"});
    say(right, right, right);
    RecordingClient reader(url);
    reader.follow_all();
    say(nobody, wrong, right);
    server.lose_feeds();
    EXPECT_TRUE(reader.wait("reconnect 3 1"));
    reader.set(1, 7);
    EXPECT_TRUE(reader.wait("sub: set 1:7"));
    EXPECT_TRUE(log.wait("127.0.0.1:1: Connection refused"));
    EXPECT_TRUE(log.wait("is no master"));
}

// For seconds after a change most sentinels name the former master. Thawed, it would take writes that will be gone.
TEST_F(ScriptedSentinels, NameAServerThatWasLostAsTheLastChoice) {
    for (const bool is_frozen : {false, true}) {
        say(right, right, right);
        RecordingClient reader(url);
        reader.follow_all();
        server.lose_feeds();
        EXPECT_TRUE(reader.wait("reconnect 3 1"));
        if (is_frozen) {
            server.freeze(true);
            EXPECT_TRUE(reader.wait("lost"));
            EXPECT_TRUE(wait_until([&, before = answers.load()] { return answers >= before + 3; }));
            say(wrong, wrong, wrong);
            pass(milliseconds(300));  // it answers late, while the client still waits
            server.freeze(false);
        } else {
            say(right, right, wrong);
            server.lose_feeds();
        }
        EXPECT_TRUE(reader.wait("reconnect 3 2"));
        reader.set(1, 7);
        EXPECT_EQ(other.command({"HLEN", hash}), "1");
        EXPECT_EQ(server.command({"HLEN", hash}), "0");
        other.command({"FLUSHALL"});
    }
}

// A board dies. What the other one had is there, and readers and writers go on with it.
TEST(RealSentinel, MovesEverybodyToTheOtherBoard) {
    StandardError log;
    RedisServer master, standby;
    const int port = master.listen_on_loopback();
    standby.listen_on_loopback();
    standby.replicate(master);
    const std::string file = master.socket() + ".sentinel";
    std::ofstream(file) << "requirepass s3cret\nsentinel monitor store 127.0.0.1 " << port
                        << " 1\nsentinel down-after-milliseconds store 500\nsentinel failover-timeout store 2000\n";
    RedisServer sentinel({file, "--sentinel"});
    EXPECT_TRUE(wait_until([&] { return sentinel.command({"SENTINEL", "REPLICAS", "store"}, "s3cret").size() > 2; }));
    setenv("TQ_SENTINEL_PASSWORD", "s3cret", 1);
    const std::string url = "redis-sentinel+unix://" + sentinel.socket() + "?name=store&probe=1000";
    RecordingClient reader(url), writer(url);
    unsetenv("TQ_SENTINEL_PASSWORD");
    reader.follow_all();
    for (int i = 0; i < 100; ++i) writer.set(i, i);
    EXPECT_TRUE(wait_until([&] { return standby.command({"HLEN", hash}) == "100"; }));
    master.kill();
    EXPECT_TRUE(reader.wait("reconnect 3 2"));
    EXPECT_TRUE(wait_until([&] { return writer.write(card_of_type(100, 100)) == 0; }));
    ASSERT_TRUE(reader.wait("sub: set 100:100"));
    EXPECT_EQ(picture(reader.scanned()), picture(join(writer.scan_sync())));
    EXPECT_EQ(standby.command({"HLEN", hash}), "101");
    EXPECT_FALSE(has(log.take(), "s3cret"));
}

}  // namespace
