// The reads of the cache behind the shapes, which a listener hears of. The caller holds the cache lock, for reading at least.
#include "query/shapes.h"

#include "base/trace.h"

namespace dm {

const ProtobufCMessage *cached_object(int32_t row, const ProtobufCMessage *key) {
    const ProtobufCMessage *found = nullptr;
    dm_cache_get_obj(row, key, &found);
    if (is_to_be_told(found)) tell_read(row, key, found);
    return found;
}

dm_cache_list *walked_list(int32_t row) {
    dm_cache_list *list = obj_sub_list[row].obj_list;
    const int32_t count = list ? list->count : 0;
    if (is_to_be_told(count > 0)) tell_walk(row, count);
    return list;
}

}  // namespace dm
