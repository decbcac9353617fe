// A live cache in this process, over an embedded store that holds so many global and so many static ports, and all that
// belongs to them. A cache lives as long as its process, so a size is a run of the program. What a figure is compared with
// has the same name and "/rival" behind it.
#pragma once

#include <benchmark/benchmark.h>

#include "bench/unit.h"
#include "tq_dm_cache/dm_cache.h"
#include "tq_dm_cache/p_dev.pb-c.h"

namespace bench {

struct Port {
    const PDev__VsdPort *global;
    const PDev__PortStatic *at_its_place;
};

// Writes the ports and what belongs to them into the store of a URL; how many ports of a kind.
std::vector<Port> ports(int count);
void load_ports(const Client &client, const std::vector<Port> &ports);

// The cache of this process, made at the first call; it follows every kind.
struct LiveCache {
    Client client;
    std::vector<Port> ports;
};
LiveCache &cache(int count = 0);

// Called for every change of a global port.
int32_t hear_change(tq_mom_handle *handle, int32_t type, int32_t operation, ProtobufCMessage *message);

// A way through the ports, the same for a figure and its rival: in the order in which they were stored, or in leaps, so that
// hardly anything is in the processor's caches.
constexpr size_t in_order = 1, in_leaps = 7919;
class Way {
public:
    explicit Way(size_t count, size_t step = in_order, size_t begin = 0)
        : count_(count), step_(step), at_(begin % count) {}
    size_t next() { return at_ = (at_ + step_) % count_; }

private:
    size_t count_, step_, at_;
};

// Packed, unpacked: a copy by protobuf-c alone.
ProtobufCMessage *packed_copy(const ProtobufCMessage &message);
inline void release(ProtobufCMessage *message) {
    protobuf_c_message_free_unpacked(message, nullptr);
}

// Sets of the store from one thread, until the cache has been told of all.
void stream_changes(benchmark::State &state);

void add_look_ups();
void add_changes();
void add_threads();
void add_inspected();

// One first synchronisation in a process that has done nothing else, and what follows it, printed as numbers.
int print_synchronisation(int count);
void add_synchronisations(const std::string &program, int count);

}  // namespace bench
