// Start-up: what a process gets from one call, and what is left when the call fails half way.
#include "tests/support/live_cache.h"
#include "tq_dm_cache/ndm/card_ports.h"

#include <dlfcn.h>

#include <algorithm>

namespace {

std::optional<std::string> config_file;
const std::string cap_init = "cap_init /etc/cfg/cap/dev_cap/default/g/capacity_cap.xml";
const std::string cap_name = "g_capacity_spec/high_availablility/CAP_VSU_CHASSIS_NUM";

// A start that does everything and is refused at its end, so that it can be repeated.
int32_t refused_start(const char *name) {
    platform.answers = {{"connect_sync", -9}};
    const int32_t answer = dm_cache_init(&platform.handle, name);
    platform.answers.clear();
    return answer;
}

}  // namespace

// Stands in for the configuration file; every other file is opened as usual.
extern "C" __attribute__((visibility("default"))) FILE *fopen(const char *path, const char *mode) {
    static const auto open = reinterpret_cast<decltype(&fopen)>(dlsym(RTLD_NEXT, "fopen"));
    if (std::string(path) != "/data/.orca/vsd/0/dev/cache.cfg") return open(path, mode);
    return config_file ? fmemopen(config_file->data(), config_file->size(), "r") : nullptr;
}

// The store knows a client by the order of its calls; a client knows by the code what to do about a refusal.
TEST(Start, MakesItsCallsInOrderOnceAndHandsBackTheCodeOfTheFirstRefusal) {
    EXPECT_EQ(dm_cache_init(nullptr, "x"), -1);
    EXPECT_EQ(dm_cache_init(&platform.handle, nullptr), -1);
    EXPECT_EQ(self_thread, -1);
    int32_t first = 0;
    std::thread([&first] { first = gettid(), refused_start("x"); }).join();
    drained(&platform.calls);

    Strings expected = {cap_init, "cap " + cap_name};
    for (const char *refused : {"connect 1", "connect 3", "set_reconnect_cb 1", "set_reconnect_cb 3", "connect_sync"}) {
        expected.push_back(refused);
        platform.answers = {{refused, -70}};
        EXPECT_EQ(dm_cache_init(&platform.handle, "client"), -70);
        EXPECT_EQ(drained(&platform.calls), expected);
        EXPECT_EQ(dm_cache_get_obj_index_list_len(17), -2);
    }
    platform.answers.clear();
    EXPECT_EQ(dm_cache_init(&platform.handle, "client"), 0);
    EXPECT_EQ(drained(&platform.calls), expected);
    EXPECT_EQ(platform.unreleased, 0);
    EXPECT_EQ(dm_cache_get_obj_index_list_len(17), 0);
    EXPECT_EQ(dm_cache_init(nullptr, nullptr), 0);
    EXPECT_EQ(drained(&platform.calls), Strings{});
    EXPECT_EQ(g_dm_global, &platform.handle);
    EXPECT_STREQ(dm_cache_my_name, "client");
    EXPECT_EQ(self_thread, first);
}

// After a failed start a client simply starts again: nothing of the first may remain, armed, in memory or believed.
TEST(Start, BeginsAfreshAfterAFailure) {
    for (const int32_t row : {7, 17, 30}) dm_cache_sub_obj(row, nullptr, 0);
    platform.put(static_port(1, 2, 3, 7));
    platform.put(global_port(1, 1, 2, 3, 7, 5));
    dm_cache_init_obj(obj_sub_list);  // a client may set the table up by itself first
    EXPECT_EQ(refused_start("x"), -9);
    platform.synchronise();
    EXPECT_EQ(dm_cache_wait_synced(0), 0);
    platform.lose_connection(1, 1);
    platform.confirm();
    EXPECT_EQ(platform.timers.size(), 3U);
    platform.connections.clear();

    EXPECT_EQ(dm_cache_init(&platform.handle, "x"), 0);
    EXPECT_TRUE(platform.timers.empty());
    EXPECT_EQ(cached(7) + cached(30), 0);
    EXPECT_EQ(obj_sub_list[30].port_tree->root[0]->node, nullptr);
    for (const char *cancelled : {"cancel 7", "cancel 17", "cancel 30"})
        EXPECT_EQ(std::count(platform.calls.begin(), platform.calls.end(), cancelled), 1) << cancelled;
    platform.become_ready();
    EXPECT_EQ(g_cache_proc_done, 0);
    EXPECT_EQ(dm_cache_wait_synced(0), -1);
    platform.confirm();
    platform.answer_scans();
    EXPECT_EQ(dm_cache_wait_synced(0), 0);
    EXPECT_EQ(cached(7) + cached(30), 2);
    EXPECT_NE(obj_sub_list[30].port_tree->root[0]->node, nullptr);
}

// The one way to see inside a process in the field: its own line, and nobody else's, opens its log.
TEST(Start, TakesItsThresholdFromTheLastLineOfTheConfiguration) {
    const std::string own = "level 0,myproc\n", other = "level 2,other\n", forty(40, 'n'), kept(31, 'n');
    const struct {
        std::string name;
        std::optional<std::string> file;
        int32_t threshold;
    } rows[] = {{"myproc", {}, 3},
                {"myproc", other + own, 0},
                {"myproc", own + other, 3},
                {"myproc", "level 2,myproc\n# x\n level 0,myproc\nlevel: 0\nlevel\t0,myproc\n", 2},
                {"myproc", "level -1,myproc", -1},
                {"myproc", "level 1,myproc\r\n", 1},
                {"myproc", "level 1,myproc2\n", 3},
                {"myproc2", "level 1,myproc\n", 3},
                {"myproc", other + std::string(300, '#') + "\n" + own, 0},
                {"myproc", other + std::string(300, '#') + own, 3},
                {"myproc", "# nothing\n", 3},
                {"", "# nothing\n", 0},
                {forty, "level 1," + kept + "\n", 1},
                {forty, "level 1," + forty + "\n", 1}};
    for (const auto &row : rows) {
        const LogCapture quiet(3);
        config_file = row.file;
        EXPECT_EQ(refused_start(row.name.c_str()), -9);
        EXPECT_EQ(g_dm_cache_level, row.threshold) << row.name << ": " << row.file.value_or("none");
        EXPECT_EQ(dm_cache_my_name, row.name.substr(0, 31));
    }
}

// A limit outside 1 to 16 would send queries to chassis that cannot exist.
TEST(Start, TakesTheNumberOfChassisOnlyWithinItsRange) {
    EXPECT_EQ(dm_get_vsu_switch_num_limit(), 2);
    for (const auto &[value, limit] : {std::pair(17, 2), {0, 2}, {-1, 2}, {1, 1}, {16, 16}, {17, 16}}) {
        platform.capabilities[cap_name] = value;
        EXPECT_EQ(refused_start("x"), -9);
        EXPECT_EQ(dm_get_vsu_switch_num_limit(), limit) << value;
    }
}

// A service that changes to another store must find nothing of the first, and hear nothing of it any more.
TEST(Stop, LeavesNothingBehindAndLetsAnotherHandleIn) {
    static int told = 0;
    static std::function<void()> within;
    const auto hear = [](const dm_cache_event *, void *) {
        ++told;
        if (within) within();
    };
    EXPECT_EQ(dm_cache_stop(), 0);
    dm_cache_follow(17, hear, nullptr, 0);
    start({1, 7, 30});
    platform.put(static_port(1, 2, 3, 7));
    platform.put(card(1, 3, 0));
    platform.synchronise();
    EXPECT_EQ(told, 1);
    within = [] { EXPECT_EQ(dm_cache_stop(), -1); };
    platform.push(card(1, 4, 0));
    within = nullptr;
    EXPECT_EQ(cached(17), 2);
    receive(1, SET, complete());
    receive(17, REPLY, card(1, 5, 0));  // gathered
    platform.lose_connection(1, 1);
    platform.confirm();
    dm_cache_set_obj(17, card(1, 6, 0).get());
    const auto old = platform.subscriptions;
    EXPECT_EQ(dm_cache_stop(), 0);
    EXPECT_TRUE(platform.timers.empty());
    EXPECT_EQ(cached(7) + cached(17) + g_cache_proc_done, 0);
    EXPECT_EQ(g_dm_global, nullptr);
    EXPECT_EQ(dm_cache_wait_synced(0), -1);
    const auto old_handle_says = [&] {
        for (const Request &each : old) each.deliver(SET, card(1, 8, 0).get());
    };
    drained(&platform.calls);
    old_handle_says();
    platform.connections[0].reconnect(nullptr, 1, 2, nullptr);
    int32_t type = 0;
    EXPECT_EQ(ndm_get_card_type_by_slot(1, 3, 0, &type, 1), -1);
    EXPECT_EQ(platform.calls, Strings());

    tq_mom_handle other = platform.handle;
    platform.connections.clear();
    platform.subscriptions.clear();
    platform.scans.clear();
    EXPECT_EQ(dm_cache_init(&other, "other"), 0);
    LogCapture log(2);
    EXPECT_EQ(dm_cache_init(&platform.handle, "other"), 0);
    EXPECT_EQ(log.take(), at_threshold(2, {"2 dm_cache_init>another handle is in use: this one was not taken.\n"}));
    old_handle_says();
    EXPECT_EQ(cached(17), 0);
    told = 0;
    platform.objects.clear();
    platform.synchronise();
    EXPECT_EQ(platform.subscriptions.size(), 4U);
    EXPECT_EQ(dm_cache_wait_synced(0), 0);
    platform.push(card(1, 9, 0));
    EXPECT_EQ(cached(17) + told, 2);
    EXPECT_EQ(dm_cache_unfollow(17, hear, nullptr), 0);
}

// Whoever stops waits for a callback that runs elsewhere.
TEST(Stop, WaitsForACallback) {
    static std::promise<void> entered, leave;
    const auto wait = [](tq_mom_handle *, int32_t, int32_t, ProtobufCMessage *) {
        entered.set_value();
        leave.get_future().wait();
        return 0;
    };
    dm_cache_sub_obj(17, wait, 0);
    start({1});
    platform.synchronise();
    std::thread store_client([] { receive(17, SET, card(1, 3, 0)); });
    entered.get_future().wait();
    auto stopped = std::async(std::launch::async, dm_cache_stop);
    EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    leave.set_value();
    EXPECT_EQ(stopped.get(), 0);
    store_client.join();
    EXPECT_EQ(cached(17), 0);
}
