// What the files of the port module share: card descriptions and port attributes, from the cache or, when asked, from the
// store. Takes the cache lock for each read of the cache; with rt 1 the caller does not hold it.
#pragma once

#include "port_index/lookups.h"
#include "query/store_read.h"

namespace dm {

// A copy of a card type's attributes. What the store has is cached.
int32_t ndm_get_card_obj_by_type(int32_t card_type, PDev__DmCardStattrT **card, uint8_t rt);

// What queries ask of a port's attributes.
struct PortFacts {
    int32_t type;
    bool poe_support;
    bool hpoe_support;
};

// The facts of a port; follow_subcard 1: as the sub-card that owns the port describes it.
int32_t ndm_get_port_static_by_objid(uint32_t objid, PortFacts *port, uint8_t rt, uint8_t follow_subcard);

// The combo ports of this card; with rt 1 its ports are read from the store when none is cached.
int32_t _ndm_get_my_card_multi_lport(int32_t *lports, int32_t *num, uint8_t rt);

// A copy of a type's description, by the index that `find` searches; with rt 1 else from the store, which is then cached.
template <class T, class Key>
int32_t copy_or_read(int32_t (*find)(int32_t, void *), int32_t type, const Key &key, T **out, uint8_t rt,
                     Caller caller = Caller{}) {
    if (find(type, out) == 0) return 0;
    if (rt != 1) return -1;
    const StoreRead<T> read(ReadBy::object, key, caller);
    if (!read) return -1;
    read.cache();
    return hand_out(*read, out);
}

// The answer that a type's description gives: the indexed one under the lock, else, with rt 1, the store's, which is then
// cached. -1 when neither has it.
template <class T, class Key, class Answer>
int32_t answer_by_type(int32_t type, const Key &key, uint8_t rt, const Answer &answer, Caller caller) {
    {
        SharedCacheLock lock;
        if (const T *found = indexed<T>(by_type, type)) return answer(*found);
    }
    if (rt != 1) return -1;
    const StoreRead<T> read(ReadBy::object, key, caller);
    if (!read) return -1;
    read.cache();
    return answer(*read);
}

// A message of a row's scan that carries an object at all, and the object; null, counted as refused and logged for the caller,
// when it cannot be used.
inline bool carries_object(const store_msg &msg) {
    return msg.cmd == TQ_MOM_CMD_REPLY || msg.cmd == TQ_MOM_CMD_SET;
}
const ProtobufCMessage *scanned_object(const store_msg &msg, int32_t row, Caller caller = Caller{});

}  // namespace dm
