// Registration of change callbacks.
#include "tests/support/live_cache.h"

namespace {

template <size_t n> int32_t numbered(tq_mom_handle *, int32_t, int32_t, ProtobufCMessage *) {
    changes.push_back(std::to_string(n));
    return 0;
}

template <size_t... n> constexpr std::array<dm_cache_change_cb, sizeof...(n)> many(std::index_sequence<n...>) {
    return {numbered<n>...};
}

constexpr auto functions = many(std::make_index_sequence<11>{});

class Registration : public testing::TestWithParam<int> {};

}  // namespace

// A refused registration that half succeeds calls a client twice, or stops a kind from being stored.
TEST_P(Registration, TakesTenFunctionsInOrderAndChangesNothingWhenItRefuses) {
    LogCapture log(GetParam());
    const obj_sub_entry &row = obj_sub_list[17];
    const auto name = [](size_t i) { return reinterpret_cast<void *>(functions[i]); };
    EXPECT_EQ(dm_cache_sub_obj(39, functions[0], 0), -1);
    EXPECT_EQ(dm_cache_sub_obj(17, functions[0], 4), 0);
    EXPECT_EQ(dm_cache_sub_obj(17, functions[0], DM_CACHE_NO_STORE), -2);
    EXPECT_EQ(row.flag, 4);
    EXPECT_EQ(log.take(), at_threshold(GetParam(), {text("2 dm_cache_sub_obj>param err[39][%p].\n", name(0)),
                                                    text("1 dm_cache_sub_obj>cache[17] func[%p] flag[4].\n", name(0)),
                                                    "2 dm_cache_sub_obj>add func err[-2].\n"}));
    for (size_t i = 1; i < 10; ++i) EXPECT_EQ(dm_cache_sub_obj(17, functions[i], 0), 0);
    EXPECT_EQ(dm_cache_sub_obj(17, functions[10], DM_CACHE_NO_STORE), -1);
    EXPECT_EQ(row.flag, 0);
    EXPECT_EQ(row.func_num, 10U);
    EXPECT_EQ(dm_cache_sub_obj(16, nullptr, 6), 0);
    EXPECT_EQ(obj_sub_list[16].enable, 1);
    EXPECT_EQ(obj_sub_list[16].flag, 6);
    EXPECT_EQ(obj_sub_list[16].func_num, 0U);

    start({});
    platform.synchronise();
    receive(17, SET, card(1, 3, 0));
    EXPECT_EQ(drained(&changes), (Strings{"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"}));
}

INSTANTIATE_TEST_SUITE_P(Thresholds, Registration, testing::Range(0, 4));
