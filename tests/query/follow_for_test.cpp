// Which rows a query needs, and the line about a row that nobody follows.
#include "tests/support/live_cache.h"
#include "tq_dm_cache/ndm.h"

// A query over a row that nobody follows finds nothing, for ever: a wrong no, which looks like a right one.
TEST(Unfollowed, IsSaidOnceARowAndStart) {
    Strings said;
    const auto keep = [](int32_t level, const char *, const char *function, int32_t, const char *line, void *word) {
        if (level == 2 && function == std::string("dm_cache_unfollowed")) static_cast<Strings *>(word)->push_back(line);
    };
    const auto line = [](const std::string &row) {
        return "row " + row + " is asked, and nobody follows it: nothing is found there.";
    };
    dm_cache_set_log(keep, &said);
    g_dm_cache_level = 2;
    start({1, 17});
    ndm_is_vsu();  // before the first application every answer may be wrong
    platform.synchronise();
    EXPECT_EQ(drained(&said), Strings{});
    EXPECT_EQ(ndm_is_vsu() + ndm_card_is_online(1, 9, 0) + ndm_is_vsu(), 0);
    EXPECT_EQ(ndm_get_device_num() + ndm_get_global_ifx_by_objid(0x14040309), -1);
    EXPECT_EQ(drained(&said),
              (Strings{line("13 p_dev.dp_lib_my_chss_info"), line("16 p_dev.device_info"), line("30 p_dev.vsd_port")}));

    dm_cache_stop();
    ndm_is_mboard(1);
    start({1, 16});
    platform.synchronise();
    EXPECT_EQ(drained(&said), Strings{});
    EXPECT_EQ(ndm_is_vsu() + ndm_get_device_num() + ndm_local_is_online(3, 0), 0);
    EXPECT_EQ(drained(&said), (Strings{line("13 p_dev.dp_lib_my_chss_info"), line("14 p_dev.local_card_info")}));
    dm_cache_set_log(nullptr, nullptr);
}

// Nobody needs to know which rows a question goes to.
TEST(FollowFor, EnablesTheRowsOfAQuery) {
    const auto enabled = [] {
        std::string rows;
        for (int32_t row = 0; row < obj_sub_list_max; ++row)
            if (obj_sub_list[row].enable) rows += std::to_string(row) + ' ';
        return rows;
    };
    for (const char *name : {"", "ndm_get_master_nod", "ndm_get_master_node ", static_cast<const char *>(nullptr)})
        EXPECT_EQ(dm_cache_follow_for(name), -1);
    EXPECT_EQ(dm_cache_follow_for("ndm_get_objid_by_slot_lport"), 0);  // a conversion
    EXPECT_EQ(enabled(), "");
    dm_cache_sub_obj(15, nullptr, DM_CACHE_NO_STORE);
    EXPECT_EQ(dm_cache_follow_for("ndm_get_master_node"), 0);
    EXPECT_EQ(enabled(), "15 ");
    start({1});
    platform.put({"p_dev.dp_lib_grole", {{"global_master.devid", 1}, {"global_master.slotid", 30}}});
    platform.put(static_port(1, 3, 9, 7));
    platform.put(global_port(0, 1, 3, 9, 7, 5));
    platform.synchronise();
    EXPECT_EQ(ndm_get_master_node(), 0xC041E00u);

    platform.calls.clear();
    EXPECT_EQ(dm_cache_follow_for("ndm_get_global_ifx_by_objid"), 0);
    EXPECT_EQ(platform.calls, (Strings{"subscribe 1 p_dev.port_static", "subscribe 1 p_dev.vsd_port"}));
    platform.confirm();
    platform.answer_scans();
    EXPECT_EQ(ndm_get_global_ifx_by_objid(0x14040309), 5);
    EXPECT_EQ(enabled(), "1 7 15 30 ");
}
