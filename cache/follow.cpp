// Following and unfollowing (dm_cache_follow.h). Takes the cache lock while a follower is entered with what is there.
#include "tq_dm_cache/dm_cache_follow.h"

#include "base/rows.h"
#include "cache/events.h"
#include "cache/startup.h"

namespace dm {
namespace {

bool can_be_followed(int32_t type) {
    return type == applications || (row_in_range(type) && kind_of_row(type));
}

}  // namespace
}  // namespace dm

using namespace dm;

int32_t dm_cache_follow(int32_t type, dm_cache_follow_cb callback, void *word, uint32_t flags) {
    if (!callback || !can_be_followed(type)) return -1;
    {
        CacheLock lock;
        if (const int32_t code = add_follower(type, callback, word, flags); code != 0) return code;
    }
    if (type != applications) enable_row(type);
    deliver_soon();
    return 0;
}

int32_t dm_cache_unfollow(int32_t type, dm_cache_follow_cb callback, void *word) {
    return callback && can_be_followed(type) ? remove_follower(type, callback, word) : -1;
}
