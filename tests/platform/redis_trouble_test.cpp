// A server in trouble, one that is not what it was, and one that lies: a client that goes on, or is told and comes back with
// what is there; never one that is deaf, hangs, or believes an old picture.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <filesystem>
#include <sstream>

#include "tests/platform/recording_client.h"
#include "tests/platform/redis_server.h"

namespace {

using namespace std::string_literals;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Roads = Proxy::Roads;
using Way = Proxy::Way;

const std::string hash = "dm:1:p_dev.card_info", complete_hash = "dm:1:p_dev.dp_lib_complete";
const std::string back = "lost, connected 1, reconnect 1 1, reconnect 3 1", is_over = ": over after ";
const std::string endless = "$100000000\r\n";

// What comes instead of an answer; with a pause behind it a byte each, until the client has had enough.
Proxy::Bend instead(const std::string &bytes, milliseconds pause = {}) {
    return [=](std::string &answer, int client) {
        answer = bytes;
        if (pause == milliseconds(0)) return true;
        ::send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        while (::send(client, "x", 1, MSG_NOSIGNAL) == 1) pass(pause);
        return false;
    };
}

int32_t read_error(RecordingClient &reader) {
    int32_t error = 0;
    EXPECT_EQ(tq_mom_get_sync(reader.handle(), 1, card(1, 1, 0).get(), &error), nullptr);
    return error;
}

class ServerInTrouble : public testing::Test {
protected:
    RedisServer server{{"--enable-protected-configs", "yes"}};
    const std::string at = server.socket() + ".road";
    Proxy proxy{at, server.socket()};
    StandardError log;

    std::string url(int probe_ms) const { return "redis+unix://" + at + "?probe=" + std::to_string(probe_ms); }

    // So many more echoes, or marks, have been asked for: as time passes for a client that is up.
    void wait_for_echoes(int more) const {
        const long until = server.calls_of("eval") + more;
        EXPECT_TRUE(wait_until([&] { return server.calls_of("eval") >= until; }));
    }

    void expect_back(RecordingClient &reader, const std::string &why) {
        EXPECT_TRUE(reader.tells(back));
        EXPECT_TRUE(log.wait(is_over));
        EXPECT_TRUE(has(log.take(), why));
    }
};

// A client that takes other content for the old one keeps what is gone, for good; a former master must not be believed.
TEST_F(ServerInTrouble, OtherContentIsToldWithReason2) {
    server.command({"ACL", "SETUSER", "reads", "on", "nopass", "+@all", "-hset", "-hdel", "~dm:*", "&dm:*"});
    RecordingClient reads("redis+unix://reads:any@" + server.socket() + "?probe=300");  // and came before any content
    reads.follow_all();
    RecordingClient writer(server.url());
    RecordingClient *reader = nullptr;
    const auto run = [this](const std::vector<std::string> &command) { return [=, this] { server.command(command); }; };
    const auto demote = run({"REPLICAOF", "127.0.0.1", "1"}), promote = run({"REPLICAOF", "NO", "ONE"}),
               empty = run({"FLUSHALL"});
    const std::string other = "has other content", no_master = "no master any more";
    const struct {
        const char *what;
        std::function<void()> act;
        std::string said;
    } rows[] = {
        {"emptied", empty, other},
        {"swapped", run({"SWAPDB", "0", "1"}), other},
        {"one kind is removed", run({"DEL", hash}), other},
        {"replaced by other content", run({"HSET", "dm:store", "id", "another"}), other},
        {"demoted and promoted again", [&] { demote(), promote(); }, ""},
        {"demoted for a while", [&] { demote(), reader->wait("lost"), promote(); }, no_master},
        {"demoted under a writer", [&] { demote(), reader->write(card_of_type(1, 1)), promote(); }, no_master},
        {"emptied while the client is away", [&] { proxy.cut(), empty(), proxy.let_in(); }, "closed the connection"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        RecordingClient follows(url(300));
        reader = &follows;
        follows.follow_all();
        while (writer.write(card_of_type(1, 1)) != 0)  // it may only now learn of the other content before
            ASSERT_EQ(tq_mom_client_connect_sync(writer.handle(), 0), 0);
        ASSERT_TRUE(follows.wait("sub: set 1:1"));
        wait_for_echoes(3);  // it is there
        row.act();
        EXPECT_TRUE(follows.wait("reconnect 3 2"));
        EXPECT_TRUE(reads.wait("reconnect 3 2"));
        EXPECT_TRUE(log.wait(".road" + is_over));
        EXPECT_TRUE(has(log.take(), row.said));
        reads.told();
    }

    // Nor is the first replica of a server another content.
    const RedisServer replica;
    server.listen_on_loopback();
    replica.replicate(server);
    wait_for_echoes(3);
    EXPECT_EQ(reads.told(), "");
}

// A server that takes no writes says so to those who write, once: no reason to be blind, nor for a flood of lines.
TEST_F(ServerInTrouble, RefusedWritesAreToldAndReadingGoesOn) {
    RecordingClient reader(url(300));
    reader.follow_all();
    reader.set(1, 1);
    const auto fill_memory = [&](bool is_full) { server.command({"CONFIG", "SET", "maxmemory", is_full ? "1" : "0"}); };
    const auto fill_disk = [&](bool is_full) {
        server.command({"CONFIG", "SET", "dir", "/proc/self", "save", is_full ? "900 1" : ""});
        server.command({"BGSAVE"});
        EXPECT_TRUE(wait_until([&] { return server.command({"PING"}).starts_with("MISCONF") == is_full; }));
    };
    const struct {
        const char *word;
        std::function<void(bool)> fill;
    } rows[] = {{"OOM", fill_memory}, {"MISCONF", fill_disk}};
    for (const auto &row : rows) {
        row.fill(true);
        RecordingClient late(server.url());
        late.follow_all();
        EXPECT_TRUE(reader.follow(row.word));
        wait_for_echoes(3);
        EXPECT_EQ(reader.get(1), "1:1");
        for (int i = 0; i < 3; ++i) EXPECT_EQ(reader.write(card_of_type(1, 2)), TQ_MOM_E_REFUSED);
        row.fill(false);
        reader.set(1, 1);
        EXPECT_TRUE(late.wait("sub: set 1:1"));
        EXPECT_FALSE(has(reader.told(), "lost"));
        const std::string lines = log.take();
        EXPECT_TRUE(has_lines(lines, 2));
        EXPECT_TRUE(has(lines, ": refused: "s + row.word));
        EXPECT_TRUE(has(lines, is_over));
    }
    for (int i = 0; i < 50; ++i) {
        fill_memory(true);
        EXPECT_EQ(reader.write(card_of_type(1, 1)), TQ_MOM_E_REFUSED);
        fill_memory(false);
        reader.set(1, 1);
    }
    const std::string lines = log.take();
    EXPECT_TRUE(has(lines, is_over));
    EXPECT_LT(std::count(lines.begin(), lines.end(), '\n'), 10) << lines;
}

// One kind that the server does not give holds up only those who want it, and whoever runs the system reads which it is.
TEST_F(ServerInTrouble, ARefusedKindIsHeldAloneAndComesWhenItIsGranted) {
    server.command({"ACL", "SETUSER", "dm", "on", ">pw", "+@all", "~dm:*", "&dm:client:*", "&dm:1:p_dev.card_info*"});
    server.command({"SET", complete_hash, "no hash"});
    RecordingClient reader("redis+unix://dm:pw@" + at + "?probe=300");
    reader.follow_all();
    const Message whole = complete();
    const auto on_message = RecordingClient::on_message;
    const auto scan_held = [&] {
        EXPECT_EQ(tq_mom_scan(reader.handle(), 1, whole.get(), 0, on_message, reader.word("c")), 0);
        EXPECT_TRUE(reader.wait("c: has nothing error -9"));
    };
    EXPECT_EQ(tq_mom_scan_sync(reader.handle(), 1, whole.get(), 0, on_message, nullptr), TQ_MOM_E_REFUSED);
    scan_held();
    ASSERT_EQ(tq_mom_subscribe(reader.handle(), 1, whole.get(), 0, on_message, reader.word("more")), 0);
    ASSERT_TRUE(reader.wait("more: refused -9"));
    server.command({"CONFIG", "RESETSTAT"});
    reader.scan("s");
    ASSERT_TRUE(reader.wait("s: end"));
    EXPECT_EQ(reader.get(1), "nothing error -5");
    reader.set(1, 1);
    ASSERT_TRUE(reader.wait("sub: set 1:1"));
    wait_for_echoes(3);
    EXPECT_EQ(reader.told(), "c: has nothing error -9, more: refused -9, s: end, sub: set 1:1");
    EXPECT_FALSE(has(server.command({"INFO", "commandstats"}), "cmdstat_subscribe"));  // not again and again

    // Nor is a confirmation that waits forgotten with the connection.
    server.lose_feeds();
    EXPECT_TRUE(reader.tells(back + ", more: refused -9"));
    EXPECT_TRUE(log.wait(is_over));
    scan_held();
    reader.told();
    server.command({"ACL", "SETUSER", "dm", "&dm:*"});
    server.command({"DEL", complete_hash});
    EXPECT_TRUE(reader.tells("more: confirmed, c: end"));
    const std::string lines = log.take();
    EXPECT_TRUE(has(lines, complete_hash + " is held: a scan is refused: WRONGTYPE"));
    EXPECT_TRUE(has(lines, complete_hash + " is held: no subscription to " + complete_hash + ": NOPERM"));
    EXPECT_TRUE(has_lines(lines, 6));
}

// What keeps its time may be slow; what is silent must be noticed, without anybody's asking.
TEST_F(ServerInTrouble, SlowIsNotSilent) {
    constexpr milliseconds probe(800);
    const auto slowly = [](milliseconds each) { return [each](std::string &, int) { return pass(each), true; }; };
    {
        proxy.bend(Roads::to_come, slowly(probe * 4 / 10));
        RecordingClient reader(url(800));
        reader.follow_all();
        wait_for_echoes(8);
        EXPECT_EQ(reader.told() + log.take(), "");
        proxy.bend(Roads::to_come, {});
    }
    RecordingClient reader(url(800));
    reader.follow_all();

    // An answer that takes three probe times, and comes all the while.
    EXPECT_EQ(reader.write(card_of_type(1, 1).set("name", std::string(1'500'000, 'n'))), 0);
    proxy.bend(Roads::commands, slowly(milliseconds(100)));
    EXPECT_EQ(reader.scan_sync(), Lines{"has 1:1"});
    proxy.bend(Roads::commands, {});
    wait_for_echoes(5);
    EXPECT_EQ(reader.told() + log.take(), "sub: set 1:1");

    for (const auto road : {Roads::feeds, Roads::commands}) {
        const auto begin = Clock::now();
        proxy.bend(road, instead(""));
        ASSERT_TRUE(reader.wait("lost"));
        EXPECT_LT(Clock::now() - begin, probe * 6);
        expect_back(reader, "");
    }

    // A callback that holds up the loop for longer than that is no silence of the server's.
    const auto go_on = reader.hold("sub");
    reader.set(2, 2);
    ASSERT_TRUE(reader.wait("sub: set 2:2"));
    EXPECT_EQ(tq_mom_client_drain(reader.handle(), 1200), TQ_MOM_E_TIMEOUT);
    go_on();
    EXPECT_EQ(tq_mom_client_drain(reader.handle(), 20000), 0);
    EXPECT_EQ(reader.told() + log.take(), "sub: set 2:2");
}

// What nobody hears at a replica would fill the link to it, and it would need a full copy after each short absence.
TEST_F(ServerInTrouble, ReadingCostsAReplicaNothing) {
    const RedisServer standby;
    RecordingClient reader(url(300));
    reader.follow_all();
    for (int i = 0; i < 300; ++i) reader.set(i, i);
    server.listen_on_loopback();
    standby.replicate(server);
    const long before = server.number("master_repl_offset:");
    for (int i = 0; i < 3; ++i) {
        reader.scanned();
        wait_for_echoes(2);
    }
    EXPECT_LT(server.number("master_repl_offset:") - before, 100);  // the server's own pings
    reader.set(1, 7);
    reader.del(2);
    const auto content = [](const RedisServer &of) { return of.command({"DEBUG", "DIGEST-VALUE", hash}); };
    EXPECT_TRUE(wait_until([&] { return content(standby) == content(server); }));
}

// A server that has gone mad, or another program at its address: nothing it says is taken for an answer, no memory for what it
// only announces, and nobody waits for it without an end. What cannot be understood may have been a change: passing over it
// would leave the reader wrong for good.
TEST_F(ServerInTrouble, NonsenseIsNotBelieved) {
    const auto answers = [&](const std::string &bytes) {
        return [&, bytes](RecordingClient &reader) {
            proxy.bend(Roads::commands, instead(bytes));
            EXPECT_EQ(read_error(reader), TQ_MOM_E_UNREACHABLE);
        };
    };
    const auto sends = [&](Roads road, const std::string &bytes, milliseconds pause = {}) {
        return [&, road, bytes, pause](RecordingClient &) {
            wait_for_echoes(3);
            proxy.bend(road, instead(bytes, pause));
        };
    };
    const auto pushes = [&](const std::string &bytes) { return sends(Roads::feeds, bytes); };
    const auto publishes = [&](const std::string &frame) {
        return [&, frame](RecordingClient &) { server.command({"PUBLISH", hash, frame}); };
    };
    const std::string huge = "*2000000000\r\n", other = "answers something else", much = "announces more";
    const std::string damaged = "what came by " + hash + ": a damaged frame";
    const struct {
        std::function<void(RecordingClient &)> act;
        std::string words;
    } rows[] = {
        {answers(":5\r\n"), other},
        {answers("*1\r\n$1\r\nx\r\n"), other},
        {answers(huge), much},
        {answers("*2\r\n*3999999\r\n*3999999\r\n"), much},
        {answers("$5\r\nno\r\n"), "no answer"},
        {sends(Roads::commands, "-\x1b[2J\r\n"), "\\x1b[2J"},
        {sends(Roads::commands, "$-1\r\n:5\r\n"), other},  // one more than was asked for
        {pushes(huge), much},
        {pushes("+what\r\n"), other},
        {pushes("*3\r\n:1\r\n:1\r\n:1\r\n"), other},
        {pushes("*3\r\n$9\r\nsubscribe\r\n$1\r\nx\r\n:1\r\n"), other},
        {pushes("*2\r\n$7\r\nmessage\r\n$1\r\nx\r\n"), other},
        {sends(Roads::feeds, endless, milliseconds(20)), "echoes do not come"},
        {publishes("S\x01"), damaged},
        {publishes(""), damaged},
        {publishes("X"), damaged},
        {publishes("S\0\0\0\1k\0\0"s), damaged},
        {publishes("S\0\0\0\1k"s), damaged},
        {publishes("D\0\0\0\5k"s), damaged},
        {publishes("M\0\0"s), damaged},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.words + " " + std::to_string(&row - rows));
        RecordingClient reader(url(600));
        reader.follow_all();
        row.act(reader);
        expect_back(reader, row.words);
    }

    RecordingClient reader(url(200));
    reader.follow_all();

    // Nobody calls, and an answer that nobody waits for does not end.
    proxy.bend(Roads::commands, [begun = false](std::string &answer, int) mutable {
        answer = std::exchange(begun, true) ? "x" : endless;
        return true;
    });
    EXPECT_TRUE(reader.wait("reconnect 3 1"));

    // Opened, called and closed with a byte now and then. Its echoes are far between: what is answered is the call.
    reader.close();
    RecordingClient caller(url(60000));
    std::promise<void> called;
    proxy.bend(Roads::commands, [&, trickle = instead(endless, milliseconds(20))](std::string &answer, int client) {
        called.set_value();
        return trickle(answer, client);
    });
    auto call = std::async(std::launch::async, [&] { return read_error(caller); });
    called.get_future().wait();
    const auto begin = Clock::now();
    caller.close();
    EXPECT_EQ(call.get(), TQ_MOM_E_UNREACHABLE);
    EXPECT_LT(Clock::now() - begin, milliseconds(2000));
    proxy.bend(Roads::to_come, instead(endless, milliseconds(20)));
    tq_mom_handle *handle = nullptr;
    EXPECT_EQ(tq_mom_client_open(url(200).c_str(), &handle), TQ_MOM_E_UNREACHABLE);
    EXPECT_LT(Clock::now() - begin, milliseconds(6000));
}

// Whoever writes in bulk goes on where it was told: a number too high loses objects.
TEST_F(ServerInTrouble, ABulkWriteThatIsCutOffSaysWhatWasNotTaken) {
    RecordingClient writer(url(20000));
    std::vector<Message> cards;
    std::vector<tq_mom_write> writes;
    for (int i = 0; i < 4; ++i) writes.push_back({1, cards.emplace_back(card_of_type(i, i)).get()});
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
    const RedisServer other;
    RecordingClient writer(server.url());
    RecordingClient *reader = nullptr;
    std::future<int32_t> call;
    const auto once_called = [&](const std::string &command, const auto &act) {
        const long before = server.calls_of(command);
        act();
        EXPECT_TRUE(wait_until([&] { return server.calls_of(command) > before; }));
    };
    const auto call_and_wait_for_the_answer = [&] {
        proxy.hold_up(Roads::commands, Way::back);
        once_called("hget", [&] {
            call = std::async(std::launch::async, [&] {
                return tq_mom_tq_obj_free(tq_mom_get_sync(reader->handle(), 1, card(1, 1, 0).get(), nullptr));
            });
        });
    };
    const auto lose_and_scan_again = [&](int32_t type) {
        proxy.cut();
        EXPECT_TRUE(reader->wait("lost"));
        proxy.let_in();
        EXPECT_TRUE(reader->wait("reconnect 3 1"));
        writer.set(1, type);
        reader->scan("s");
    };
    const struct {
        const char *what;
        int probe_ms;
        std::string told, said;
        std::function<void()> act;
    } rows[] = {
        {"a scan before its subscription stands", 3000, "sub: confirmed, s: has 1:1, s: end", "",
         [&] {
             proxy.hold_up(Roads::feeds, Way::there);
             reader->subscribe("sub");
             reader->scan("s");
             reader->get(1);  // goes behind what the scan has sent
             writer.set(1, 1);
             proxy.go_on();
         }},
        {"a change behind a page that is late", 3000, "sub: confirmed, s: has 1:1, s: end, sub: set 1:2", "",
         [&] {
             EXPECT_TRUE(reader->follow("sub"));
             proxy.hold_up(Roads::commands, Way::back);
             once_called("hscan", [&] { reader->scan("s"); });
             writer.set(1, 2);
             proxy.go_on();
         }},
        {"the mark of a scan that is over", 3000,
         "sub: confirmed, r: has 1:2, r: end, sub: set 1:3, s: has 1:3, s: end", "",
         [&] {
             EXPECT_TRUE(reader->follow("sub"));
             reader->scan("r");
             EXPECT_TRUE(reader->wait("r: end"));
             proxy.hold_up(Roads::commands, Way::there);
             reader->scan("s");
             const std::string channels = server.command({"PUBSUB", "CHANNELS", "dm:client:*"});
             std::istringstream names(channels.substr(1, channels.size() - 2));
             for (std::string name; names >> name;) server.command({"PUBLISH", name, "M\0\0\0\0011"s});
             writer.set(1, 3);
             proxy.go_on();
         }},
        {"a page that is never told of", 500, back, "echoes, and a request has no answer",
         [&] {
             proxy.bend(Roads::feeds, [](std::string &bytes, int) {
                 if (bytes.find("\nM") != std::string::npos) bytes.clear();
                 return true;
             });
             reader->scan("s");
         }},
        {"a confirmation that never comes", 500, "lost, connected 1, sub: confirmed, reconnect 1 1, reconnect 3 1",
         "echoes, and a request has no answer",
         [&] {
             proxy.drop_fences(1);
             reader->subscribe("sub");
         }},
        {"a scan that waits behind a call goes with it", 60000, "s: has 1:3, s: end", "",
         [&] {
             call_and_wait_for_the_answer();
             reader->scan("s");
             proxy.go_on();
         }},
        {"a scan that waits behind a call is lost with it", 3000, back + ", s: has 1:4, s: end", "",
         [&] {
             call_and_wait_for_the_answer();
             reader->scan("void");
             lose_and_scan_again(4);
         }},
        {"a page whose mark is lost", 3000, back + ", s: has 1:5, s: end", "",
         [&] {
             proxy.hold_up(Roads::feeds, Way::back);
             reader->scan("void");
             EXPECT_EQ(reader->get(1), "1:4");  // comes behind the page
             lose_and_scan_again(5);
         }},
        {"an address that leads to another server between the two connections", 300, back,
         "the address leads to two servers",
         [&] {
             proxy.cut();
             EXPECT_TRUE(reader->wait("lost"));
             proxy.lead_to({server.socket(), other.socket(), server.socket()});
             proxy.let_in();
         }},
        {"a server that trickles while a client connects", 300, back, "no answer",
         [&] {
             proxy.cut();
             proxy.bend(Roads::to_come, instead("$", milliseconds(20)));
             proxy.let_in();
             EXPECT_TRUE(log.wait("no answer"));
             proxy.bend(Roads::to_come, {});
         }},
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
        EXPECT_TRUE(client.tells(row.told));
        if (call.valid()) call.get();
        EXPECT_LT(Clock::now() - begin, std::chrono::seconds(10));  // a tick of the one that waits long takes 12
        const std::string said = log.take();
        EXPECT_TRUE(has(said, row.said));
        EXPECT_FALSE(has(said, "something else"));
    }
}

// What a client has given up, or did not live to see, must not undo what is written after it.
TEST_F(ServerInTrouble, AWriteThatWasGivenUpDoesNotLand) {
    const std::string tcp = "redis://127.0.0.1:" + std::to_string(server.listen_on_loopback()) + "?probe=1000";
    const Message large = card_of_type(1, 1).set("name", std::string(2000000, 'n'));  // more than waits at the server
    RecordingClient writer(tcp);
    writer.follow_connection();
    writer.set(1, 7);  // the server knows the script
    const auto expect_untouched = [&] {
        server.freeze(false);
        EXPECT_TRUE(wait_until([&] {
            const std::string now = server.command({"CLIENT", "LIST"});
            return std::count(now.begin(), now.end(), '\n') == 3;  // the two of the writer's, and this one
        }));
        EXPECT_EQ(writer.get(1), "1:7");
        writer.told();
    };
#ifndef __SANITIZE_THREAD__  // under which a child can start no threads
    const auto die = [&] {
        RecordingClient dying(tcp);
        server.freeze(true);
        std::thread([&] { dying.write(large); }).detach();
        pass(milliseconds(100));  // nobody can tell how much is on its way
        raise(SIGKILL);
    };
    EXPECT_EXIT(die(), testing::KilledBySignal(SIGKILL), "");
    expect_untouched();
#endif
    server.freeze(true);
    EXPECT_EQ(writer.write(large), TQ_MOM_E_UNREACHABLE);
    EXPECT_TRUE(writer.wait("lost"));
    server.freeze(false);
    ASSERT_TRUE(writer.wait("reconnect 3 1"));
    expect_untouched();
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

}  // namespace
