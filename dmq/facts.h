// What the library's queries answer, as cells of a table: an answer that is none is null, which prints as "-"; and all that is
// known of one port, card or device. Each query takes the cache lock as its header says.
#pragma once

#include "dmq/views.h"
#include "tq_dm_cache/ndm.h"

namespace dmq {

// These stand for an unknown number and identifier.
constexpr int32_t unknown = -1;
constexpr uint32_t no_id = 0xFFFFFFFF;

Json number(int32_t answer);
Json hex(uint32_t id);
Json enum_name(const ProtobufCEnumDescriptor &type, int32_t answer);

// What a query writes through its last argument: unknown or no_id when it does not answer.
template <class Out = int32_t, class Query, class... Args> Out written(Query query, Args... args) {
    auto answer = static_cast<Out>(unknown);
    return query(args..., &answer) == 0 ? answer : static_cast<Out>(unknown);
}

// The text that a query writes into its last arguments, a buffer and its length.
template <class Query, class... Args> Json text(Query query, Args... args) {
    char buffer[128];
    return query(args..., buffer, static_cast<int32_t>(sizeof buffer)) < 0 ? Json() : Json(buffer);
}

// The cached object with this key, borrowed while the cache lock is held; null: there is none. (A query's copy may lack
// memory, which would look like an object that is not there.)
template <class T, class Key> const T *cached(int32_t row, const Key &key) {
    const T *object = nullptr;
    dm_cache_get_obj(row, &key, &object);
    return object;
}

// A port's key at the place of another one, which may be of another kind: a static port's, or a global one's without its VSD.
template <class Key, class Port> Key at_place_of(const Port &port, Key key) {
    key.t_dev = port.t_dev;
    key.t_slot = port.t_slot;
    key.t_port = port.t_port;
    key.t_type = port.t_type;
    key.t_sslot = port.t_sslot;
    return key;
}

uint32_t node_of(int32_t dev, int32_t pslot, int32_t sub);

// As an operator calls the slot of a card; by its node when the library has no name for it.
Json slot_name(uint32_t node, int32_t user_slot = unknown);

// The answer of a query about a thing, or a field of an object.
struct Fact {
    std::string name;               // "port_type", "static_info.lane_num"
    Json value;                     // null: no answer
    std::string shown;              // what the value means: "ETH_25G"
    std::vector<std::string> from;  // the rows that say it, "row 17 p_dev.card_info"; none: it is computed
};

// Of a thing of `show` by its object and its record in the table: what each query answers that is about such a thing, then
// what the cached objects say. The caller holds the cache lock.
std::vector<Fact> facts_of(const View &view, const std::vector<Json> &record, const ProtobufCMessage &object);

}  // namespace dmq
