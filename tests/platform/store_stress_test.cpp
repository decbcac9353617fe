// Two writers, and a reader that scans and loses its connection again and again: it never sees a card go back to an older
// state, and in the end it has what the store has. Every write of a card carries a higher type than the one before.
#include <atomic>
#include <random>
#include <thread>

#include "platform/recording_client.h"

namespace {

constexpr int32_t slots = 10;
constexpr int writes = 5000;
constexpr int32_t limit_ms = 20000;

// Applies every push and every reply as it comes; a reconnect empties it and scans again. Cards are kept as a line shows
// them, by slot. Touched on the loop's thread only, until the client is closed.
struct Mirror {
    RecordingClient client;
    std::map<std::string, std::string> cards;
    std::map<std::string, int> at_least;  // the type that a card must have when it is seen next

    explicit Mirror(const std::string &url) : client(url) {
        client.word("mirror")->then = [this](const store_msg &msg) { apply(msg); };
        tq_mom_client_set_connection_cb(client.handle(), on_connection, this);
        client.subscribe("mirror");
    }

    static void on_connection(tq_mom_handle *, int32_t, int32_t reason, void *self) {
        if (reason == 0) return;
        static_cast<Mirror *>(self)->cards.clear();
        static_cast<Mirror *>(self)->client.scan("mirror");
    }

    void apply(const store_msg &msg) {
        if (msg.cmd == TQ_MOM_CMD_SUBSCRIBED || msg.flag == 1) return;
        const std::string line = describe(msg);
        const std::string card = line.substr(line.find(' ') + 1);
        const std::string slot = card.substr(0, card.find(':'));
        if (msg.cmd == TQ_MOM_CMD_DELETE) {
            cards.erase(slot);
            at_least[slot]++;
            return;
        }
        const int type = std::stoi(card.substr(slot.size() + 1));
        EXPECT_GE(type, at_least[slot]) << line;
        at_least[slot] = type;
        cards[slot] = "has " + card;
    }

    std::string lines() const {
        Lines all;
        for (const auto &[slot, card] : cards) all.push_back(card);
        return sorted(all);
    }
};

// Each writer has its own slots, the even or the odd ones.
void write_at_random(const std::string &url, uint32_t seed, int32_t odd) {
    RecordingClient client(url);
    std::mt19937 random(seed);
    for (int i = 1; i <= writes; i++) {
        const auto slot = static_cast<int32_t>(random() % slots) * 2 + odd;
        if (random() % 3) {
            client.set(slot, i);
        } else {
            tq_mom_del(client.handle(), 1, card(1, slot, 0).get());  // it may be gone already
        }
    }
}

class StoreStress : public testing::TestWithParam<StoreUnderTest> {
protected:
    void run(uint32_t seed);
};

INSTANTIATE_TEST_SUITE_P(Stores, StoreStress, testing::ValuesIn(stores_under_test()), store_name);

void StoreStress::run(uint32_t seed) {
    const std::string url = GetParam().new_store();
    Mirror mirror(url);
    std::atomic<int> writing = 2;
    const auto write = [&](int32_t odd) {
        write_at_random(url, seed, odd);
        writing--;
    };
    std::thread even(write, 0), odd(write, 1);

    std::mt19937 random(seed);
    while (writing > 0) {
        for (auto n = random() % 32; n > 0; n--) mirror.client.scan("mirror");
        EXPECT_EQ(tq_mom_client_drain(mirror.client.handle(), limit_ms), 0);
        if (random() % 4) continue;
        EXPECT_EQ(GetParam().faults.disconnect(mirror.client.handle()), 0);
        if (random() % 2) std::this_thread::yield();
        EXPECT_EQ(GetParam().faults.reconnect(mirror.client.handle()), 0);
    }
    even.join();
    odd.join();

    EXPECT_EQ(tq_mom_client_drain(mirror.client.handle(), limit_ms), 0);  // the last reconnect's scan is asked for
    mirror.client.scan("last");                                           // its end comes behind everything
    ASSERT_TRUE(mirror.client.wait("last: end"));
    mirror.client.close();
    RecordingClient fresh(url);
    EXPECT_NE(mirror.lines(), "");
    EXPECT_EQ(mirror.lines(), sorted(fresh.scan_sync()));
}

// A scan reply that overwrites a newer push, or brings a deleted object back, leaves a stale card for good.
TEST_P(StoreStress, AReaderEndsEqualToTheStore) {
    for (uint32_t seed = 1; seed <= 5; seed++) {
        SCOPED_TRACE(seed);
        run(seed);
    }
}

}  // namespace
