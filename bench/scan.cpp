// How long 20,000 ports take from a store to the callbacks of one client.
#include "bench/bare_subscriber.h"
#include "bench/stores.h"
#include "tq_dm_cache/p_dev.pb-c.h"

namespace bench {

namespace {

const ProtobufCMessageDescriptor *const kinds[] = {&p_dev__vsd_port__descriptor, &p_dev__port_static__descriptor};

struct Scan {
    Tally ends;
    int objects = 0;
};

int32_t take(tq_mom_handle *, store_msg *msg, void *privdata) {
    auto &scan = *static_cast<Scan *>(privdata);
    if (msg->flag == 1) {
        scan.ends.hear();
    } else {
        ++scan.objects;
    }
    return 0;
}

int scan_by_client(const Client &client) {
    Scan scan;
    scan.ends.expect(static_cast<int>(std::size(kinds)));
    for (const auto *kind : kinds) {
        const ProtobufCMessage tmpl = PROTOBUF_C_MESSAGE_INIT(kind);
        check(tq_mom_scan(client.get(), 1, &tmpl, 0, take, &scan), "scan");
    }
    scan.ends.wait();
    return scan.objects;
}

// Of the server, so far, in milliseconds.
double server_time() {
    const std::string info = server().command({"INFO", "cpu"});
    double seconds = 0;
    for (const std::string name : {"used_cpu_sys:", "used_cpu_user:"})
        seconds += std::stod(info.substr(info.find(name) + name.size()));
    return seconds * 1000;
}

void measure(Counters &counters, const std::function<int()> &scan) {
    const double processor = process_time(), of_server = server_time();
    const auto begun = Clock::now();
    if (scan() != 2 * ports_of_a_kind) throw std::runtime_error("not every port came");
    counters["ms"] = milliseconds(Clock::now() - begun);
    counters["ms of its processor"] = process_time() - processor;
    counters["ms of the server's"] = server_time() - of_server;
}

void measure_client(Counters &counters, const std::string &url) {
    const Client client = open_client(url);
    measure(counters, [&] { return scan_by_client(client); });
}

void measure_bare(Counters &counters) {
    BareSubscriber bare(server().socket());
    measure(counters, [&] { return bare.scan(*kinds[0]) + bare.scan(*kinds[1]); });
}

}  // namespace

void add_scans() {
    add("scan/bare", 25, measure_bare);
    add("scan/redis", 25, [](Counters &counters) { measure_client(counters, server().url()); });
    add("scan/mem", 25, [](Counters &counters) { measure_client(counters, mem_store()); });
}

}  // namespace bench
