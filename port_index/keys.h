// The keys of the secondary indexes: how each is composed, and the builders that make an element's key record. Lookups
// compose theirs with the same functions. The caller holds the cache lock.
#pragma once

#include <cstdint>

#include "base/lock.h"
#include "base/rows.h"
#include "tq_dm_cache/dm_port_index.h"

namespace dm {

// Components are not masked: one that is wider than its place spills into its neighbours, in builders and lookups alike.
// A packed 32-bit value is a signed number and keeps its sign in the 64-bit key.
constexpr uint32_t bits(int64_t component, unsigned shift) {
    return static_cast<uint32_t>(component) << shift;
}
constexpr int64_t widened(uint32_t packed) {
    return static_cast<int32_t>(packed);
}

constexpr int64_t unit_cport_key(int64_t unit, int64_t cport) {
    return widened(bits(cport, 16) | bits(unit, 0));
}

constexpr int64_t ifx_key(int64_t vsdid, int64_t ifx) {
    return widened(bits(vsdid, 24) | bits(ifx, 0));
}

constexpr int64_t dm_phyid_key(int64_t dev, int64_t physlot, int64_t unit, int64_t port) {
    return widened(bits(dev, 24) | bits(physlot, 16) | bits(unit, 8) | bits(port, 0));
}

constexpr int64_t ss_phyid_key(int64_t dev, int64_t physlot, int64_t lport) {
    return widened(0x06000000u | bits(dev, 16) | bits(physlot, 8) | bits(lport, 0));
}

constexpr int64_t lsm_key(int64_t sslot, int64_t type, int64_t dev, int64_t slot, int64_t port) {
    const int64_t packed = widened(bits(type, 24) | bits(dev, 16) | bits(slot, 8) | bits(port, 0));
    return static_cast<int64_t>(static_cast<uint64_t>(sslot) << 32) | packed;
}

// The trees of a port's index, of a local port's, and of a type's.
enum PortTree : int32_t { by_ifx, by_dm_phyid, by_ss_phyid, by_lsm, port_trees };
enum LocalTree : int32_t { by_unit_cport, by_lport, local_trees };
enum TypeTree : int32_t { by_type, type_trees };

// The trees of an index and the builder of its key records.
struct IndexPlan {
    int32_t trees;  // 0: the row is set up without an index set
    int32_t (*gen_key)(dm_cache_list_node *node);
};
IndexPlan plan_of(Index index);

// How often a builder has got no memory for a key record. Under the cache lock.
extern uint32_t key_records_missing;

// The two kinds of port key name the same place, which is what a port and its static port have in common.
template <class Key> bool same_place(const Key &a, const PDev__PortIndex &b) {
    return a.t_dev == b.t_dev && a.t_slot == b.t_slot && a.t_sslot == b.t_sslot && a.t_port == b.t_port &&
           a.t_type == b.t_type;
}

// The cached static port at a place; null when there is none.
PDev__PortStatic *find_static_port(const PDev__PortIndex &place) DM_REQUIRES_SHARED;

}  // namespace dm
