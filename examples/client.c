/*
 * A client of the device cache in one page: follow a kind of objects, start, wait, read under the lock. The object that
 * it reads it puts into an embedded store first; a real client finds the store filled.
 */
#include <stdio.h>

#include "tq_dm_cache/dm_cache.h"
#include "tq_dm_cache/dm_cache_follow.h"
#include "tq_dm_cache/dm_cache_status.h"
#include "tq_dm_cache/p_dev.pb-c.h"
#include "tq_dm_cache/tq_platform_bundled.h"

static int32_t on_device(tq_mom_handle *handle, int32_t type, int32_t operation, ProtobufCMessage *message) {
    static const char *const did[] = {"added", "replaced", "deleted"};
    (void)handle;
    printf("row %d: device %d was %s\n", (int)type, (int)((PDev__DeviceInfo *)message)->devid, did[operation]);
    return 0;
}

int main(void) {
    tq_mom_handle *handle = NULL;
    if (tq_mom_client_open("mem:", &handle)) return 1;

    PDev__DeviceInfoIndex key = P_DEV__DEVICE_INFO_INDEX__INIT;
    PDev__DeviceInfo device = P_DEV__DEVICE_INFO__INIT;
    key.devid = device.devid = 1;
    device.index = &key;
    device.devname = "switch-1";
    if (tq_mom_set(handle, 1, &device.base, 0, 0)) return 1;

    dm_cache_multi_thread_init();
    dm_cache_sub_obj(DM_ROW_DEVICE_INFO, on_device, 0);
    if (dm_cache_init(handle, "client") || dm_cache_wait_synced(5000)) return 1;

    const PDev__DeviceInfo *cached = NULL;
    dm_cache_lock();
    if (dm_cache_get_obj(DM_ROW_DEVICE_INFO, &key, &cached) == 0) printf("device 1 is called %s\n", cached->devname);
    dm_cache_unlock();
    dm_cache_stop();
    return tq_mom_client_close(handle);
}
