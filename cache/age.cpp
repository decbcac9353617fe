// How old is the cache's picture of the store? While the cache is live the store client knows, for whatever the client has
// delivered has been applied. While the cache gathers, what was delivered waits, and the picture is as old as it was when
// the gathering began, and the time since. Any thread. Takes no lock.
#include "cache/age.h"

#include "base/clock.h"
#include "cache/gate.h"
#include "cache/row_sync.h"
#include "tq_dm_cache/dm_cache_status.h"

// Of the bundled platform; a client of another platform may have none.
extern "C" __attribute__((weak)) int64_t tq_mom_client_heard_ms(tq_mom_handle *handle);

namespace dm {
namespace {

constexpr int64_t never = -1;

int64_t equal_until_ms = never;  // by the clock, while the cache is not live

int64_t heard_ms_ago() {
    tq_mom_handle *const handle = store_handle();
    return tq_mom_client_heard_ms && handle ? tq_mom_client_heard_ms(handle) : -1;
}

// What the store keeps of the row is cached. One that is not to be cached is empty.
bool is_kept_equal(int32_t row) {
    return row_followed(obj_sub_list[row]) && (obj_sub_list[row].flag & DM_CACHE_NO_STORE) == 0 &&
           load(row_sync[row].equal) != 0;
}

int64_t age_of_machine() {
    const int64_t ago = heard_ms_ago();  // first: what was delivered before the cache became live has been applied then
    if (load(machine_is_live) != 0) return ago;
    const int64_t equal_until = load(equal_until_ms);
    return equal_until == never ? -1 : now_ms() - equal_until + 1;  // rounded up
}

}  // namespace

void age_grows_from_now() {
    const int64_t ago = heard_ms_ago();
    store(equal_until_ms, ago < 0 ? never : now_ms() - ago);
}

}  // namespace dm

using namespace dm;

int64_t dm_cache_age_ms(int32_t type) {
    const StoreCallback inside;  // dm_cache_stop() waits for it, and the handle stays
    if (!inside.may_run() || !row_in_range(type) || !is_kept_equal(type)) return -1;
    const int64_t age = age_of_machine();
    return is_kept_equal(type) ? age : -1;  // a row that became another one meanwhile has no such age
}
