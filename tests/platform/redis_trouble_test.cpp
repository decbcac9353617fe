// A server in trouble, one that is not what it was, and one that lies: a client that goes on, or is told and comes back with
// what is there; never one that is deaf, hangs, or believes an old picture.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <filesystem>
#include <future>
#include <sstream>

#include "tests/platform/recording_client.h"
#include "tests/platform/redis_server.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Roads = Proxy::Roads;
using Way = Proxy::Way;

const std::string hash = "dm:1:p_dev.card_info", complete_hash = "dm:1:p_dev.dp_lib_complete";

void pass(milliseconds time) {
    ::poll(nullptr, 0, static_cast<int>(time.count()));
}

class ServerInTrouble : public testing::Test {
protected:
    RedisServer server{{"--enable-protected-configs", "yes"}};
    const std::string at = server.socket() + ".road";
    Proxy proxy{at, server.socket()};
    StandardError log;

    std::string url(int probe_ms) const { return "redis+unix://" + at + "?probe=" + std::to_string(probe_ms); }

    static int32_t set(RecordingClient &client, int32_t slot, int32_t type) {
        return tq_mom_set(client.handle(), 1, card_of_type(slot, type).get(), 0, 0);
    }

    static void follow(RecordingClient &reader) {
        reader.follow_connection();
        ASSERT_TRUE(reader.follow("sub"));
        reader.told();
    }

    // So many more echoes, or marks, have been asked for: as time passes for a client that is up.
    void wait_for_echoes(int more) const {
        const long until = server.calls_of("eval") + more;
        EXPECT_TRUE(wait_until([&] { return server.calls_of("eval") >= until; }));
    }

    void lose_feeds() const { server.command({"CLIENT", "KILL", "TYPE", "pubsub"}); }
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
        wait_for_echoes(3);  // it is there
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
    ASSERT_TRUE(wait_until([&] { return other.command({"EXISTS", "dm:store"}) == "1"; }));
    wait_for_echoes(3);
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
    const std::string lines = log.take();
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
    ASSERT_TRUE(wait_until([&] { return server.command({"PING"}).starts_with("MISCONF"); }));
    RecordingClient late(server.url());
    follow(late);
    EXPECT_TRUE(reader.follow("more"));
    wait_for_echoes(3);
    EXPECT_EQ(reader.get(1), "1:1");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(set(reader, 1, 2), TQ_MOM_E_REFUSED);
    EXPECT_EQ(reader.told().find("lost"), std::string::npos);
    server.command({"CONFIG", "SET", "save", ""});
    EXPECT_EQ(set(reader, 1, 3), 0);
    EXPECT_TRUE(late.wait("sub: set 1:3"));
    const std::string lines = log.take();
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
    wait_for_echoes(3);
    EXPECT_EQ(reader.told(), "c: has nothing error -9, more: refused -9, s: end, sub: set 1:1");
    EXPECT_EQ(server.calls_of("subscribe"), 0);  // not again and again

    // Nor is a confirmation that waits forgotten with the connection.
    lose_feeds();
    EXPECT_TRUE(reader.wait("more: refused -9"));
    EXPECT_EQ(reader.told(), "lost, connected 1, reconnect 1 1, reconnect 3 1, more: refused -9");
    EXPECT_TRUE(log.wait(": over after "));
    ASSERT_EQ(tq_mom_scan(reader.handle(), 1, whole.get(), 0, RecordingClient::on_message, reader.word("c")), 0);
    ASSERT_TRUE(reader.wait("c: has nothing error -9"));
    reader.told();
    server.command({"ACL", "SETUSER", "dm", "&dm:*"});
    server.command({"DEL", complete_hash});
    EXPECT_TRUE(reader.wait("c: end"));
    EXPECT_EQ(reader.told(), "more: confirmed, c: end");
    const std::string lines = log.take();
    EXPECT_NE(lines.find(complete_hash + " is held: a scan is refused: WRONGTYPE"), std::string::npos) << lines;
    EXPECT_NE(lines.find(complete_hash + " is held: no subscription to " + complete_hash + ": NOPERM"),
              std::string::npos)
        << lines;
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 5) << lines;
}

// What keeps its time may be slow; what is silent must be noticed, without anybody's asking.
TEST_F(ServerInTrouble, SlowIsNotSilent) {
    constexpr milliseconds probe(800);
    const auto slowly = [&](milliseconds each) {
        return [each](std::string &, int) {
            pass(each);
            return true;
        };
    };
    {
        proxy.bend(Roads::to_come, slowly(probe * 4 / 10));
        RecordingClient reader(url(800));
        follow(reader);
        pass(probe * 3);
        EXPECT_EQ(reader.told() + log.take(), "");
        proxy.bend(Roads::to_come, {});
    }
    RecordingClient reader(url(800));
    follow(reader);

    // An answer that takes three probe times, and comes all the while.
    const Message large = card_of_type(1, 1).set("name", std::string(1'500'000, 'n'));
    ASSERT_EQ(tq_mom_set(reader.handle(), 1, large.get(), 0, 0), 0);
    proxy.bend(Roads::commands, slowly(milliseconds(100)));
    EXPECT_EQ(reader.scan_sync(), Lines{"has 1:1"});
    proxy.bend(Roads::commands, {});
    pass(probe);
    EXPECT_EQ(reader.told() + log.take(), "sub: set 1:1");

    for (const auto road : {Roads::feeds, Roads::commands}) {
        const auto begin = Clock::now();
        proxy.bend(road, [](std::string &bytes, int) {
            bytes.clear();
            return true;
        });
        ASSERT_TRUE(reader.wait("lost"));
        EXPECT_LT(Clock::now() - begin, probe * 6);
        EXPECT_TRUE(reader.wait("reconnect 3 1"));
        EXPECT_TRUE(log.wait(": over after "));
        reader.told();
        log.take();
    }
    server.freeze(true);
    EXPECT_EQ(set(reader, 1, 1), TQ_MOM_E_UNREACHABLE);
    EXPECT_TRUE(reader.wait("lost"));
    EXPECT_EQ(set(reader, 1, 1), TQ_MOM_E_UNREACHABLE);
    server.freeze(false);
    EXPECT_TRUE(reader.wait("reconnect 3 1"));
    EXPECT_EQ(reader.told(), "lost, connected 1, reconnect 1 1, reconnect 3 1");
    EXPECT_NE(log.peek().find("no answer"), std::string::npos);
    EXPECT_TRUE(log.wait(": over after "));
    log.take();

    // A callback that holds up the loop for longer than that is no silence of the server's.
    std::promise<void> go_on;
    reader.word("sub")->then = [&](const store_msg &) { go_on.get_future().wait(); };
    reader.set(2, 2);
    ASSERT_TRUE(reader.wait("sub: set 2:2"));
    EXPECT_EQ(tq_mom_client_drain(reader.handle(), 1200), TQ_MOM_E_TIMEOUT);
    go_on.set_value();
    EXPECT_EQ(tq_mom_client_drain(reader.handle(), 20000), 0);
    EXPECT_EQ(reader.told() + log.take(), "sub: set 2:2");
}

// An overloaded or replaced server must say so to those who write, once, and a former master must not be believed.
TEST_F(ServerInTrouble, RefusedWritesAndAnotherRoleAreTold) {
    RecordingClient reader(url(1500));
    follow(reader);
    server.command({"CONFIG", "SET", "maxmemory", "1"});
    for (int i = 0; i < 3; ++i) EXPECT_EQ(set(reader, 1, 1), TQ_MOM_E_REFUSED);
    server.command({"CONFIG", "SET", "maxmemory", "0"});
    reader.set(1, 2);
    EXPECT_TRUE(reader.wait("sub: set 1:2"));
    const std::string lines = log.take();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 2) << lines;
    for (const bool by_write : {true, false}) {
        server.command({"REPLICAOF", "127.0.0.1", "1"});
        if (by_write) {
            EXPECT_EQ(set(reader, 1, 1), TQ_MOM_E_REFUSED);
        }
        EXPECT_TRUE(reader.wait("lost"));
        server.command({"REPLICAOF", "NO", "ONE"});
        EXPECT_TRUE(reader.wait("reconnect 3 2"));
        EXPECT_TRUE(log.wait("no master any more"));
        EXPECT_TRUE(log.wait(": over after "));
        reader.told();
        log.take();
    }
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
    EXPECT_TRUE(log.wait("the address leads to two servers"));
    writer.set(1, 1);
    EXPECT_TRUE(reader.wait("sub: set 1:1"));
}

// What nobody hears at a replica would fill the link to it, and it would need a full copy after each short absence.
TEST_F(ServerInTrouble, ReadingCostsAReplicaNothing) {
    const RedisServer standby;
    server.command({"CONFIG", "SET", "repl-diskless-sync-delay", "0"});
    RecordingClient reader(url(300));
    follow(reader);
    for (int i = 0; i < 300; ++i) reader.set(i, i);
    standby.command({"REPLICAOF", "127.0.0.1", std::to_string(server.listen_on_loopback())});
    const auto wait_for = [&](const std::string &objects) {
        return wait_until([&] { return standby.command({"HLEN", hash}) == objects; });
    };
    ASSERT_TRUE(wait_for("300"));
    const auto offset = [&] {
        const std::string info = server.command({"INFO", "replication"});
        return std::stol(info.substr(info.find("master_repl_offset:") + 19));
    };
    const long before = offset();
    for (int i = 0; i < 3; ++i) {
        reader.told();
        reader.scan("s");
        ASSERT_TRUE(reader.wait("s: end"));
        wait_for_echoes(2);
    }
    EXPECT_LT(offset() - before, 100);  // the server's own pings
    reader.set(1, 7);
    reader.del(2);
    const auto content = [](const RedisServer &of) { return of.command({"DEBUG", "DIGEST-VALUE", hash}); };
    ASSERT_TRUE(wait_for("299"));
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
    const auto read_error = [](RecordingClient &reader) {
        int32_t error = 0;
        EXPECT_EQ(tq_mom_get_sync(reader.handle(), 1, card(1, 1, 0).get(), &error), nullptr);
        return error;
    };
    const struct {
        Roads road;
        Proxy::Bend bend;
        std::string words;
    } rows[] = {
        {Roads::commands, instead(":5\r\n"), other},
        {Roads::commands, instead("+OK\r\n"), other},
        {Roads::commands, instead("*1\r\n$1\r\nx\r\n"), other},
        {Roads::commands, instead(huge), much},
        {Roads::commands, instead("*2\r\n*3999999\r\n*3999999\r\n"), much},
        {Roads::commands, instead("$5\r\nno\r\n"), "no answer"},
        {Roads::feeds, instead(huge), much},
        {Roads::feeds, instead("+what\r\n"), other},
        {Roads::feeds, instead("*3\r\n$9\r\nsubscribe\r\n$1\r\nx\r\n:1\r\n"), other},
        {Roads::feeds, instead("*2\r\n$7\r\nmessage\r\n$1\r\nx\r\n"), other},
        {Roads::feeds, instead("$100000000\r\n", milliseconds(20)), "echoes do not come"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.words + " " + std::to_string(&row - rows));
        RecordingClient reader(url(600));
        follow(reader);
        proxy.bend(row.road, row.bend);
        if (row.road == Roads::commands) {
            EXPECT_EQ(read_error(reader), TQ_MOM_E_UNREACHABLE);
        }
        EXPECT_TRUE(log.wait(row.words)) << log.peek();
        EXPECT_TRUE(reader.wait("reconnect 3 1"));
        EXPECT_TRUE(log.wait(": over after "));
        log.take();
    }

    // What cannot be understood may have been a change: passing over it would leave the reader wrong for good.
    using namespace std::string_literals;
    for (const std::string &frame : {"S\x01"s, ""s, "X"s, "S\0\0\0\1k\0\0"s, "S\0\0\0\1k"s, "D\0\0\0\5k"s, "M\0\0"s}) {
        SCOPED_TRACE(testing::PrintToString(frame));
        RecordingClient reader(url(600));
        follow(reader);
        server.command({"PUBLISH", hash, frame});
        EXPECT_TRUE(reader.wait("reconnect 3 1"));
        EXPECT_EQ(reader.told(), "lost, connected 1, reconnect 1 1, reconnect 3 1");
        EXPECT_TRUE(log.wait(": over after "));
        EXPECT_NE(log.take().find("what came by " + hash + ": a damaged frame"), std::string::npos);
    }

    RecordingClient reader(url(200));
    follow(reader);
    server.command({"SET", complete_hash, "no hash"});
    EXPECT_EQ(tq_mom_scan_sync(reader.handle(), 1, complete().get(), 0, RecordingClient::on_message, nullptr),
              TQ_MOM_E_REFUSED);
    EXPECT_EQ(reader.told(), "");

    // Nobody calls, and an answer that nobody waits for does not end.
    proxy.bend(Roads::commands, [begun = false](std::string &answer, int) mutable {
        answer = std::exchange(begun, true) ? "x" : "$100000000\r\n";
        return true;
    });
    EXPECT_TRUE(reader.wait("reconnect 3 1"));

    // Opened, called and closed with a byte now and then.
    proxy.bend(Roads::commands, instead("$100000000\r\n", milliseconds(20)));
    auto call = std::async(std::launch::async, [&] { return read_error(reader); });
    pass(milliseconds(100));
    const auto begin = Clock::now();
    reader.close();
    EXPECT_EQ(call.get(), TQ_MOM_E_UNREACHABLE);
    EXPECT_LT(Clock::now() - begin, milliseconds(2000));
    proxy.bend(Roads::to_come, instead("$100000000\r\n", milliseconds(20)));
    tq_mom_handle *handle = nullptr;
    EXPECT_EQ(tq_mom_client_open(url(200).c_str(), &handle), TQ_MOM_E_UNREACHABLE);
    EXPECT_LT(Clock::now() - begin, milliseconds(6000));
}

// Whoever writes in bulk goes on where it was told: a number too high loses objects.
TEST_F(ServerInTrouble, ABulkWriteThatIsCutOffSaysWhatWasNotTaken) {
    RecordingClient writer(url(20000));
    std::vector<Message> cards;
    std::vector<tq_mom_write> writes;
    for (int i = 0; i < 4; ++i) cards.push_back(card_of_type(i, i));
    for (const Message &card : cards) writes.push_back({1, card.get()});
    writer.set(0, 0);  // the server knows the script
    proxy.bend(Roads::commands, [calls = 0](std::string &bytes, int client) mutable {
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

// Orders of events that a busy board brings once a month. Each is held up on its way until it is that order.
TEST_F(ServerInTrouble, RareOrdersAreNoOthers) {
    const std::string back = "lost, connected 1, reconnect 1 1, reconnect 3 1";
    RecordingClient writer(server.url());
    RecordingClient *reader = nullptr;
    std::future<void> call;
    const auto call_and_wait_for_the_answer = [&] {
        const long calls = server.calls_of("hget");
        proxy.hold_up(Roads::commands, Way::back);
        call = std::async(std::launch::async, [&] {
            tq_mom_tq_obj_free(tq_mom_get_sync(reader->handle(), 1, card(1, 1, 0).get(), nullptr));
        });
        EXPECT_TRUE(wait_until([&] { return server.calls_of("hget") > calls; }));
    };
    const struct {
        const char *what;
        int probe_ms;
        std::function<void()> act;
        std::string last, told, said;
    } rows[] = {
        {"a scan before its subscription stands", 3000,
         [&] {
             proxy.hold_up(Roads::feeds, Way::there);
             reader->subscribe("sub");
             reader->scan("s");
             reader->get(1);  // goes behind what the scan has sent
             writer.set(1, 1);
             proxy.go_on();
         },
         "s: end", "sub: confirmed, s: has 1:1, s: end", ""},
        {"a confirmation that is lost with the connection", 3000,
         [&] {
             proxy.hold_up(Roads::feeds, Way::back);
             reader->subscribe("sub");
             proxy.cut();
             EXPECT_TRUE(reader->wait("lost"));
             proxy.let_in();
         },
         "reconnect 3 1", "lost, connected 1, sub: confirmed, reconnect 1 1, reconnect 3 1", "closed the connection"},
        {"the mark of a scan that is over", 3000,
         [&] {
             EXPECT_TRUE(reader->follow("sub"));
             reader->scan("r");
             EXPECT_TRUE(reader->wait("r: end"));
             proxy.hold_up(Roads::commands, Way::there);
             reader->scan("s");
             const std::string channels = server.command({"PUBSUB", "CHANNELS", "dm:client:*"});
             std::istringstream names(channels.substr(1, channels.size() - 2));
             for (std::string name; names >> name;) server.command({"PUBLISH", name, std::string("M\0\0\0\0011", 6)});
             writer.set(1, 2);
             proxy.go_on();
         },
         "s: end", "sub: confirmed, r: has 1:1, r: end, sub: set 1:2, s: has 1:2, s: end", ""},
        {"a page that is never told of", 500,
         [&] {
             proxy.bend(Roads::feeds, [](std::string &bytes, int) {
                 if (bytes.find("\nM") != std::string::npos) bytes.clear();
                 return true;
             });
             reader->scan("s");
         },
         "reconnect 3 1", back, "echoes, and a request has no answer"},
        {"a confirmation that never comes", 500,
         [&] {
             proxy.drop_fences(1);
             reader->subscribe("sub");
         },
         "reconnect 3 1", "lost, connected 1, sub: confirmed, reconnect 1 1, reconnect 3 1",
         "echoes, and a request has no answer"},
        {"a scan that waits behind a call goes with it", 60000,
         [&] {
             reader->scan("r");
             EXPECT_TRUE(reader->wait("r: end"));
             call_and_wait_for_the_answer();
             reader->scan("s");
             proxy.go_on();
         },
         "s: end", "r: has 1:2, r: end, s: has 1:2, s: end", ""},
        {"a scan that waits behind a call is lost with it", 3000,
         [&] {
             call_and_wait_for_the_answer();
             reader->scan("void");
             proxy.cut();
             EXPECT_TRUE(reader->wait("lost"));
             proxy.let_in();
             EXPECT_TRUE(reader->wait("reconnect 3 1"));
             reader->scan("s");
         },
         "s: end", back + ", s: has 1:2, s: end", ""},
        {"a server that trickles while a client connects", 300,
         [&] {
             proxy.cut();
             proxy.bend(Roads::to_come, [this](std::string &, int client) {
                 while (::send(client, "$", 1, MSG_NOSIGNAL) == 1 &&
                        log.peek().find("no answer") == std::string::npos) {
                     pass(milliseconds(20));
                 }
                 return false;
             });
             proxy.let_in();
             EXPECT_TRUE(log.wait("no answer"));
             proxy.bend(Roads::to_come, {});
         },
         "reconnect 3 1", back, "no answer"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        RecordingClient client(url(row.probe_ms));
        reader = &client;
        client.follow_connection();
        client.wait("connected 0");
        client.told();
        log.take();
        const auto begin = Clock::now();
        row.act();
        EXPECT_TRUE(client.wait(row.last));
        if (call.valid()) call.get();
        EXPECT_EQ(client.told(), row.told);
        EXPECT_LT(Clock::now() - begin, std::chrono::seconds(10));  // a tick of the one that waits long takes 12
        EXPECT_NE(log.take().find(row.said), std::string::npos);
    }
}

// What a client has given up must not undo what is written after it.
TEST_F(ServerInTrouble, AWriteThatWasGivenUpDoesNotLand) {
    const std::string port = std::to_string(server.listen_on_loopback());
    RecordingClient writer("redis://127.0.0.1:" + port + "?probe=500");
    writer.follow_connection();
    writer.set(1, 7);  // the server knows the script
    server.freeze(true);
    const Message large = card_of_type(1, 1).set("name", std::string(2000000, 'n'));  // more than waits at the server
    EXPECT_EQ(tq_mom_set(writer.handle(), 1, large.get(), 0, 0), TQ_MOM_E_UNREACHABLE);
    server.freeze(false);
    ASSERT_TRUE(writer.wait("reconnect 3 1"));
    EXPECT_TRUE(wait_until([&] {
        const std::string now = server.command({"CLIENT", "LIST"});
        return std::count(now.begin(), now.end(), '\n') == 3;  // the two of the writer's, and this one
    }));
    EXPECT_EQ(writer.get(1), "1:7");
}

// A program that the process starts would hold its connections open.
TEST_F(ServerInTrouble, NoProgramInheritsAConnection) {
    const auto inherited = [] {
        std::string paths;
        for (const auto &fd : std::filesystem::directory_iterator("/proc/self/fd")) {
            const int flags = fcntl(std::stoi(fd.path().filename()), F_GETFD);
            if (flags >= 0 && (flags & FD_CLOEXEC) == 0) paths += std::filesystem::read_symlink(fd).string() + " ";
        }
        return paths;
    };
    const std::string before = inherited();
    const RecordingClient client(url(3000)), other("mem:");
    EXPECT_EQ(inherited(), before);
}

TEST_F(ServerInTrouble, AClusterIsRefusedWithAWord) {
    const RedisServer cluster{{"--cluster-enabled", "yes"}};
    tq_mom_handle *handle = nullptr;
    EXPECT_EQ(tq_mom_client_open(cluster.url().c_str(), &handle), TQ_MOM_E_REFUSED);
    EXPECT_NE(log.take().find("part of a cluster"), std::string::npos);
}

}  // namespace
