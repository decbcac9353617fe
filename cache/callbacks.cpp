// Registration of kinds and their change callbacks. Takes no lock: clients register before start-up.
#include "cache/callbacks.h"

#include <algorithm>
#include <iterator>

#include "base/clock.h"
#include "base/log.h"
#include "base/rows.h"
#include "cache/status.h"

static constexpr dm::LogTag log_tag{"dm_cache"};

namespace dm {
namespace {

int32_t add_callback(obj_sub_entry &row, dm_cache_change_cb func) {
    auto *const end = std::end(row.func);
    if (std::find(row.func, end, func) != end) return -2;
    auto *const empty = std::find(row.func, end, nullptr);
    if (empty == end) return -1;
    *empty = func;
    ++row.func_num;
    return 0;
}

void *shown(dm_cache_change_cb func) {
    return reinterpret_cast<void *>(func);
}

}  // namespace

int32_t call_callbacks(tq_mom_handle *handle, int32_t type, int32_t operation, ProtobufCMessage *message) {
    for (const dm_cache_change_cb func : obj_sub_list[type].func) {
        if (!func) break;
        DM_LOG_AS(Caller{"dm_cache_user_cb_call"}, trace, "notify update obj[%d][%p].\n", type, shown(func));
        const timespec begun = monotonic_now();
        func(handle, type, operation, message);
        status_callback(type, begun);
    }
    return 0;
}

}  // namespace dm

int32_t dm_cache_sub_obj(int32_t type, dm_cache_change_cb func, int32_t flag) {
    using namespace dm;
    if (!row_in_range(type)) {
        DM_LOG(failure, "param err[%d][%p].\n", type, shown(func));
        return -1;
    }
    obj_sub_entry &row = obj_sub_list[type];
    if (const int32_t result = func ? add_callback(row, func) : 0; result != 0) {
        DM_LOG(failure, "add func err[%d].\n", result);
        return result;
    }
    row.enable = 1;
    row.flag = flag;
    DM_LOG(notice, "cache[%d] func[%p] flag[%d].\n", type, shown(func), flag);
    return 0;
}
