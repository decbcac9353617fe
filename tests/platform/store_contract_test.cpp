// What every store promises its clients, run over each store. A test waits for a push or an end mark of its own making:
// the store's one order says that everything before it has come.
#include <malloc.h>
#include <sys/resource.h>
#include <thread>

#include "tests/platform/recording_client.h"

namespace {

class StoreContract : public testing::TestWithParam<StoreUnderTest> {
protected:
    const StoreUnderTest &faults = GetParam();
    const std::string url = GetParam().new_store();
    RecordingClient writer{url};
    RecordingClient reader{url};

    void disconnect() { EXPECT_EQ(faults.disconnect(reader.handle()), 0); }
    void reconnect() { EXPECT_EQ(faults.reconnect(reader.handle()), 0); }

    void put_bytes(int32_t slot, const std::string &bytes) {
        const auto *data = reinterpret_cast<const uint8_t *>(bytes.data());
        const auto size = static_cast<uint32_t>(bytes.size());
        EXPECT_EQ(faults.put_bytes(writer.handle(), 1, card(1, slot, 0).get(), data, size), 0);
    }
};

INSTANTIATE_TEST_SUITE_P(Stores, StoreContract, testing::ValuesIn(stores_under_test()),
                         [](const auto &store) { return store.param.name; });

// A reader whose pushes come out of order, or of other databases and kinds, shows a device tree that never was.
TEST_P(StoreContract, PushesAndScansAreOneOrder) {
    ASSERT_TRUE(reader.follow("sub"));
    writer.set(3, 645);
    writer.set(9, 1, /*db=*/3);
    EXPECT_EQ(writer.write(complete()), 0);
    writer.set(4, 7);
    writer.set(3, 646);
    writer.del(4);
    EXPECT_EQ(tq_mom_del(writer.handle(), 1, card(1, 4, 0).get()), TQ_MOM_E_NOT_FOUND);
    writer.set(5, 1);
    ASSERT_TRUE(
        reader.tells("sub: confirmed, sub: set 3:645, sub: set 4:7, sub: set 3:646, sub: deleted 4:0, sub: set 5:1"));
    EXPECT_EQ(reader.scanned(), "s: end, s: has 3:646, s: has 5:1");

    writer.del(3);
    writer.del(5);
    EXPECT_TRUE(reader.wait("sub: deleted 5:0"));
    EXPECT_EQ(reader.scanned(), "s: end");  // a scan of nothing ends too
    EXPECT_EQ(writer.get(3), "nothing error -5");
}

// Two writers that read, change and write at the same time: the one that comes second must be told, or a change is lost.
TEST_P(StoreContract, AReplacementNeedsWhatWasRead) {
    ASSERT_TRUE(reader.follow("sub"));
    const Message first = card_of_type(1, 1), second = card_of_type(1, 2), elsewhere = card_of_type(2, 1);
    const struct {
        const ProtobufCMessage *before, *after;
        int32_t code;
    } rows[] = {
        {first.get(), second.get(), TQ_MOM_E_CHANGED},  // none there yet
        {nullptr, first.get(), 0},
        {nullptr, second.get(), TQ_MOM_E_CHANGED},
        {second.get(), first.get(), TQ_MOM_E_CHANGED},
        {first.get(), second.get(), 0},
        {first.get(), nullptr, TQ_MOM_E_CHANGED},
        {second.get(), nullptr, 0},
        {second.get(), nullptr, TQ_MOM_E_CHANGED},
        {first.get(), elsewhere.get(), TQ_MOM_E_ARGUMENT},
        {nullptr, nullptr, TQ_MOM_E_ARGUMENT},
    };
    for (const auto &row : rows)
        EXPECT_EQ(tq_mom_replace(writer.handle(), 1, row.before, row.after), row.code) << &row - rows;

    // Bytes that this library would not write so: the last of two values holds.
    const Message read = card_of_type(3, 4);
    put_bytes(3, packed(card_of_type(3, 5).get()) + packed(read.get()));
    EXPECT_EQ(tq_mom_replace(writer.handle(), 1, read.get(), card_of_type(3, 6).get()), 0);
    ASSERT_TRUE(
        reader.tells("sub: confirmed, sub: set 1:1, sub: set 1:2, sub: deleted 1:0, sub: set 3:4, sub: set 3:6"));
}

// A cache that subscribes again after a reconnect would apply every change twice, or wait for ever.
TEST_P(StoreContract, ARepeatedSubscriptionIsConfirmedAndDoublesNothing) {
    for (const char *name : {"a", "a", "b"}) reader.subscribe(name);
    ASSERT_TRUE(reader.wait("b: confirmed"));
    writer.set(1, 1);
    ASSERT_TRUE(reader.tells("a: confirmed, a: confirmed, b: confirmed, a: set 1:1, b: set 1:1"));
}

// What was followed, and what was asked for while the connection was lost, must not be forgotten in silence; one confirmation
// that went missing would hold a cache in its first phase for ever. Whoever is told that a subscription stands, and reads
// then, must not miss what is written next.
TEST_P(StoreContract, AReconnectRestoresAndGivesWhatWasOwed) {
    EXPECT_EQ(faults.lose_confirmations(reader.handle(), 2), 0);
    for (const char *name : {"a", "b", "sub"}) reader.subscribe(name);
    ASSERT_TRUE(reader.wait("sub: confirmed"));
    reader.follow_connection();
    disconnect();
    ASSERT_TRUE(reader.wait("lost"));
    writer.set(1, 1);
    reader.scan("void");
    reader.word("late")->then = [&](const store_msg &msg) {
        if (msg.cmd == TQ_MOM_CMD_SUBSCRIBED) writer.set(2, 2);
    };
    reader.subscribe("late");
    const auto word = reinterpret_cast<uintptr_t>(reader.word("late"));
    EXPECT_EQ(tq_mom_client_connect(reader.handle(), 1, RecordingClient::on_ready, word), 0);
    EXPECT_EQ(reader.write(card(1, 2, 0)), TQ_MOM_E_UNREACHABLE);
    EXPECT_EQ(reader.get(1), "nothing error -4");

    auto connected = std::async(std::launch::async, tq_mom_client_connect_sync, reader.handle(), 1);
    reconnect();
    EXPECT_EQ(connected.get(), 0);
    ASSERT_TRUE(reader.tells(
        "sub: confirmed, connected 0, lost, connected 1, a: confirmed, b: confirmed, late: confirmed, late: ready, "
        "reconnect 1 1, reconnect 3 1, a: set 2:2, b: set 2:2, sub: set 2:2, late: set 2:2"));
    EXPECT_EQ(reader.scanned(), "s: end, s: has 1:1, s: has 2:2");
}

// A picture that is told to be younger than it is hides a store that nobody hears any more.
TEST_P(StoreContract, WhatWasHeardHasBeenDelivered) {
    using Clock = std::chrono::steady_clock;
    using std::chrono::milliseconds;
    const auto age = [&] { return milliseconds(tq_mom_client_heard_ms(reader.handle())); };
    EXPECT_EQ(tq_mom_client_heard_ms(nullptr), -1);
    std::atomic<int32_t> seen = 0;
    std::atomic<bool> no_memory = false;
    reader.word("sub")->then = [&](const store_msg &msg) {
        if (msg.cmd == TQ_MOM_CMD_SET && ++seen % 16 == 0) std::this_thread::sleep_for(milliseconds(3));
        if (no_memory) throw std::bad_alloc();
    };
    ASSERT_TRUE(reader.follow("sub"));
    std::vector<Clock::time_point> written;
    for (bool any = false; written.size() < 300 || !any;) {
        writer.set(1, static_cast<int32_t>(written.size()));
        written.push_back(Clock::now());
        const milliseconds ago = age();
        any |= ago.count() >= 0;
        const auto promised = ago.count() < 0 ? 0 : std::count_if(written.begin(), written.end(), [&](auto time) {
            return time <= written.back() - ago;
        });
        ASSERT_GE(seen, promised) << ago.count();
        if (written.size() >= 300)
            std::this_thread::sleep_for(milliseconds(1));  // a reader that lags behind catches up
    }
    reader.follow_connection();
    while (static_cast<size_t>(seen) < written.size()) std::this_thread::sleep_for(milliseconds(1));
    for (const bool is_missed : {true, false}) {
        no_memory = is_missed;
        if (is_missed)
            writer.set(2, 2);
        else
            disconnect();
        ASSERT_TRUE(reader.wait(is_missed ? "sub: set 2:2" : "lost"));
        const auto begun = Clock::now();
        for (int i = 0; i < 70; ++i) {  // beyond the next echo of a server, which comes within half a second
            std::this_thread::sleep_for(milliseconds(10));
            const auto away = Clock::now() - begun;
            EXPECT_GE(age(), away);
        }
        no_memory = false;
        if (is_missed) disconnect();
        reconnect();
        ASSERT_TRUE(reader.wait("reconnect 3 1"));
        while (age() > Clock::now() - begun) std::this_thread::sleep_for(milliseconds(1));
    }
}

// A cache that is stopped and started over the same handle takes what it was told before for an answer to what it asks now.
TEST_P(StoreContract, WhatIsForgottenIsNotTold) {
    EXPECT_EQ(tq_mom_client_forget(nullptr, RecordingClient::on_message), TQ_MOM_E_ARGUMENT);
    EXPECT_EQ(tq_mom_client_forget(reader.handle(), nullptr), TQ_MOM_E_ARGUMENT);
    writer.set(1, 1);
    const auto go_on = reader.hold("sub");
    reader.subscribe("sub");
    ASSERT_TRUE(reader.wait("sub: confirmed"));
    reader.scan("void");
    EXPECT_EQ(tq_mom_client_forget(reader.handle(), RecordingClient::on_message), 0);
    go_on();
    ASSERT_TRUE(reader.follow("other"));
    writer.set(2, 2);
    EXPECT_TRUE(reader.tells("sub: confirmed, other: confirmed, other: set 2:2"));
    ASSERT_TRUE(reader.follow("sub"));
    writer.set(3, 3);
    EXPECT_TRUE(reader.tells("sub: confirmed, sub: set 3:3, other: set 3:3"));
    EXPECT_EQ(reader.scanned(), "s: end, s: has 1:1, s: has 2:2, s: has 3:3");
}

// A client that takes a new server for the old one keeps objects that are not there.
TEST_P(StoreContract, ARestartedStoreIsToldApart) {
    writer.set(1, 1);
    mallopt(M_PERTURB, 0xa5);  // what is freed is not as it was
    RecordingClient(url).close();
    reader.follow_connection();
    reader.subscribe("sub");
    for (const int32_t keep : {1, 0}) {
        EXPECT_EQ(faults.restart(writer.handle(), keep), 0);
        reconnect();
        EXPECT_EQ(faults.reconnect(writer.handle()), 0);
        ASSERT_TRUE(reader.wait("reconnect 3 2"));
        EXPECT_EQ(reader.scanned(), keep ? "s: end, s: has 1:1" : "s: end");
    }
    writer.set(2, 2);
    EXPECT_TRUE(reader.wait("sub: set 2:2"));
}

// A scan that stops half way without a word, or claims to be complete, loses objects.
TEST_P(StoreContract, AScanCutOffEndsByTheReconnect) {
    for (int32_t i = 0; i < 500; ++i) writer.set(i, 1);
    reader.follow_connection();
    reader.word("cut")->then = [&](const store_msg &) { disconnect(); };
    reader.scan("cut");
    ASSERT_TRUE(reader.wait("lost"));
    reconnect();
    ASSERT_TRUE(reader.wait("reconnect 3 1"));
    const std::string told = reader.told();
    EXPECT_FALSE(has(told, "cut: end"));
    EXPECT_FALSE(has(told, "499:1"));
    EXPECT_TRUE(has(reader.scanned(), "499:1"));
}

// A change that waits in a busy client while its connection is lost belongs to what the next scan replaces.
TEST_P(StoreContract, WhatWaitsWhenTheConnectionIsLostIsLostToo) {
    const auto go_on = reader.hold("sub");
    ASSERT_TRUE(reader.follow("other"));
    ASSERT_TRUE(reader.follow("sub"));
    writer.set(1, 1);
    EXPECT_EQ(reader.get(1), "1:1");
    reader.set(2, 2);
    disconnect();
    go_on();
    reconnect();
    writer.set(3, 3);
    ASSERT_TRUE(reader.tells("other: confirmed, sub: confirmed, other: set 3:3, sub: set 3:3"));
}

// One faulty writer must neither crash the readers nor hide its object, nor the objects beside it. A field of number 0 is
// damage, too: it can be read, and is gone without a word where the object is copied.
TEST_P(StoreContract, DamagedBytesAreReportedAndCounted) {
    using namespace std::string_literals;
    const auto whole = [](int32_t slot) { return packed(card_of_type(slot, 7).get()); };
    const auto number_0 = "\x82\x80\x80\x80\x00\x01x"s;  // written in five bytes
    const struct {
        int32_t slot;
        std::string bytes;
        bool is_damaged = true;
    } rows[] = {
        {1, "\xff\xff\xff"},
        {2, whole(1)},
        {3, whole(3) + number_0},
        {4, number_0 + whole(4)},
        {5, whole(5) + "\x80\x80\x00\x05"s},
        {6, whole(6) + "\x85\0tiny"s},
        {7, whole(7) + "\x72\x07" + number_0},   // in static_info
        {8, whole(8) + "\x2a\x07" + number_0},   // in the key
        {9, whole(9) + "\xfa\x7f\x01x", false},  // a field that this schema does not know
        {10, packed(card_of_type(10, 7).set("mac_addr", number_0).get()), false},
    };
    ASSERT_TRUE(reader.follow("sub"));
    std::string pushed = "sub: confirmed";
    std::vector<std::string> scanned = {"s: end"};
    uint64_t damaged = 0;
    for (const auto &row : rows) {
        put_bytes(row.slot, row.bytes);
        const std::string shown = std::to_string(row.slot) + (row.is_damaged ? ":0 error -6" : ":7");
        EXPECT_EQ(writer.get(row.slot), row.is_damaged ? "nothing error -6" : shown);
        pushed += ", sub: set " + shown;
        scanned.push_back("s: has " + shown);
        damaged += row.is_damaged;
    }
    ASSERT_TRUE(reader.tells(pushed));
    std::sort(scanned.begin(), scanned.end());
    EXPECT_EQ(reader.scanned(), join(scanned));
    EXPECT_EQ(tq_mom_client_damaged(reader.handle()), 2 * damaged);
    writer.set(1, 1);
    EXPECT_EQ(writer.get(1), "1:1");
}

// Whoever follows fields of one card must not be woken for its neighbours, nor twice for one change.
TEST_P(StoreContract, FieldSubscribersHearOfTheirFieldsOnly) {
    const Message key = card(1, 1, 0);
    uint32_t fields[11] = {};
    tq_mom_msg_cb callbacks[11];
    void *words[11] = {reader.word("a"), reader.word("b"), reader.word("b")};
    std::fill(std::begin(callbacks), std::end(callbacks), RecordingClient::on_message);
    for (int i = 0; const char *name : {"config_dev_type", "sw_status", "user_slot"}) {
        fields[i++] = protobuf_c_message_descriptor_get_field_by_name(key.get()->descriptor, name)->id;
    }
    const auto follow = [&](const ProtobufCMessage *object, int32_t n) {
        return tq_mom_subscribe_field(reader.handle(), 1, object, 0, fields, callbacks, words, n);
    };
    const auto set = [&](int32_t slot, int32_t type, int32_t others, int32_t node) {
        Message object = card_of_type(slot, type).set("sw_status", others).set("user_slot", others);
        EXPECT_EQ(writer.write(std::move(object).set("card_tipc_nodeid", node)), 0);
    };
    EXPECT_EQ(follow(key.get(), 3), 0);
    reader.wait("a: confirmed");
    set(1, 5, 0, 0);  // appears: all fields
    set(1, 5, 0, 1);  // no field of theirs
    set(2, 6, 1, 1);  // another card
    set(1, 6, 0, 1);  // a's field
    set(1, 6, 1, 1);  // both of b's fields
    writer.del(1);
    ASSERT_TRUE(
        reader.tells("a: confirmed, a: set 1:5, b: set 1:5, a: set 1:6, b: set 1:6, a: deleted 1:0, b: deleted 1:0"));
    EXPECT_EQ(follow(Message("p_dev.card_info").get(), 1), TQ_MOM_E_ARGUMENT);  // names no card
    for (const int32_t n : {0, 4, 11}) EXPECT_EQ(follow(key.get(), n), TQ_MOM_E_ARGUMENT);
}

// A callback that reads the store must not hang the client that it belongs to; nothing needs a connect first.
TEST_P(StoreContract, TheLoopsOwnThreadMayCallEverything) {
    writer.set(1, 1);
    reader.word("sub")->then = [&](const store_msg &msg) {
        if (msg.cmd != TQ_MOM_CMD_SUBSCRIBED) return;
        EXPECT_EQ(reader.get(1), "1:1");
        EXPECT_EQ(join(reader.scan_sync()), "has 1:1");
        EXPECT_EQ(tq_mom_client_connect_sync(reader.handle(), 1), 0);
        EXPECT_EQ(tq_mom_client_close(reader.handle()), TQ_MOM_E_ARGUMENT);
        EXPECT_EQ(tq_mom_client_drain(reader.handle(), 1), TQ_MOM_E_ARGUMENT);
        reader.scan("s");
        reader.set(2, 2);
        reader.note("done");
    };
    reader.subscribe("sub");
    ASSERT_TRUE(reader.tells("sub: confirmed, done, s: has 1:1, s: end, sub: set 2:2"));
}

// A process that closes its client while changes pour in must not be called back afterwards.
TEST_P(StoreContract, CloseDropsWhatIsQueued) {
    const auto go_on = reader.hold("sub");
    ASSERT_TRUE(reader.follow("sub"));
    for (int32_t i = 0; i < 100; ++i) writer.set(i, 1);
    reader.scan("s");
    EXPECT_EQ(tq_mom_client_drain(reader.handle(), 1), TQ_MOM_E_TIMEOUT);
    auto closed = std::async(std::launch::async, [&] { reader.close(); });
    go_on();
    closed.get();
    reader.told();
    writer.set(1, 2);
    EXPECT_EQ(reader.told(), "");
}

// A handle that is closed under a working thread, or used by a child of the process: no crash, nobody else's answer.
TEST_P(StoreContract, AHandleOutlivesItsCallsAndStaysWithItsProcess) {
    writer.set(1, 1);
    std::atomic<int> in_calls = 0;
    const auto call_until_closed = [](tq_mom_handle *handle, store_msg *, void *in) {
        EXPECT_EQ(tq_mom_client_close(handle), TQ_MOM_E_ARGUMENT);  // it would wait for itself
        ++*static_cast<std::atomic<int> *>(in);
        const Message key = card(1, 1, 0);
        int32_t error = 0;
        while (error == 0) tq_mom_tq_obj_free(tq_mom_get_sync(handle, 1, key.get(), &error));
        EXPECT_TRUE(error == TQ_MOM_E_ARGUMENT || error == TQ_MOM_E_UNREACHABLE) << error;
        return 0;
    };
    const auto scan = [&] {
        tq_mom_scan_sync(reader.handle(), 1, card(1, 0, 0).get(), 0, call_until_closed, &in_calls);
    };
    std::vector<std::jthread> callers;
    while (callers.size() < 4) callers.emplace_back(scan);
    while (in_calls < 4) std::this_thread::yield();
    reader.close();
    callers.clear();

    const auto call_all = [handle = writer.handle()] {
        const Message object = card_of_type(1, 2);
        tq_thread_timer timer = {};
        const auto handler = [](tq_thread_timer *) { return 0; };
        int32_t error = 0;
        const int32_t codes[] = {
            tq_mom_set(handle, 1, object.get(), 0, 0),
            tq_mom_get_sync(handle, 1, object.get(), &error) ? 0 : error,
            tq_mom_subscribe(handle, 1, object.get(), 0, RecordingClient::on_message, nullptr),
            tq_thread_insert_timer(handle->timer_master, &timer, handler, 0, 0, ""),
            tq_mom_client_drain(handle, 100),
            tq_mom_client_close(handle),
        };
        return std::ranges::count(codes, TQ_MOM_E_ARGUMENT) == std::ssize(codes);
    };
    EXPECT_EXIT(_exit(call_all() ? 0 : 1), testing::ExitedWithCode(0), "");
    EXPECT_EQ(writer.get(1), "1:1");
}

// Nothing crashes on what is not there.
TEST(Platform, RefusesWhatIsUnusable) {
    tq_mom_handle *none = nullptr;
    const RecordingClient client("mem:");

    // With too few descriptors left there is a code, too, and no end of the process. (A sanitizer needs two for itself.)
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit few_left = {static_cast<rlim_t>(dup(0)) + 4, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few_left), 0);
    EXPECT_EQ(tq_mom_client_open("mem:", &none), TQ_MOM_E_MEMORY);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);

    const Message keyless("p_dev.card_info"), keyed = card(1, 1, 0);
    for (tq_mom_handle *handle : {none, client.handle()}) {
        const ProtobufCMessage *object = handle ? keyless.get() : keyed.get();
        EXPECT_EQ(tq_mom_set(handle, 1, object, 0, 0), TQ_MOM_E_ARGUMENT);
        EXPECT_EQ(tq_mom_del(handle, 1, object), TQ_MOM_E_ARGUMENT);
        EXPECT_EQ(tq_mom_hgetall_sync(handle, 1, object), nullptr);
        EXPECT_EQ(tq_mom_scan(handle, 1, object, 0, nullptr, nullptr), TQ_MOM_E_ARGUMENT);
        EXPECT_EQ(tq_mom_subscribe(handle, 1, nullptr, 0, RecordingClient::on_message, nullptr), TQ_MOM_E_ARGUMENT);
    }
    EXPECT_EQ(tq_mom_hash_res_free(nullptr), 0);
    EXPECT_EQ(tq_mom_tq_obj_free(nullptr), 0);
}

}  // namespace
