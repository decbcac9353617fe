// The program: bench_cache PORTS [without-lock] [options of Google Benchmark]. Without a lock only what reads may be asked for.
#include "bench/cache.h"

#include <map>
#include <tuple>

#include "tq_dm_cache/dm_cache_status.h"

namespace bench {

namespace {

bool without_lock = false;

auto place_of(const auto &key) {
    return std::tuple(key.t_dev, key.t_slot, key.t_sslot, key.t_port, static_cast<int>(key.t_type));
}

}  // namespace

std::vector<Port> ports(int count) {
    std::map<std::tuple<int, int, int, int, int>, const PDev__PortStatic *> statics;
    for (const dmq::Entry &entry : objects()) {
        if (entry.object->descriptor != &p_dev__port_static__descriptor) continue;
        const auto *port = reinterpret_cast<const PDev__PortStatic *>(entry.object.get());
        statics[place_of(*port->index)] = port;
    }
    std::vector<Port> found;
    for (const ProtobufCMessage *object : global_ports()) {
        const auto *port = reinterpret_cast<const PDev__VsdPort *>(object);
        found.push_back({port, statics.at(place_of(*port->index))});
        if (found.size() == static_cast<size_t>(count)) break;
    }
    return found;
}

void load_ports(const Client &client, const std::vector<Port> &ports) {
    for (const dmq::Entry &entry : objects()) {
        const auto *kind = entry.object->descriptor;
        if (kind != &p_dev__vsd_port__descriptor && kind != &p_dev__port_static__descriptor)
            set(client, *entry.object, entry.db);
    }
    for (const Port &port : ports) {
        set(client, port.global->base);
        set(client, port.at_its_place->base);
    }
}

LiveCache &cache(int count) {
    static LiveCache *const only = [count] {
        auto *made = new LiveCache{open_client("mem:"), ports(count)};
        load_ports(made->client, made->ports);
        if (!without_lock) dm_cache_multi_thread_init();
        for (int32_t row = 1; row < DM_ROW_COUNT; ++row)
            dm_cache_sub_obj(row, row == DM_ROW_VSD_PORT ? hear_change : nullptr, 0);
        check(dm_cache_init(made->client.get(), "bench"), "dm_cache_init");
        check(dm_cache_wait_synced(60'000), "the first application");
        return made;
    }();
    return *only;
}

ProtobufCMessage *packed_copy(const ProtobufCMessage &message) {
    const size_t size = protobuf_c_message_get_packed_size(&message);
    const std::unique_ptr<uint8_t, void (*)(void *)> bytes(static_cast<uint8_t *>(calloc(1, size)), free);
    protobuf_c_message_pack(&message, bytes.get());
    return protobuf_c_message_unpack(message.descriptor, nullptr, size, bytes.get());
}

}  // namespace bench

int main(int argc, char **argv) {
    const int count = argc > 1 ? std::atoi(argv[1]) : 0;
    if (count < 1 || count > bench::ports_of_a_kind) {
        std::fprintf(stderr, "usage: bench_cache PORTS [--benchmark_..]   PORTS is 1 to %d\n", bench::ports_of_a_kind);
        return 2;
    }
    if (argc == 3 && std::string(argv[2]) == "synchronisation") return bench::print_synchronisation(count);
    std::vector<char *> arguments(argv, argv + argc);
    arguments.erase(arguments.begin() + 1);
    bench::without_lock = argc > 2 && std::string(argv[2]) == "without-lock";
    if (bench::without_lock) arguments.erase(arguments.begin() + 1);
    int left = static_cast<int>(arguments.size());
    benchmark::Initialize(&left, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(left, arguments.data())) return 2;
    bench::add_synchronisations(argv[0], count);
    bench::cache(count);
    bench::add_look_ups();
    bench::add_changes();
    bench::add_threads();
    bench::add_inspected();
    benchmark::RunSpecifiedBenchmarks();
}
