// A server in trouble, one that is not what it was, and one that lies: a client that goes on, or is told and comes back with
// what is there; never one that is deaf, hangs, or believes an old picture.
#include <poll.h>
#include <sys/socket.h>
#include <filesystem>
#include <future>

#include "tests/platform/recording_client.h"
#include "tests/platform/redis_server.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const std::string hash = "dm:1:p_dev.card_info", complete_hash = "dm:1:p_dev.dp_lib_complete";

class ServerInTrouble : public testing::Test {
protected:
    RedisServer server{{"--enable-protected-configs", "yes"}};
    const std::string at = server.socket() + ".road";
    Proxy proxy{at, server.socket()};

    void SetUp() override { testing::internal::CaptureStderr(); }
    void TearDown() override { testing::internal::GetCapturedStderr(); }

    std::string url(int probe_ms) const { return "redis+unix://" + at + "?probe=" + std::to_string(probe_ms); }

    static int32_t set(RecordingClient &client, int32_t slot, int32_t type) {
        return tq_mom_set(client.handle(), 1, card_of_type(slot, type).get(), 0, 0);
    }

    static void follow(RecordingClient &reader) {
        reader.follow_connection();
        reader.subscribe("sub");
        ASSERT_TRUE(reader.wait("sub: confirmed"));
        reader.told();
    }

    std::string said() {
        const std::string text = testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        return text;
    }

    static void pass(milliseconds time) { ::poll(nullptr, 0, static_cast<int>(time.count())); }
};

// A client that takes other content for the old one keeps what is gone, for good.
TEST_F(ServerInTrouble, OtherContentIsToldWithReason2) {
    const RedisServer other;
    server.command({"ACL", "SETUSER", "reads", "on", "nopass", "+@all", "-hset", "-hdel", "~dm:*", "&dm:*"});
    RecordingClient reads("redis+unix://reads:any@" + server.socket() + "?probe=300");  // and came before any content
    follow(reads);
    RecordingClient writer(server.url());
    const struct {
        const char *what;
        std::vector<std::vector<std::string>> commands;
        bool while_cut_off;
    } rows[] = {
        {"emptied", {{"FLUSHALL"}}, false},
        {"swapped", {{"SWAPDB", "0", "1"}}, false},
        {"one kind is removed", {{"DEL", hash}}, false},
        {"replaced by other content", {{"HSET", "dm:store", "id", "another"}}, false},
        {"demoted and promoted again", {{"REPLICAOF", "127.0.0.1", "1"}, {"REPLICAOF", "NO", "ONE"}}, false},
        {"emptied while the client is away", {{"FLUSHALL"}}, true},
    };
    RecordingClient reader(url(300));
    follow(reader);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_EQ(tq_mom_client_connect_sync(writer.handle(), 0), 0);
        writer.set(1, 1);
        ASSERT_TRUE(reader.wait("sub: set 1:1"));
        pass(milliseconds(130));  // an echo sees that it is there
        if (row.while_cut_off) proxy.cut();
        for (const auto &command : row.commands)
            EXPECT_EQ(server.command(command).substr(0, 3), command[0] == "DEL"    ? "1"
                                                            : command[0] == "HSET" ? "0"
                                                                                   : "OK");
        if (row.while_cut_off) proxy.let_in();
        EXPECT_TRUE(reader.wait("reconnect 3 2"));
        EXPECT_TRUE(reads.wait("reconnect 3 2"));
        reader.told();
        reads.told();
    }

    // Nor is the first replica of a server another content.
    server.command({"CONFIG", "SET", "repl-diskless-sync-delay", "0"});
    other.command({"REPLICAOF", "127.0.0.1", std::to_string(server.listen_on_loopback())});
    const auto limit = Clock::now() + std::chrono::seconds(20);
    while (other.command({"EXISTS", "dm:store"}) != "1") ASSERT_LT(Clock::now(), limit);
    pass(milliseconds(200));
    EXPECT_EQ(reader.told(), "");
}

// Whoever is refused every other call is not told each time.
TEST_F(ServerInTrouble, WhatComesAndGoesIsNotAFlood) {
    RecordingClient writer(server.url());
    for (int i = 0; i < 50; i++) {
        server.command({"CONFIG", "SET", "maxmemory", "1"});
        EXPECT_EQ(set(writer, 1, i), TQ_MOM_E_REFUSED);
        server.command({"CONFIG", "SET", "maxmemory", "0"});
        EXPECT_EQ(set(writer, 1, i), 0);
    }
    const std::string lines = said();
    EXPECT_NE(lines.find(": over after "), std::string::npos);
    EXPECT_LT(std::count(lines.begin(), lines.end(), '\n'), 10) << lines;
}

// A full disk is no reason to be blind: whoever reads goes on, and whoever writes is told.
TEST_F(ServerInTrouble, AServerThatCannotSaveIsReadAllTheSame) {
    RecordingClient reader(url(300));
    follow(reader);
    reader.set(1, 1);
    ASSERT_EQ(server.command({"CONFIG", "SET", "dir", "/proc/self", "save", "900 1"}), "OK");
    server.command({"BGSAVE"});
    const auto limit = Clock::now() + std::chrono::seconds(20);
    while (!server.command({"PING"}).starts_with("MISCONF")) ASSERT_LT(Clock::now(), limit);
    RecordingClient late(server.url());
    follow(late);
    reader.subscribe("more");
    EXPECT_TRUE(reader.wait("more: confirmed"));
    pass(milliseconds(400));
    EXPECT_EQ(reader.get(1), "1:1");
    for (int i = 0; i < 3; i++) EXPECT_EQ(set(reader, 1, 2), TQ_MOM_E_REFUSED);
    EXPECT_EQ(reader.told().find("lost"), std::string::npos);
    server.command({"CONFIG", "SET", "save", ""});
    EXPECT_EQ(set(reader, 1, 3), 0);
    EXPECT_TRUE(late.wait("sub: set 1:3"));
    const std::string lines = said();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 2) << lines;
    EXPECT_NE(lines.find(": refused: MISCONF"), std::string::npos) << lines;
    EXPECT_NE(lines.find(": over after"), std::string::npos) << lines;
}

// One kind that the server does not give holds up nobody but those who want that kind, and whoever runs the system must read
// which one it is.
TEST_F(ServerInTrouble, ARefusedKindIsHeldAloneAndComesWhenItIsGranted) {
    std::vector<std::string> user = {
        "ACL", "SETUSER", "dm", "on", ">pw", "+@all", "~dm:*", "&dm:client:*", "&dm:1:p_dev.card_info*"};
    server.command(user);
    server.command({"SET", complete_hash, "no hash"});
    RecordingClient reader("redis+unix://dm:pw@" + at + "?probe=300");
    follow(reader);
    const Message whole = complete();
    ASSERT_EQ(tq_mom_scan(reader.handle(), 1, whole.get(), 0, RecordingClient::on_message, reader.word("c")), 0);
    ASSERT_TRUE(reader.wait("c: has nothing error -9"));
    ASSERT_EQ(tq_mom_subscribe(reader.handle(), 1, whole.get(), 0, RecordingClient::on_message, reader.word("more")),
              0);
    ASSERT_TRUE(reader.wait("more: refused -9"));
    server.command({"CONFIG", "RESETSTAT"});
    reader.scan("s");
    ASSERT_TRUE(reader.wait("s: end"));
    EXPECT_EQ(reader.get(1), "nothing error -5");
    reader.set(1, 1);
    ASSERT_TRUE(reader.wait("sub: set 1:1"));
    pass(milliseconds(300));
    EXPECT_EQ(reader.told(), "c: has nothing error -9, more: refused -9, s: end, sub: set 1:1");
    EXPECT_EQ(server.command({"INFO", "commandstats"}).find("cmdstat_subscribe"),
              std::string::npos);  // not again and again

    server.command({"ACL", "SETUSER", "dm", "&dm:*"});
    server.command({"DEL", complete_hash});
    EXPECT_TRUE(reader.wait("c: end"));
    EXPECT_EQ(reader.told(), "more: confirmed, c: end");
    const std::string lines = said();
    EXPECT_NE(lines.find(complete_hash + " is held: a scan is refused: WRONGTYPE"), std::string::npos) << lines;
    EXPECT_NE(lines.find(complete_hash + " is held: no subscription to " + complete_hash + ": NOPERM"),
              std::string::npos)
        << lines;
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 3) << lines;
}

// What keeps its time may be slow; what is silent must be noticed, without anybody's asking.
TEST_F(ServerInTrouble, SlowIsNotSilent) {
    constexpr milliseconds probe(400);
    const auto slowly = [&](milliseconds each) {
        return [each](std::string &, int) {
            pass(each);
            return true;
        };
    };
    {
        proxy.bend(Proxy::Roads::to_come, slowly(probe * 4 / 10));
        RecordingClient reader(url(400));
        follow(reader);
        pass(probe * 3);
        EXPECT_EQ(reader.told() + said(), "");
        proxy.bend(Proxy::Roads::to_come, {});
    }
    RecordingClient reader(url(400));
    follow(reader);

    // An answer that takes three probe times, and comes all the while.
    const Message large = card_of_type(1, 1).set("name", std::string(1'500'000, 'n'));
    ASSERT_EQ(tq_mom_set(reader.handle(), 1, large.get(), 0, 0), 0);
    proxy.bend(Proxy::Roads::commands, slowly(milliseconds(50)));
    EXPECT_EQ(reader.scan_sync(), Lines{"has 1:1"});
    proxy.bend(Proxy::Roads::commands, {});
    pass(probe);
    EXPECT_EQ(reader.told() + said(), "sub: set 1:1");

    for (const auto road : {Proxy::Roads::feeds, Proxy::Roads::commands}) {
        const auto begin = Clock::now();
        proxy.bend(road, [](std::string &bytes, int) {
            bytes.clear();
            return true;
        });
        ASSERT_TRUE(reader.wait("lost"));
        EXPECT_LT(Clock::now() - begin, probe * 3);
        EXPECT_TRUE(reader.wait("reconnect 3 1"));
        reader.told();
    }
    server.freeze(true);
    EXPECT_TRUE(reader.wait("lost"));
    server.freeze(false);
    EXPECT_TRUE(reader.wait("reconnect 3 1"));
}

// An address that moves between the two connections of a client: it would write to one server and hear another.
TEST_F(ServerInTrouble, BothConnectionsReachOneServer) {
    const RedisServer other;
    RecordingClient reader(url(300)), writer(server.url());
    follow(reader);
    proxy.cut();
    ASSERT_TRUE(reader.wait("lost"));
    proxy.lead_to({server.socket(), other.socket(), server.socket()});
    proxy.let_in();
    ASSERT_TRUE(reader.wait("reconnect 3 1"));
    EXPECT_NE(said().find("the address leads to two servers"), std::string::npos);
    writer.set(1, 1);
    EXPECT_TRUE(reader.wait("sub: set 1:1"));
}

// What nobody hears at a replica would fill the link to it, and it would need a full copy after each short absence.
TEST_F(ServerInTrouble, ReadingCostsAReplicaNothing) {
    const RedisServer standby;
    server.command({"CONFIG", "SET", "repl-diskless-sync-delay", "0"});
    RecordingClient reader(url(300));
    follow(reader);
    for (int i = 0; i < 300; i++) reader.set(i, i);
    standby.command({"REPLICAOF", "127.0.0.1", std::to_string(server.listen_on_loopback())});
    const auto limit = Clock::now() + std::chrono::seconds(20);
    while (standby.command({"HLEN", hash}) != "300") ASSERT_LT(Clock::now(), limit);
    const auto offset = [&] {
        const std::string info = server.command({"INFO", "replication"});
        return std::stol(info.substr(info.find("master_repl_offset:") + 19));
    };
    const long before = offset();
    for (int i = 0; i < 3; i++) {
        reader.told();
        reader.scan("s");
        ASSERT_TRUE(reader.wait("s: end"));
        pass(milliseconds(100));
    }
    EXPECT_LT(offset() - before, 100);  // the server's own pings
    reader.set(1, 7);
    reader.del(2);
    const auto content = [](const RedisServer &of) { return of.command({"DEBUG", "DIGEST-VALUE", hash}); };
    while (standby.command({"HLEN", hash}) != "299") ASSERT_LT(Clock::now(), limit);
    EXPECT_EQ(content(standby), content(server));
}

// A server that has gone mad, or another program at its address: nothing it says is taken for an answer, no memory for what it
// only announces, and nobody waits for it without an end.
TEST_F(ServerInTrouble, NonsenseIsNotBelieved) {
    const std::string huge = "*2000000000\r\n", other = "answers something else", much = "announces more";
    const auto instead = [](const std::string &bytes, milliseconds each = {}) {
        return [=](std::string &answer, int client) {
            answer = bytes;
            if (each == milliseconds(0)) return true;
            ::send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            while (::send(client, "x", 1, MSG_NOSIGNAL) == 1) pass(each);
            return false;
        };
    };
    const struct {
        Proxy::Roads road;
        Proxy::Bend bend;
        std::string words;
    } rows[] = {
        {Proxy::Roads::commands, instead(":5\r\n"), other},
        {Proxy::Roads::commands, instead("+OK\r\n"), other},
        {Proxy::Roads::commands, instead("*1\r\n$1\r\nx\r\n"), other},
        {Proxy::Roads::commands, instead(huge), much},
        {Proxy::Roads::commands, instead("*2\r\n*3999999\r\n*3999999\r\n"), much},
        {Proxy::Roads::commands, instead("$5\r\nno\r\n"), "no answer"},
        {Proxy::Roads::feeds, instead(huge), much},
        {Proxy::Roads::feeds, instead("+what\r\n"), other},
        {Proxy::Roads::feeds, instead("*3\r\n$9\r\nsubscribe\r\n$1\r\nx\r\n:1\r\n"), other},
        {Proxy::Roads::feeds, instead("*2\r\n$7\r\nmessage\r\n$1\r\nx\r\n"), other},
        {Proxy::Roads::feeds, instead("$100000000\r\n", milliseconds(20)), "echoes do not come"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.words + " " + std::to_string(&row - rows));
        RecordingClient reader(url(200));
        follow(reader);
        proxy.bend(row.road, row.bend);
        if (row.road == Proxy::Roads::commands) {
            EXPECT_EQ(reader.get(1), "nothing error -4");
        }
        EXPECT_TRUE(reader.wait("reconnect 3 1"));
        const std::string lines = said();
        EXPECT_NE(lines.find(row.words), std::string::npos) << lines;
    }

    RecordingClient reader(url(200));
    follow(reader);

    // Nobody calls, and an answer that nobody waits for does not end.
    proxy.bend(Proxy::Roads::commands, [begun = false](std::string &answer, int) mutable {
        answer = std::exchange(begun, true) ? "x" : "$100000000\r\n";
        return true;
    });
    EXPECT_TRUE(reader.wait("reconnect 3 1"));

    // Opened, called and closed with a byte now and then.
    proxy.bend(Proxy::Roads::commands, instead("$100000000\r\n", milliseconds(20)));
    const Message key = card(1, 1, 0);
    auto call = std::async(std::launch::async, [&] {
        int32_t error = 0;
        EXPECT_EQ(tq_mom_get_sync(reader.handle(), 1, key.get(), &error), nullptr);
        return error;
    });
    pass(milliseconds(100));
    const auto begin = Clock::now();
    reader.close();
    EXPECT_EQ(call.get(), TQ_MOM_E_UNREACHABLE);
    EXPECT_LT(Clock::now() - begin, milliseconds(1000));
    proxy.bend(Proxy::Roads::to_come, instead("$100000000\r\n", milliseconds(20)));
    tq_mom_handle *handle = nullptr;
    EXPECT_EQ(tq_mom_client_open(url(200).c_str(), &handle), TQ_MOM_E_UNREACHABLE);
    EXPECT_LT(Clock::now() - begin, milliseconds(3000));
}

// Whoever writes in bulk goes on where it was told: a number too high loses objects.
TEST_F(ServerInTrouble, ABulkWriteThatIsCutOffSaysWhatWasNotTaken) {
    RecordingClient writer(url(20000));
    std::vector<Message> cards;
    std::vector<tq_mom_write> writes;
    for (int i = 0; i < 4; i++) cards.push_back(card_of_type(i, i));
    for (const Message &card : cards) writes.push_back({1, card.get()});
    writer.set(0, 0);  // the server knows the script
    proxy.bend(Proxy::Roads::commands, [calls = 0](std::string &bytes, int client) mutable {
        if (calls++ == 0) return true;  // the first one goes alone
        bytes = "-NOSCRIPT forgotten\r\n$-1\r\n";
        ::send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        return false;
    });
    uint32_t taken = 0, refused = 0;
    EXPECT_EQ(tq_mom_set_many(writer.handle(), writes.data(), 4, &taken, &refused), TQ_MOM_E_UNREACHABLE);
    EXPECT_EQ(taken, 1u);
    EXPECT_EQ(refused, 1u);
}

TEST_F(ServerInTrouble, AClusterIsRefusedWithAWord) {
    const RedisServer cluster{{"--cluster-enabled", "yes"}};
    tq_mom_handle *handle = nullptr;
    EXPECT_EQ(tq_mom_client_open(cluster.url().c_str(), &handle), TQ_MOM_E_REFUSED);
    EXPECT_NE(said().find("part of a cluster"), std::string::npos);
}

}  // namespace
