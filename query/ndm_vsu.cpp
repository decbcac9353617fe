// Answers ndm/requests.h and virtual_switch.h: virtual switching: is this a unit of several chassis, which cards link them;
// and subscriptions of a client's own. Takes the cache lock for the former.
#include "cache/gate.h"
#include "query/shapes.h"
#include "tq_dm_cache/ndm/requests.h"
#include "tq_dm_cache/ndm/virtual_switch.h"

static constexpr dm::LogTag log_tag{"ndm_vsu", dm::Threshold::library};

namespace dm {
namespace {

constexpr int32_t cmd_dropped = 28;

int32_t _ndm_get_device_mode() {
    return cached_field(&PDev__DpLibMyChssInfo::device_mode).value_or(-1);
}

int32_t subscribe_fields(ndm_lib_sub_info *req) {
    std::array<tq_mom_msg_cb, NDM_LIB_SUB_FIELDS> callbacks;
    std::array<void *, NDM_LIB_SUB_FIELDS> words;
    callbacks.fill(ndm_lib_subcribe_com);
    words.fill(req);
    return tq_mom_subscribe_field(store_handle(), req->db, req->key, 0, req->fields, callbacks.data(), words.data(),
                                  req->field_num);
}

}  // namespace
}  // namespace dm

using namespace dm;

int32_t ndm_is_vsu(void) {
    return _ndm_get_device_mode() == P_DEV__VSU_CFG_MODE_E__SWITCH_MODE_VIRTUAL ? 1 : 0;
}

int32_t ndm_is_vsl_card(int32_t devid, int32_t slot) {
    if (!ndm_is_vsu()) return 0;
    SharedCacheLock lock;
    for (const auto &port : all<PDev__VslPortInfo>())
        if (port.index && port.index->devid == devid && port.index->slotid == slot) return 1;
    return 0;
}

int32_t ndm_vsl_cmp_ap(const void *port, const int32_t *vsl_ap) {
    return port && vsl_ap && static_cast<const PDev__VslPortInfo *>(port)->vsl_ap == *vsl_ap ? 0 : -1;
}

int32_t ndm_lib_subcribe(ndm_lib_sub_info *req) {
    if (!req) return 0;
    if (req->subscribed) return 1;
    const StoreCallback inside;
    if (req->field_num < 0 || req->field_num > NDM_LIB_SUB_FIELDS || !inside.may_run()) return 0;
    const int32_t ret = req->field_num != 0
                            ? subscribe_fields(req)
                            : tq_mom_subscribe(store_handle(), req->db, req->key, 0, ndm_lib_subcribe_com, req);
    if (ret != 0) return 0;
    req->subscribed = 1;
    return 1;
}

int32_t ndm_lib_subcribe_com(tq_mom_handle *handle, store_msg *msg, void *request) {
    auto *req = static_cast<ndm_lib_sub_info *>(request);
    if (!req || !msg) {
        DM_LOG(failure, "invalid param.\n");
        return -1;
    }
    if (msg->cmd == TQ_MOM_CMD_SUBSCRIBED) {
        // The store hands the private word back as it is, so it serves as the callback's third argument.
        static char origin_scan[] = "scan";
        return tq_mom_scan(store_handle(), msg->db, req->key, 0, reinterpret_cast<tq_mom_msg_cb>(req->cb), origin_scan);
    }
    if (msg->flag == 1)
        req->scan_done = 1;
    else if (msg->cmd == cmd_dropped)
        return 0;
    if (req->cb) req->cb(handle, msg, "subscribe");
    return 0;
}
