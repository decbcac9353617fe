// Answers ndm/virtual_switch.h: the layer-3 MAC address of a VSD. Takes the cache lock.
#include "query/shapes.h"
#include "tq_dm_cache/ndm/virtual_switch.h"

static constexpr dm::LogTag log_tag{"ndm_vsd", dm::Threshold::library};

using namespace dm;

int32_t ndm_get_vsd_l3mac(int32_t vsdid, uint8_t *mac, int32_t len) {
    constexpr size_t mac_size = 6;
    if (vsdid != 0 || !mac || len < static_cast<int32_t>(mac_size)) {
        DM_LOG(failure, "invalid param.\r\n");
        return -1;
    }
    if (!obj_sub_list[DM_ROW_VSD_INFO].obj_list) {
        DM_LOG(failure, "invalid list.\r\n");
        return -1;
    }
    SharedCacheLock lock;
    for (const auto &vsd : all<PDev__VsdInfo>()) {
        if (vsd.l3mac.len < mac_size || vsd.id != vsdid) continue;
        std::memcpy(mac, vsd.l3mac.data, mac_size);
        return 0;
    }
    return -1;
}
