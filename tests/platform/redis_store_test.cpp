// What only a store on a server has: credentials, permissions, limits, pages, writes in bulk. Each test has its own server.
#include "platform/redis_wire.h"
#include "tests/platform/recording_client.h"
#include "tests/platform/redis_server.h"

namespace {

class RedisStore : public testing::Test {
protected:
    RedisServer server;
    StandardError log;

    std::string as(const std::string &credentials) const {
        return "redis+unix://" + credentials + "@" + server.socket();
    }
};

// Whoever reads a log must not learn the password, and whoever mistyped it must learn just that.
TEST_F(RedisStore, RefusedOrWrongIsOneClearMessageWithoutTheSecret) {
    const std::string secret = "s3cr/t";
    const RedisServer cluster{{"--cluster-enabled", "yes"}};
    server.command({"CONFIG", "SET", "requirepass", secret});
    const struct {
        std::string url;
        int32_t code;
        const char *words;
    } rows[] = {
        {server.url(), TQ_MOM_E_DENIED, "refuses the credentials (NOAUTH)"},
        {as(":s3cr"), TQ_MOM_E_DENIED, "refuses the credentials (WRONGPASS)"},
        {as("tom:s3cr%2ft"), TQ_MOM_E_DENIED, "tom:@"},
        {as(":s3cr%2ft") + ".none", TQ_MOM_E_UNREACHABLE, "No such file"},
        {cluster.url(), TQ_MOM_E_REFUSED, "part of a cluster"},
    };
    tq_mom_handle *handle = nullptr;
    for (const auto &row : rows) {
        EXPECT_EQ(tq_mom_client_open(row.url.c_str(), &handle), row.code) << row.url;
        const std::string said = log.take();
        EXPECT_TRUE(has(said, row.words));
        EXPECT_TRUE(has_lines(said, 1));
        EXPECT_FALSE(has(said, "s3cr"));
    }

    setenv("TQ_STORE_PASSWORD", secret.c_str(), 1);
    RecordingClient(server.url()).set(1, 1);
    unsetenv("TQ_STORE_PASSWORD");
    RecordingClient reader(as("default:s3cr%2Ft"));
    reader.follow_all();
    server.command({"CONFIG", "SET", "requirepass", "another"}, secret);
    server.command({"CLIENT", "KILL", "TYPE", "pubsub"}, "another");
    ASSERT_TRUE(reader.wait("lost"));
    EXPECT_TRUE(log.wait("refuses the credentials (WRONGPASS)"));
    server.command({"CONFIG", "SET", "requirepass", secret}, "another");
    EXPECT_TRUE(reader.wait("reconnect 3 1"));
    const std::string said = log.take();
    EXPECT_FALSE(has(said, "s3cr"));
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
    RecordingClient client(as("dm:pw") + "?probe=500");
    client.follow_all();
    EXPECT_EQ(tq_mom_client_set_name(client.handle(), "cards"), 0);  // refused, and no trouble
    EXPECT_EQ(tq_mom_store_clients(
                  client.handle(), [](const tq_mom_store_client *, void *) {}, nullptr),
              TQ_MOM_E_REFUSED);
    client.set(1, 2);
    ASSERT_TRUE(client.wait("sub: set 1:2"));
    EXPECT_EQ(client.scanned(), "s: end, s: has 1:2");
    EXPECT_EQ(client.get(1) + ", " + join(client.scan_sync()), "1:2, has 1:2");
    client.del(1);
    ASSERT_TRUE(client.wait("sub: deleted 1:0"));

    // A change that nobody may be told of is none: else every reader keeps the old picture.
    client.set(1, 3);
    const Message three = card_of_type(1, 3);
    server.command({"ACL", "SETUSER", "writer", "on", ">pw", "~dm:*", "&dm:client:*", "+@all"});
    RecordingClient writer(as("writer:pw"));
    EXPECT_EQ(writer.write(card_of_type(1, 4)), TQ_MOM_E_REFUSED);
    EXPECT_EQ(tq_mom_replace(writer.handle(), 1, three.get(), nullptr), TQ_MOM_E_REFUSED);
    EXPECT_EQ(tq_mom_del(writer.handle(), 1, three.get()), TQ_MOM_E_REFUSED);
    EXPECT_EQ(client.get(1), "1:3");
    server.command({"ACL", "SETUSER", "dm", "-hset"});
    EXPECT_EQ(client.write(three), TQ_MOM_E_REFUSED);
    server.command({"ACL", "SETUSER", "dm", "-info"});  // what an echo needs: it is missed
    EXPECT_TRUE(client.wait("lost"));
    EXPECT_TRUE(has(log.take(), "can't run this command"));
}

// Who holds a server up is found by the name, which is no help when it is lost with a connection.
TEST_F(RedisStore, KnowsItsClientsByTheirNames) {
    RecordingClient client(server.url());
    EXPECT_EQ(tq_mom_client_set_name(client.handle(), "a card\n/1"), 0);
    const auto connected = [&] {
        std::string names;
        const auto add = [](const tq_mom_store_client *one, void *word) {
            static_cast<std::string *>(word)->append(one->name).append(" ");
        };
        EXPECT_EQ(tq_mom_store_clients(client.handle(), add, &names), 0);
        return names;
    };
    EXPECT_EQ(connected(), "a_card__1 ");
    client.follow_all();
    server.lose_feeds();
    ASSERT_TRUE(client.wait("reconnect 3 1"));
    const std::string list = server.command({"CLIENT", "LIST"});
    EXPECT_TRUE(has(list.substr(list.find("name=a_card__1") + 1), "name=a_card__1")) << list;
    EXPECT_EQ(connected(), "a_card__1 ");
}

// A page above a server's limit for a client cuts off whoever scans. So would one that came by the subscriber's connection,
// whose limit is the smaller one. Whoever was cut off asks for less, or would be cut off for ever.
TEST_F(RedisStore, PagesOfABigKindStaySmallAndCarryEverything) {
    RecordingClient reader(server.url() + "?probe=1500");
    std::map<int, int> all;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(reader.write(card_of_type(i, i).set("name", std::string(5000, 'n'))), 0);
        all[i] = i;
    }
    reader.follow_all();
    for (const std::string limit : {"1mb", "200kb"}) {
        server.command({"CONFIG", "SET", "client-output-buffer-limit", "normal " + limit + " 0 0 pubsub 64kb 0 0"});
        if (limit == "200kb") {
            reader.scan("s");
            ASSERT_TRUE(reader.wait("reconnect 3 1"));
        }
        const std::string told = reader.scanned();
        EXPECT_FALSE(has(told, "lost"));
        EXPECT_EQ(picture(told), all);
    }
    EXPECT_TRUE(has(log.take(), "closed the connection"));
}

// Objects sent in bulk arrive as if they were set one by one, and what the server refuses is told by its number.
TEST_F(RedisStore, SetsManyAndSaysWhichWasRefused) {
    RecordingClient client(server.url() + "?probe=1500");
    client.follow_all();
    std::vector<Message> cards;
    std::vector<tq_mom_write> writes;
    for (int i = 0; i < 1000; ++i) cards.push_back(card_of_type(i, i));
    for (const Message &card : cards) writes.push_back({1, card.get()});
    const auto expect_set = [&](int32_t code, uint32_t most_taken, uint32_t first_refused) {
        uint32_t taken = 0, refused = 0;
        EXPECT_EQ(tq_mom_set_many(client.handle(), writes.data(), 1000, &taken, &refused), code);
        EXPECT_EQ(taken, most_taken);
        EXPECT_EQ(refused, first_refused);
    };
    expect_set(0, 1000, 1000);
    ASSERT_TRUE(client.wait("sub: set 999:999"));
    EXPECT_EQ(client.scan_sync().size(), 1000u);

    // The script is forgotten on the way, and known by its hash again.
    server.command({"SCRIPT", "FLUSH"});
    expect_set(0, 1000, 1000);
    EXPECT_EQ(server.command({"SCRIPT", "EXISTS", std::string(tq::write_script.hash)}), "[1]");
    client.del(0);
    EXPECT_EQ(server.command({"SCRIPT", "EXISTS", std::string(tq::erase_script.hash)}), "[1]");

    // One that is too large for the server is refused, and what stands before it is taken.
    cards[500] = card_of_type(500, 1).set("name", std::string(3'000'000, 'n'));
    writes[500].obj = cards[500].get();
    const long limit = server.number("used_memory:") + 1'500'000;
    server.command({"CONFIG", "SET", "maxmemory", std::to_string(limit)});
    expect_set(TQ_MOM_E_REFUSED, 500, 500);
    writes[1].obj = nullptr;
    expect_set(TQ_MOM_E_ARGUMENT, 0, 1);
    EXPECT_EQ(tq_mom_set_many(client.handle(), nullptr, 1, nullptr, nullptr), TQ_MOM_E_ARGUMENT);
    EXPECT_EQ(tq_mom_set_many(client.handle(), nullptr, 0, nullptr, nullptr), 0);
}

}  // namespace
