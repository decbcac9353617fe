// What only a store on a server has: credentials, permissions, limits, pages, writes in bulk. Each test has a server of its
// own and waits for what its client is told.
#include <cstdlib>
#include <future>
#include <sstream>

#include "platform/redis_wire.h"
#include "tests/platform/recording_client.h"
#include "tests/platform/redis_server.h"

namespace {

const std::string hash = "dm:1:p_dev.card_info";

class RedisStore : public testing::Test {
protected:
    RedisServer server;
    const std::string url = server.url() + "?probe=1500";
    StandardError log;

    static int32_t set(RecordingClient &client, const Message &object) {
        return tq_mom_set(client.handle(), 1, object.get(), 0, 0);
    }

    static std::string scanned(RecordingClient &reader) {
        reader.told();
        reader.scan("s");
        EXPECT_TRUE(reader.wait("s: end"));
        return reader.told();
    }

    static void follow(RecordingClient &reader) {
        reader.follow_connection();
        ASSERT_TRUE(reader.follow("sub"));
        EXPECT_EQ(reader.told(), "connected 0, sub: confirmed");
    }
};

// Whoever reads a log must not learn the password, and whoever mistyped it must learn just that.
TEST_F(RedisStore, RefusedOrWrongIsOneClearMessageWithoutTheSecret) {
    const std::string socket = server.socket(), secret = "s3cr/t";
    server.command({"CONFIG", "SET", "requirepass", secret});
    const struct {
        std::string url;
        int32_t code;
        const char *words;
    } rows[] = {
        {"redis+unix://" + socket, TQ_MOM_E_DENIED, "refuses the credentials (NOAUTH)"},
        {"redis+unix://:s3cr@" + socket, TQ_MOM_E_DENIED, "refuses the credentials (WRONGPASS)"},
        {"redis+unix://tom:s3cr%2ft@" + socket, TQ_MOM_E_DENIED, "tom:@"},
        {"redis+unix://:s3cr%2ft@" + socket + ".none", TQ_MOM_E_UNREACHABLE, "No such file"},
    };
    tq_mom_handle *handle = nullptr;
    for (const auto &row : rows) {
        EXPECT_EQ(tq_mom_client_open(row.url.c_str(), &handle), row.code) << row.url;
        const std::string said = log.take();
        EXPECT_NE(said.find(row.words), std::string::npos) << said;
        EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
        EXPECT_EQ(said.find("s3cr"), std::string::npos) << said;
    }

    setenv("TQ_STORE_PASSWORD", secret.c_str(), 1);
    RecordingClient(server.url()).set(1, 1);
    unsetenv("TQ_STORE_PASSWORD");
    RecordingClient reader("redis+unix://default:s3cr%2Ft@" + socket);
    follow(reader);
    server.command({"ACL", "LOG", "RESET"}, secret);
    server.command({"CONFIG", "SET", "requirepass", "another"}, secret);
    server.command({"CLIENT", "KILL", "TYPE", "pubsub"}, "another");
    ASSERT_TRUE(reader.wait("lost"));
    ASSERT_TRUE(wait_until([&] {
        return server.command({"ACL", "LOG", "1"}, "another") != "[]";
    }));  // it has tried again
    server.command({"CONFIG", "SET", "requirepass", secret}, "another");
    EXPECT_TRUE(reader.wait("reconnect 3 1"));
    const std::string said = log.take();
    EXPECT_NE(said.find("refuses the credentials (WRONGPASS)"), std::string::npos) << said;
    EXPECT_EQ(said.find("s3cr"), std::string::npos) << said;
    EXPECT_LT(std::count(said.begin(), said.end(), '\n'), 8) << said;
}

// Who runs the server wants to give no more rights than needed; the header says which these are.
TEST_F(RedisStore, TheStatedPermissionsSuffice) {
    std::vector<std::string> user = {"ACL", "SETUSER", "dm", "on", ">pw", "~dm:*", "&dm:*", "-@all"};
    for (const char *name : {"auth", "eval", "exec", "hget", "hgetall", "hscan", "hset", "hdel", "info", "multi",
                             "publish", "pubsub", "subscribe", "unsubscribe"}) {
        user.push_back(std::string("+") + name);
    }
    EXPECT_EQ(server.command(user), "OK");
    RecordingClient client("redis+unix://dm:pw@" + server.socket() + "?probe=500");
    follow(client);
    client.set(1, 2);
    client.scan("s");
    ASSERT_TRUE(client.wait("s: end"));
    EXPECT_EQ(client.get(1) + ", " + join(client.scan_sync()), "1:2, has 1:2");
    client.del(1);
    ASSERT_TRUE(client.wait("sub: deleted 1:0"));

    // A change that nobody may be told of is none: else every reader keeps the old picture.
    client.set(1, 3);
    const Message three = card_of_type(1, 3);
    server.command({"ACL", "SETUSER", "writer", "on", ">pw", "~dm:*", "&dm:client:*", "+@all"});
    RecordingClient writer("redis+unix://writer:pw@" + server.socket());
    EXPECT_EQ(set(writer, card_of_type(1, 4)), TQ_MOM_E_REFUSED);
    EXPECT_EQ(tq_mom_replace(writer.handle(), 1, three.get(), nullptr), TQ_MOM_E_REFUSED);
    EXPECT_EQ(tq_mom_del(writer.handle(), 1, three.get()), TQ_MOM_E_REFUSED);
    EXPECT_EQ(client.get(1), "1:3");
    server.command({"ACL", "SETUSER", "dm", "-hset"});
    EXPECT_EQ(set(client, card_of_type(1, 1)), TQ_MOM_E_REFUSED);
    server.command({"ACL", "SETUSER", "dm", "-info"});  // what an echo needs: it is missed
    EXPECT_TRUE(client.wait("lost"));
    EXPECT_NE(log.take().find("can't run this command"), std::string::npos);
}

// A reader that stops for a while is cut off by the server. It must find out, and have everything afterwards.
TEST_F(RedisStore, ASlowReaderIsCutOffAndCatchesUp) {
    server.command({"CONFIG", "SET", "client-output-buffer-limit", "pubsub 1mb 0 0"});
    RecordingClient reader(url), writer(url);
    std::promise<void> go_on;
    reader.word("sub")->then = [&, held = false](const store_msg &msg) mutable {
        if (msg.cmd == TQ_MOM_CMD_SET && !std::exchange(held, true)) go_on.get_future().wait();
    };
    follow(reader);
    const auto readers = [&] {
        return server.command({"EVAL", "return redis.call('PUBSUB', 'NUMSUB', '" + hash + "')[2]", "0"});
    };
    for (int i = 0; readers() == "1"; ++i) {
        EXPECT_EQ(set(writer, card_of_type(i % 16, i).set("name", std::string(50'000, 'n'))), 0);
    }
    writer.del(3);
    go_on.set_value();
    EXPECT_TRUE(reader.wait("reconnect 3 1"));
    const std::string told = scanned(reader);
    for (const std::string &line : writer.scan_sync())
        EXPECT_NE(told.find("s: " + line + ","), std::string::npos) << line;
    EXPECT_EQ(told.find("s: has 3:"), std::string::npos);  // deleted while the reader was away
    EXPECT_NE(log.take().find("closed the connection"), std::string::npos);
}

// A page above a server's limit for a client cuts off whoever scans. So would one that came by the subscriber's connection,
// whose limit is the smaller one. Whoever was cut off asks for less, or would be cut off for ever.
TEST_F(RedisStore, PagesOfABigKindStaySmallAndCarryEverything) {
    RecordingClient reader(url);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(set(reader, card_of_type(i, i).set("name", std::string(5000, 'n'))), 0);
    }
    follow(reader);
    for (const std::string limit : {"1mb", "200kb"}) {
        server.command({"CONFIG", "SET", "client-output-buffer-limit", "normal " + limit + " 0 0 pubsub 64kb 0 0"});
        if (limit == "200kb") {
            reader.scan("s");
            ASSERT_TRUE(reader.wait("reconnect 3 1"));
        }
        const std::string told = scanned(reader);
        EXPECT_EQ(told.find("lost"), std::string::npos);
        for (int i = 0; i < 1000; ++i) {
            const std::string line = "s: has " + std::to_string(i) + ":" + std::to_string(i) + ",";
            EXPECT_NE(told.find(line), std::string::npos) << line;
        }
    }
    EXPECT_NE(log.take().find("closed the connection"), std::string::npos);
}

// A change between a page's moment and its delivery comes after the page, one from before it comes before: a page that is
// late must not bring back what was deleted, nor undo what was set. The page is held up on the command connection, and the
// feed has what came meanwhile.
TEST_F(RedisStore, APageHasItsPlaceAmongTheChanges) {
    server.command({"CONFIG", "SET", "hash-max-listpack-entries", "0"});
    RecordingClient writer(url);
    for (int i = 0; i < 300; ++i) writer.set(i, 1);
    for (int round = 0; round < 20; round++) {
        RecordingClient reader(url);
        ASSERT_TRUE(reader.follow("sub"));
        std::atomic<bool> stop = false;
        std::thread changes([&] {
            for (int i = 0; !stop; ++i) {
                writer.set(i % 300, 2 + i);
                tq_mom_del(writer.handle(), 1, card(1, (i + 7) % 300, 0).get());
                writer.set(300 + i % 50, i);
            }
        });
        reader.scan("s");
        EXPECT_TRUE(reader.wait("s: end"));
        stop = true;
        changes.join();
        reader.set(999, 1);
        ASSERT_TRUE(reader.wait("sub: set 999:1"));

        // What was told last of each object is what the store has.
        EXPECT_EQ(picture(reader.told()), picture(join(writer.scan_sync())));
    }
}

// Objects sent in bulk arrive as if they were set one by one, and what the server refuses is told by its number.
TEST_F(RedisStore, SetsManyAndSaysWhichWasRefused) {
    RecordingClient client(url);
    follow(client);
    std::vector<Message> cards;
    std::vector<tq_mom_write> writes;
    for (int i = 0; i < 1000; ++i) cards.push_back(card_of_type(i, i));
    for (const Message &card : cards) writes.push_back({1, card.get()});
    uint32_t taken = 0, refused = 0;
    const auto set_all = [&] {
        return tq_mom_set_many(client.handle(), writes.data(), static_cast<uint32_t>(writes.size()), &taken, &refused);
    };
    EXPECT_EQ(set_all(), 0);
    EXPECT_EQ(taken, 1000u);
    EXPECT_EQ(refused, 1000u);
    ASSERT_TRUE(client.wait("sub: set 999:999"));
    EXPECT_EQ(client.scan_sync().size(), 1000u);

    // The script is forgotten on the way, and known by its hash again.
    server.command({"SCRIPT", "FLUSH"});
    EXPECT_EQ(set_all(), 0);
    EXPECT_EQ(taken, 1000u);
    EXPECT_EQ(server.command({"SCRIPT", "EXISTS", std::string(tq::write_script.hash)}), "[1]");
    client.del(0);
    EXPECT_EQ(server.command({"SCRIPT", "EXISTS", std::string(tq::erase_script.hash)}), "[1]");

    // One that is too large for the server is refused, and what stands before it is taken.
    cards[500] = card_of_type(500, 1).set("name", std::string(3'000'000, 'n'));
    writes[500].obj = cards[500].get();
    const std::string info = server.command({"INFO", "memory"});
    const size_t used = std::stoul(info.substr(info.find("used_memory:") + 12));
    server.command({"CONFIG", "SET", "maxmemory", std::to_string(used + 1'500'000)});
    EXPECT_EQ(set_all(), TQ_MOM_E_REFUSED);
    EXPECT_EQ(refused, 500u);
    EXPECT_EQ(taken, 500u);

    const tq_mom_write without_object[] = {{1, cards[0].get()}, {1, nullptr}};
    EXPECT_EQ(tq_mom_set_many(client.handle(), without_object, 2, &taken, &refused), TQ_MOM_E_ARGUMENT);
    EXPECT_EQ(taken, 0u);
    EXPECT_EQ(refused, 1u);
    EXPECT_EQ(tq_mom_set_many(client.handle(), nullptr, 1, nullptr, nullptr), TQ_MOM_E_ARGUMENT);
    EXPECT_EQ(tq_mom_set_many(client.handle(), nullptr, 0, &taken, nullptr), 0);
}

}  // namespace
