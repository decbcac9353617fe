// The objects, and putting them into a store.
#include "bench/unit.h"

#include <ctime>
#include <stdexcept>

#include "dmq/gen.h"
#include "tq_dm_cache/p_dev.pb-c.h"

namespace bench {

namespace {

double time_of(clockid_t clock) {
    timespec time = {};
    clock_gettime(clock, &time);
    return 1e3 * static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_nsec);
}

// The ports of a VSD are left out: they would be a third ten thousand.
std::vector<dmq::Entry> made_objects() {
    dmq::GenOptions options;
    options.devices = 5;
    options.cards = 20;
    options.ports = 100;
    options.subcards = 0;
    std::vector<dmq::Entry> entries;
    for (const dmq::Json &entry : dmq::make_topology(options)) {
        const std::string name = entry["kind"];
        const auto *kind = dm_schema_find_message(name.c_str());
        if (kind == &p_dev__vsd_port_attr__descriptor) continue;
        entries.push_back({entry["db"], dmq::from_json(entry["object"], *kind, name)});
    }
    return entries;
}

}  // namespace

double process_time() {
    return time_of(CLOCK_PROCESS_CPUTIME_ID);
}

double thread_time() {
    return time_of(CLOCK_THREAD_CPUTIME_ID);
}

const std::vector<dmq::Entry> &objects() {
    static const auto made = made_objects();
    return made;
}

std::vector<const ProtobufCMessage *> global_ports() {
    std::vector<const ProtobufCMessage *> ports;
    for (const dmq::Entry &entry : objects()) {
        if (entry.object->descriptor == &p_dev__vsd_port__descriptor) ports.push_back(entry.object.get());
    }
    return ports;
}

void check(int32_t code, const char *what) {
    if (code != 0) throw std::runtime_error(what + (": code " + std::to_string(code)));
}

Client open_client(const std::string &url) {
    tq_mom_handle *handle = nullptr;
    check(tq_mom_client_open(url.c_str(), &handle), "open");
    return Client(handle);
}

void set(const Client &client, const ProtobufCMessage &object, uint32_t db) {
    check(tq_mom_set(client.get(), db, &object, 0, 0), "set");
}

void load(const std::string &url) {
    const Client client = open_client(url);
    for (const dmq::Entry &entry : objects()) set(client, *entry.object, entry.db);
}

Clock::time_point Tally::wait() {
    if (!done_.try_acquire_for(std::chrono::minutes(1))) throw std::runtime_error("something was not heard");
    return at_;
}

}  // namespace bench
