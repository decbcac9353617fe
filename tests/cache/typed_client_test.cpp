// The header for clients in C++: nobody reads without the lock, and nobody is called who is gone.
#include "tests/support/live_cache.h"

#include "tq_dm_cache/dm_cache.hpp"

namespace {

using namespace dm_cache;
using Card = PDev__CardInfo;

// A lock that is gone with the expression is refused, and a message without a row.
template <class T, class Held> constexpr bool walks = requires {
    objects<T>(std::declval<Held>());
};
template <class Held> constexpr bool reads = requires(KeyOf<Card> key) {
    get<Card>(std::declval<Held>(), key);
};
static_assert(walks<Card, Lock &> && !walks<Card, Lock> && !walks<KeyOf<Card>, Lock &>);
static_assert(reads<Lock &> && !reads<Lock> && std::forward_iterator<Objects<Card>::Iterator>);

constexpr auto slot = [](int32_t number, int32_t ports) { return card(1, number, 0).set("port_num", ports); };

}  // namespace

TEST(TypedClient, ReadsUnderALockAndKeepsCopies) {
    dm_cache_multi_thread_init();
    Owned<Card> kept;
    const auto check = [&](const std::vector<int32_t> &ports, int32_t second) {
        const Lock lock;
        EXPECT_EQ(dm_cache_unlock() + dm_cache_lock(), 0);  // it was held
        EXPECT_EQ(objects<Card>(lock).size(), ports.size());
        EXPECT_TRUE(std::ranges::equal(objects<Card>(lock), ports, {}, &Card::port_num));
        const Card *const found = get<Card>(lock, *slot(2, 0).as<Card>()->index);
        EXPECT_EQ(found ? found->port_num : -1, second);
        EXPECT_EQ(get<PDev__DpLibMyInfo>(lock) != nullptr, second >= 0);
        if (found && !kept) kept = copy(*found);
    };
    check({}, -1);  // before the start
    start({1, 2, 17});
    for (const int32_t number : {3, 2, 1}) dm_cache_set_obj(17, slot(number, number * 10).get());
    dm_cache_set_obj(2, Message("p_dev.dp_lib_my_info").get());
    check({30, 20, 10}, 20);
    EXPECT_NE(dm_cache_unlock(), 0);  // given back
    dm_cache_set_obj(17, slot(2, 5).get());
    check({30, 5, 10}, 5);
    EXPECT_TRUE(equal(&kept->base, slot(2, 20).get()));
}

TEST(TypedClient, FollowsAsLongAsItsHandleLives) {
    start({1, 17});
    platform.synchronise();
    Strings told;
    const auto owned = std::make_shared<int>();
    const auto telling = [&](const std::string &who, Follower *ends = nullptr) {
        return [&told, owned, who, ends](const Event<Card> &event) {
            const auto owners = owned.use_count();
            if (ends) ends->stop();
            EXPECT_EQ(owned.use_count(), owners);  // what it captured stays until it returns
            const auto ports = [](const Card *of) { return ' ' + std::to_string(of ? of->port_num : 0); };
            told.push_back(who + ports(event.before) + ports(event.after));
        };
    };
    {
        Follower first = follow<Card>(telling("a")), moved = std::move(first), once;
        platform.push(slot(3, 1));
        once = follow<Card>(telling("once", &once), DM_CACHE_FOLLOW_FROM_NOW);
        moved = follow<Card>(telling("b"), DM_CACHE_FOLLOW_FROM_NOW);  // ends what it was
        platform.push(slot(3, 2));
        platform.push_delete(slot(3, 0));
        EXPECT_EQ(drained(&told), (Strings{"a 0 1", "once 1 2", "b 1 2", "b 2 0"}));
        dm_cache_set_obj(17, slot(4, 0).get());  // noted, and not told before the end
    }
    platform.fire_timers();
    EXPECT_EQ(told, Strings{});
    EXPECT_EQ(owned.use_count(), 1);
}
