// Copies, look-ups and queries, beside packed copies, a walk, and a server that is asked for each object.
#include <algorithm>

#include "bench/bare_subscriber.h"
#include "bench/cache.h"
#include "tests/platform/redis_server.h"
#include "tq_dm_cache/ndm.h"

namespace bench {

namespace {

using benchmark::DoNotOptimize;

// Measures `act(port)` over the ports of the cache.
template <class Act> void add(const std::string &name, Act act, size_t step = in_order) {
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State &state) {
        const auto &all = cache().ports;
        Way way(all.size(), step);
        for (auto _ : state) act(all[way.next()]);
    });
}

// Finds one port after the other by keys that lie beside each other, with the lock held.
void add_look_up_by_key(const std::string &name, size_t step) {
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State &state) {
        std::vector<PDev__VsdPortIndex> keys;
        Way way(cache().ports.size(), step);
        for (size_t i = 0; i < cache().ports.size(); ++i) keys.push_back(*cache().ports[way.next()].global->index);
        Way next(keys.size());
        dm_cache_lock();
        for (auto _ : state) {
            const PDev__VsdPort *found = nullptr;
            dm_cache_get_obj(DM_ROW_VSD_PORT, &keys[next.next()], &found);
            DoNotOptimize(found);
        }
        dm_cache_unlock();
    });
}

void copy_and_release(const ProtobufCMessage &message) {
    ProtobufCMessage *copy = nullptr;
    dm_cache_copy_obj(&message, message.descriptor, &copy);
    release(copy);
}

uint32_t objid_of(const Port &port) {
    uint32_t objid = 0;
    ndm_get_objid_by_slot_lport(static_cast<int32_t>(port.global->dev), port.global->physlot,
                                port.at_its_place->static_info->lport, &objid);
    return objid;
}

int32_t count_one(ProtobufCMessage *object, uintptr_t *count) {
    *count += object != nullptr;
    return 0;
}

void add_copies() {
    add("copy/port", [](const Port &port) { copy_and_release(port.global->base); });
    add("copy/port/rival", [](const Port &port) { release(packed_copy(port.global->base)); });
    add("copy/static", [](const Port &port) { copy_and_release(port.at_its_place->base); });
    add("copy/static/rival", [](const Port &port) { release(packed_copy(port.at_its_place->base)); });
}

void add_server() {
    benchmark::RegisterBenchmark("look-up/ifx/server", [](benchmark::State &state) {
        static RedisServer server;
        static const bool loaded = (load_ports(open_client(server.url()), cache().ports), true);
        (void)loaded;
        const Context context = connect(server.socket());
        const std::string hash = tq::hash_of({1, p_dev__vsd_port__descriptor.name});
        const auto &all = cache().ports;
        std::vector<std::string> commands;
        for (const Port &port : all) commands.push_back(formatted({"HGET", hash, dmq::pack(port.global->index->base)}));
        Way way(all.size());
        for (auto _ : state) {
            const std::string &command = commands[way.next()];
            redisAppendFormattedCommand(context.get(), command.data(), command.size());
            void *reply = nullptr;
            redisGetReply(context.get(), &reply);
            const auto &answer = *static_cast<redisReply *>(reply);
            if (answer.type != REDIS_REPLY_STRING) state.SkipWithError("no such object");
            release(protobuf_c_message_unpack(&p_dev__vsd_port__descriptor, nullptr, answer.len,
                                              reinterpret_cast<const uint8_t *>(answer.str)));
            freeReplyObject(reply);
        }
    });
}

// The same few questions, however much else the cache holds.
template <class Act> void ask(const std::string &name, Act act) {
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State &state) {
        const auto &all = cache().ports;
        Way way(std::min(all.size(), size_t{10}));
        for (auto _ : state) act(all[way.next()]);
    });
}

void add_queries() {
    ask("query/interface index", [](const Port &port) { DoNotOptimize(ndm_get_global_ifx_by_objid(objid_of(port))); });
    ask("query/port type", [](const Port &port) {
        int32_t type = 0;
        DoNotOptimize(ndm_get_port_type(objid_of(port), &type));
    });
    ask("query/chips of this card", [](const Port &) {
        int32_t *chips = nullptr;
        DoNotOptimize(ndm_get_my_lchips(&chips));
        free(chips);
    });
    ask("query/device name", [](const Port &port) {
        char name[64];
        DoNotOptimize(ndm_get_dev_name_by_id(static_cast<int32_t>(port.global->dev), name, sizeof name));
    });
    ask("query/card is online", [](const Port &port) {
        DoNotOptimize(ndm_card_is_online(static_cast<int32_t>(port.global->dev), port.global->physlot, 0));
    });
    ask("query/static port of an interface", [](const Port &port) {
        PDev__PortStatic *copy = nullptr;
        ndm_get_static_port_by_ifx(port.global->index->t_vsdid, port.global->ifx, &copy);
        ndm_port_obj_free(copy);
    });
    ask("query/port of a place", [](const Port &port) {
        PDev__VsdPort *copy = nullptr;
        ndm_get_global_port_by_lsm_key_with_subslot(
            static_cast<int32_t>(port.global->dev), static_cast<int32_t>(port.global->slot),
            port.global->index->t_sslot, port.global->index->t_port, port.global->index->t_type, &copy);
        ndm_port_obj_free(copy);
    });
}

}  // namespace

void add_look_ups() {
    add_copies();
    add_look_up_by_key("look-up/key", in_order);
    add_look_up_by_key("look-up/key, in leaps", in_leaps);
    add("look-up/key/walk", [](const Port &) {
        dm_cache_lock();
        DoNotOptimize(dm_cache_foreach_obj(DM_ROW_VSD_PORT, count_one, 0));
        dm_cache_unlock();
    });
    const auto by_ifx = [](const Port &port) {
        PDev__VsdPort *copy = nullptr;
        ndm_get_global_port_by_ifx(port.global->index->t_vsdid, port.global->ifx, &copy);
        ndm_port_obj_free(copy);
    };
    add("look-up/ifx", by_ifx);
    add("look-up/ifx, in leaps", by_ifx, in_leaps);
    add_server();
    add_queries();
}

}  // namespace bench
