// Changes of one object, each beside one packed copy of it, and a stream of them from the store.
#include "bench/cache.h"
#include "tq_dm_cache/dm_port_index.h"

namespace bench {

namespace {

using Global = std::unique_ptr<PDev__VsdPort, void (*)(PDev__VsdPort *)>;

template <class T> T *own_copy(const T *message) {
    return reinterpret_cast<T *>(packed_copy(message->base));
}

// Stores every port again after `change(copy)`, on copies of the cached ones; what was there before comes back.
template <class T, class Change>
void add_sets(const std::string &name, int32_t row, const T *Port::*of, Change change) {
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State &state) {
        std::vector<T *> copies;
        for (const Port &port : cache().ports) copies.push_back(own_copy(port.*of));
        Way way(copies.size());
        for (auto _ : state) {
            T *const copy = copies[way.next()];
            change(*copy);
            dm_cache_set_obj(row, copy);
        }
        for (const Port &port : cache().ports) dm_cache_set_obj(row, port.*of);
        for (T *copy : copies) release(&copy->base);
    });
    benchmark::RegisterBenchmark((name + "/rival").c_str(), [=](benchmark::State &state) {
        std::vector<T *> copies;
        for (const Port &port : cache().ports) copies.push_back(own_copy(port.*of));
        Way way(copies.size());
        for (auto _ : state) release(packed_copy(copies[way.next()]->base));
        for (T *copy : copies) release(&copy->base);
    });
}

// A delete is a push of the store; the object goes back in unmeasured. One at a time through the exported list and tree.
void remove(const PDev__VsdPort *port) {
    obj_sub_entry &row = obj_sub_list[DM_ROW_VSD_PORT];
    ndm_cache_tree_del_node(&row, port);
    dm_cache_list_free(dm_cache_list_del(row.obj_list, row.cmp_func, port));
}

void add_deletes() {
    benchmark::RegisterBenchmark("change/delete", [](benchmark::State &state) {
        const auto &all = cache().ports;
        Way way(all.size());
        size_t gone = 0;
        const auto put_back = [&] {
            for (const Port &port : all) dm_cache_set_obj(DM_ROW_VSD_PORT, port.global);
            gone = 0;
        };
        dm_cache_lock();
        for (auto _ : state) {
            if (gone++ == all.size() / 2) {
                state.PauseTiming();
                put_back();
                state.ResumeTiming();
            }
            remove(all[way.next()].global);
        }
        put_back();
        dm_cache_unlock();
    });
}

void add_stream() {
    benchmark::RegisterBenchmark("change/stream", stream_changes)
        ->Unit(benchmark::kMillisecond)
        ->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark(
        "change/stream/rival",
        [](benchmark::State &state) {
            for (auto _ : state)
                for (const Port &port : cache().ports)
                    for (int i = 0; i < 3; ++i) release(packed_copy(port.global->base));
            state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(cache().ports.size()));
        })
        ->Unit(benchmark::kMillisecond)
        ->MeasureProcessCPUTime();
}

}  // namespace

void stream_changes(benchmark::State &state) {
    LiveCache &live = cache();
    std::vector<PDev__VsdPort *> copies;
    for (const Port &port : live.ports) copies.push_back(own_copy(port.global));
    for (auto _ : state) {
        for (PDev__VsdPort *copy : copies) {
            ++copy->bandwidth;
            set(live.client, copy->base);
        }
        check(tq_mom_client_drain(live.client.get(), 60'000), "drain");
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(copies.size()));
    for (PDev__VsdPort *copy : copies) release(&copy->base);
    for (const Port &port : live.ports) set(live.client, port.global->base);
    check(tq_mom_client_drain(live.client.get(), 60'000), "drain");
}

void add_changes() {
    add_sets("change/equal port", DM_ROW_VSD_PORT, &Port::global, [](PDev__VsdPort &) {});
    add_sets("change/equal static port", DM_ROW_PORT_STATIC, &Port::at_its_place, [](PDev__PortStatic &) {});
    add_sets("change/port, other keys", DM_ROW_VSD_PORT, &Port::global,
             [](PDev__VsdPort &port) { port.ifx ^= 0x100000; });
    add_sets("change/static port", DM_ROW_PORT_STATIC, &Port::at_its_place,
             [](PDev__PortStatic &port) { port.static_info->lport ^= 0x80; });
    add_deletes();
    add_stream();
}

}  // namespace bench
