// A first synchronisation and some that find everything as it was, in a process that has done nothing else: processor time
// beside two packed copies of each object, on a thread of its own and on fresh memory as the cache's are; memory; and how
// often a change callback, and beside it a follower, is told of what has not changed.
#include <malloc.h>
#include <unistd.h>
#include <algorithm>
#include <thread>

#include "bench/cache.h"
#include "tq_dm_cache/dm_cache_follow.h"
#include "tq_dm_cache/dm_cache_status.h"

namespace bench {

namespace {

std::atomic<int> ends;

// What the store's side of a scan costs: the same scan, whose objects nobody keeps.
int32_t drop(tq_mom_handle *, store_msg *msg, void *) {
    if (msg->flag == 1) --ends;
    return 0;
}

double scan_for_nobody(const Client &client) {
    const double begun = process_time();
    ends = 2;
    for (const auto *kind : {&p_dev__vsd_port__descriptor, &p_dev__port_static__descriptor}) {
        const ProtobufCMessage tmpl = PROTOBUF_C_MESSAGE_INIT(kind);
        check(tq_mom_scan(client.get(), 1, &tmpl, 0, drop, nullptr), "scan");
    }
    while (ends > 0) check(tq_mom_client_drain(client.get(), 60'000), "drain");
    return process_time() - begun;
}

double copy_twice(const std::vector<Port> &all) {
    double took = 0;
    std::thread([&] {
        const double begun = thread_time();
        for (int i = 0; i < 2; ++i)
            for (const Port &port : all) {
                packed_copy(port.global->base);  // kept, so that all memory is fresh
                packed_copy(port.at_its_place->base);
            }
        took = thread_time() - begun;
    }).join();
    return took;
}

double resident_mb() {
    long all = 0, pages = 0;
    const std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen("/proc/self/statm", "r"), std::fclose);
    if (!file || std::fscanf(file.get(), "%ld %ld", &all, &pages) != 2) return 0;
    return static_cast<double>(pages * sysconf(_SC_PAGESIZE)) / (1 << 20);
}

size_t allocated() {
    const auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

constexpr int32_t port_rows[] = {DM_ROW_PORT_STATIC, DM_ROW_VSD_PORT};
uint32_t told;  // the store client's thread; read when it has applied

int32_t count_callback(tq_mom_handle *, int32_t, int32_t, ProtobufCMessage *) {
    ++told;
    return 0;
}
void count_event(const dm_cache_event *, void *) {
    ++told;
}

void content_is_complete(const Client &client) {
    const PDev__DpLibComplete complete = P_DEV__DP_LIB_COMPLETE__INIT;
    set(client, complete.base);
}

void reconnect(const Client &client) {
    check(tq_mem_disconnect(client.get()), "disconnect");
    check(tq_mem_reconnect(client.get()), "reconnect");
}

// Processor time of a resynchronisation, but for the store's.
double synchronise_again(const Client &client, void (*cause)(const Client &), double store) {
    const uint32_t applied = dm_cache_applied();
    told = 0;
    const double begun = process_time();
    cause(client);
    check(dm_cache_wait_applied(applied, 600'000), "the next application");
    return process_time() - begun - store;
}

constexpr const char *figures[] = {"first, ms",
                                   "again, ms",
                                   "rival, ms",
                                   "resident MB before a resynchronisation",
                                   "resident MB after it",
                                   "bytes an object, message included",
                                   "bytes an object, packed copies",
                                   "after a reconnect, ms",
                                   "the same with followers, ms",
                                   "followers told",
                                   "the same with callbacks, ms",
                                   "callbacks",
                                   "resident MB more with followers"};

}  // namespace

int print_synchronisation(int count) {
    if (count < 0) return 2;
    const auto all = ports(count);
    const Client client = open_client("mem:");
    for (const Port &port : all) {
        set(client, port.global->base);
        set(client, port.at_its_place->base);
    }
    const double store = scan_for_nobody(client);
    dm_cache_multi_thread_init();
    for (const int32_t row : {DM_ROW_DP_LIB_COMPLETE, DM_ROW_PORT_STATIC, DM_ROW_VSD_PORT})
        dm_cache_sub_obj(row, nullptr, 0);
    const size_t before = allocated();
    double begun = process_time();
    check(dm_cache_init(client.get(), "bench"), "dm_cache_init");
    check(dm_cache_wait_synced(600'000), "the first application");
    const double first = process_time() - begun - store;
    const size_t cached = allocated() - before;

    const double resident = resident_mb();
    const double again = synchronise_again(client, content_is_complete, store);
    const double resident_after = resident_mb();

    const size_t before_copies = allocated();
    const double rival = copy_twice(all);
    const double objects = 2.0 * count;
    const size_t copies = allocated() - before_copies;
    const double alone = resident_mb();
    const double reconnected = synchronise_again(client, reconnect, store);
    for (const int32_t row : port_rows)
        check(dm_cache_follow(row, count_event, nullptr, DM_CACHE_FOLLOW_FROM_NOW), "follow");
    const double with_followers = synchronise_again(client, reconnect, store);
    const uint32_t events = told;
    const double more = resident_mb() - alone;
    for (const int32_t row : port_rows) {
        check(dm_cache_unfollow(row, count_event, nullptr), "unfollow");
        dm_cache_sub_obj(row, count_callback, 0);
    }
    const double with_callbacks = synchronise_again(client, reconnect, store);
    std::printf("%f %f %f %f %f %f %f %f %f %u %f %u %f\n", first, again, rival, resident, resident_after,
                static_cast<double>(cached) / objects, static_cast<double>(copies) / 2 / objects, reconnected,
                with_followers, events, with_callbacks, told, more);
    return 0;
}

void add_synchronisations(const std::string &program, int count) {
    benchmark::RegisterBenchmark(
        "synchronisation",
        [=](benchmark::State &state) {
            for (auto _ : state) {
                const std::string command = program + " " + std::to_string(count) + " synchronisation";
                const std::unique_ptr<FILE, int (*)(FILE *)> output(popen(command.c_str(), "r"), pclose);
                for (const char *figure : figures) {
                    double value = 0;
                    if (!output || std::fscanf(output.get(), "%lf", &value) != 1)
                        return state.SkipWithError("it ended");
                    state.counters[figure] = value;
                }
                state.SetIterationTime(state.counters["first, ms"] / 1e3);
            }
        })
        ->UseManualTime()
        ->Iterations(1);
}

}  // namespace bench
