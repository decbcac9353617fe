// The configuration file and the capability file, read once at start-up. Takes no lock.
#include "cache/config.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "base/log.h"
#include "tq_dm_cache/dm_cache.h"

static constexpr dm::LogTag log_tag{"dm_cache"};
static constexpr char cfg_path[] = "/data/.orca/vsd/0/dev/cache.cfg";
static constexpr char cap_path[] = "/etc/cfg/cap/dev_cap/default/g/capacity_cap.xml";
static constexpr char cap_chassis_num[] = "g_capacity_spec/high_availablility/CAP_VSU_CHASSIS_NUM";
static constexpr int32_t cap_type_int = 2;

int32_t dm_vsu_switch_num_limit = 2;
char dm_cache_my_name[32];

int32_t dm_get_vsu_switch_num_limit(void) {
    return dm_vsu_switch_num_limit;
}

namespace dm {
namespace {

struct CloseFile {
    void operator()(FILE *file) const { std::fclose(file); }
};
using OwnedFile = std::unique_ptr<FILE, CloseFile>;

struct CloseCap {
    void operator()(void *cap) const { libtq_cap_get_g_cap_finish(cap); }
};
using OwnedCap = std::unique_ptr<void, CloseCap>;

}  // namespace

int32_t dm_get_cap_value() {
    const OwnedCap cap(libtq_cap_get_g_cap_init(cap_path));
    if (!cap) {
        DM_LOG(failure, "libtq_cap_get_g_cap_init error.\n");
        return -1;
    }
    int32_t value = -1;
    const int32_t ret = libtq_cap_get_g_cap(cap.get(), cap_chassis_num, cap_type_int, &value, 0);
    if (ret == 0 && value >= 1 && value <= 16) {
        dm_vsu_switch_num_limit = value;
        DM_LOG(notice, "dm_cache get URL_CAPA_CAP_VSU_CHASSIS_NUM value %d\r\n", value);
    } else {
        DM_LOG(failure, "dm_cache get URL_CAPA_CAP_VSU_CHASSIS_NUM value failed.\r\n");
    }
    return 0;
}

void dm_cache_read_cfg() {
    const OwnedFile file(std::fopen(cfg_path, "r"));
    if (!file) return;

    // The last "level " line counts, whosever it is.
    int32_t level = 0;
    char name[32] = "";
    char line[256];
    while (std::fgets(line, sizeof line, file.get()))
        if (std::strncmp(line, "level ", 6) == 0) std::sscanf(line, "level %d,%31s", &level, name);

    if (std::strncmp(name, dm_cache_my_name, sizeof name) == 0)
        __atomic_store_n(&g_dm_cache_level, level, __ATOMIC_RELAXED);
}

}  // namespace dm
