// What queries ask of the store besides reads: subscriptions of a client's own, and the reset of a card.
#include "tests/query/topology.h"

class Requests : public Topology {};

namespace {

Strings told;

int32_t tell(tq_mom_handle *, store_msg *msg, const char *origin) {
    told.push_back(number(msg->cmd) + ' ' + origin);
    return -5;
}

ndm_lib_sub_info request(ProtobufCMessage *key, int32_t field_num) {
    return {3, key, tell, 0, 0, field_num, {6, 7, 8, 9, 11, 12, 14, 15, 16, 17}};
}

}  // namespace

// A client that follows objects by itself sees what is there once and every change after it.
TEST_F(Requests, FollowObjectsFromTheScanOn) {
    const auto before = platform.subscriptions;
    const Message key = object(17, "index{devid:1}");
    const std::string kind = " 3 p_dev.card_info", all = " 6 7 8 9 11 12 14 15 16 17";
    const auto subscribe = [](ndm_lib_sub_info *req) {
        platform.calls.clear();
        const int32_t answer = ndm_lib_subcribe(req);
        return each(answer, req->subscribed) + (platform.calls.empty() ? "" : platform.calls.back());
    };
    ndm_lib_sub_info whole = request(key.get(), 0), one = request(key.get(), 1), ten = request(key.get(), 10);
    for (const int32_t refused : {-1, 11, INT32_MIN, INT32_MAX}) {
        ndm_lib_sub_info req = request(key.get(), refused);
        EXPECT_EQ(subscribe(&req), "0 0;") << refused;
    }
    platform.answers["subscribe"] = -3;
    EXPECT_EQ(subscribe(&whole) + subscribe(&one), "0 0;subscribe" + kind + "0 0;subscribe_field" + kind + " 6");
    platform.answers.clear();
    EXPECT_EQ(subscribe(&one) + subscribe(&ten),
              "1 1;subscribe_field" + kind + " 6" + "1 1;subscribe_field" + kind + all);
    EXPECT_EQ(subscribe(&whole), "1 1;subscribe" + kind);
    EXPECT_EQ(subscribe(&whole), "1 1;");  // it stands

    Request to{3, key.get()->descriptor, ndm_lib_subcribe_com, &whole};
    const auto deliver = [&](int32_t cmd, int32_t flag = 0) { return to.deliver(cmd, key.get(), flag); };
    EXPECT_EQ(deliver(SUBSCRIBED, /*flag=*/1), 0);
    EXPECT_EQ(drained(&platform.calls), Strings{"scan" + kind});
    const Request scan = std::exchange(platform.scans, {}).front();
    scan.reply(key);
    scan.end();
    EXPECT_EQ(drained(&told), (Strings{"4 scan", "4 scan"}));
    platform.answers["scan"] = -4;
    EXPECT_EQ(each(deliver(SUBSCRIBED)) + each(deliver(SET), deliver(DELETE), deliver(OTHER), whole.scan_done),
              "-4;0 0 0 0;");
    EXPECT_EQ(deliver(OTHER, /*flag=*/1), 0);
    EXPECT_EQ(whole.scan_done, 1);
    std::sort(told.begin(), told.end());
    EXPECT_EQ(drained(&told), (Strings{"1 subscribe", "28 subscribe", "3 subscribe"}));
    whole.cb = nullptr;
    EXPECT_EQ(deliver(SET), 0);
    to.privdata = nullptr;
    EXPECT_EQ(deliver(SET), -1);
    EXPECT_EQ(ndm_lib_subcribe(nullptr), 0);
    platform.subscriptions = before;  // the requests are gone
}

// The wrong card reset, or a reset that nobody asked for, is an outage.
TEST_F(Requests, ResetOnlyACardThatIsThere) {
    const auto reset = [](uint32_t node, const char *cause = "why", const char *mod = "me") {
        return each(ndm_reset_module_by_node_causelly(node, cause, mod));
    };
    const auto written = [](const std::string &card) {
        const auto wanted = object("p_dev.dm_lib_reset_req", "index{mod_name:'me' action:1 cause:'why'} " + card);
        return platform.objects.size() == 1 && equal(platform.objects.begin()->second.get(), wanted.get());
    };
    platform.calls.clear();
    EXPECT_EQ(reset(0x0C040400) + reset(0x0C042300), "-1;-1;");  // offline, slot 35
    EXPECT_EQ(reset(0x0C048300, nullptr) + reset(0x0C048300, "why", nullptr), "-1;-1;");
    EXPECT_EQ(reset(0x0C048300, "") + reset(0x0C048300, "why", ""), "-1;-1;");
    EXPECT_EQ(platform.calls, Strings());
    EXPECT_EQ(reset(0x0C048300), "0;");
    EXPECT_TRUE(written("devid:1 slotid:3 sslotid:1"));
    drop(17, "index{devid:1 slotid:3}");
    platform.objects.clear();
    EXPECT_EQ(reset(0x0C040300), "0;");  // this card itself
    EXPECT_TRUE(written("devid:1 slotid:3"));
    platform.answers["set"] = -7;
    EXPECT_EQ(reset(0x0C040300), "-7;");
    EXPECT_EQ(platform.calls, Strings(3, "set 1 p_dev.dm_lib_reset_req"));
    drop(2);
    EXPECT_EQ(reset(0x0C040300) + reset(0xFFFFFFFF), "-1;-1;");  // which stands for no node
}
