// The same as unit_test.c with GoogleTest, and a follower under test. The cache is the process's: one test at a time.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tq_dm_cache/dm_cache.hpp"
#include "tq_dm_cache/dm_cache_status.h"
#include "tq_dm_cache/tq_platform_bundled.h"

class WithAStore : public testing::Test {
protected:
    void SetUp() override {
        const std::string store = std::string("mem:") + testing::UnitTest::GetInstance()->current_test_info()->name();
        ASSERT_EQ(tq_mom_client_open(store.c_str(), &device_manager), 0);
        ASSERT_EQ(tq_mom_client_open(store.c_str(), &client), 0);
        dm_cache_multi_thread_init();
        dm_cache_sub_obj(DM_ROW_CARD_INFO, nullptr, 0);
        ASSERT_EQ(dm_cache_init(client, "unit_test"), 0);
        ASSERT_EQ(dm_cache_wait_synced(5000), 0);
    }

    void TearDown() override {
        dm_cache_stop();
        tq_mom_client_close(client);
        tq_mom_client_close(device_manager);
    }

    // Returns when the cache has seen it and callbacks have run.
    void put_card(int slot, int ports) const {
        PDev__CardInfoIndex key = P_DEV__CARD_INFO_INDEX__INIT;
        PDev__CardInfo card = P_DEV__CARD_INFO__INIT;
        key.devid = 1;
        key.slotid = slot;
        card.index = &key;
        card.port_num = ports;
        ASSERT_EQ(tq_mom_set(device_manager, 1, &card.base, 0, 0), 0);
        ASSERT_EQ(tq_mom_client_drain(client, 5000), 0);
    }

    tq_mom_handle *device_manager = nullptr, *client = nullptr;
};

TEST_F(WithAStore, AFollowerHearsOfEachChange) {
    std::vector<std::string> told;
    const auto cards = dm_cache::follow<PDev__CardInfo>([&told](const dm_cache::Event<PDev__CardInfo> &event) {
        const auto ports = [](const PDev__CardInfo *card) { return card ? std::to_string(card->port_num) : "none"; };
        told.push_back(ports(event.before) + " -> " + ports(event.after));
    });
    put_card(3, 24);
    put_card(3, 48);
    EXPECT_EQ(told, (std::vector<std::string>{"none -> 24", "24 -> 48"}));
}

TEST_F(WithAStore, AStoreThatComesBackEmptyIsSwept) {
    put_card(3, 24);
    const uint32_t applied = dm_cache_applied();
    tq_mem_restart(client, /*keep=*/0);
    tq_mem_reconnect(client);
    ASSERT_EQ(dm_cache_wait_applied(applied, 5000), 0);
    const dm_cache::Lock lock;
    EXPECT_EQ(dm_cache::objects<PDev__CardInfo>(lock).size(), 0U);
}
