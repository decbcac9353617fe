// What a store holds, read from it directly: for the comparison with the cache, and for those who would change it.
#pragma once

#include <map>

#include "dmq/session.h"

namespace dmq {

// What one kind holds on one side, by packed key: packed objects, and of the damaged ones what is left, their keys.
struct Content {
    std::map<std::string, std::string> objects;
    std::map<std::string, Message> damaged;
};

Content stored(Session &session, const ObjectKind &kind);

// Has the cache what the store holds? What it lacks is named on standard error: objects that were damaged, once; rows that
// refused objects, with the first one; and a store that is empty, which is never whole.
bool is_whole(Session &session);

}  // namespace dmq
