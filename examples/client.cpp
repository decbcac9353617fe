// A client of the device cache in C++: follow the cards, start, wait, ask, walk under the lock. The card that it shows it puts
// into an embedded store first; a real client finds the store filled.
#include <cstdio>

#include "tq_dm_cache/dm_cache.hpp"
#include "tq_dm_cache/dm_cache_status.h"
#include "tq_dm_cache/ndm.h"
#include "tq_dm_cache/tq_platform_bundled.h"

int main() {
    tq_mom_handle *handle = nullptr;
    if (tq_mom_client_open("mem:", &handle) != 0) return 1;

    PDev__CardInfoIndex key = P_DEV__CARD_INFO_INDEX__INIT;
    PDev__CardInfo card = P_DEV__CARD_INFO__INIT;
    key.devid = 1;
    key.slotid = 3;
    card.index = &key;
    card.is_online = 1;
    card.port_num = 48;
    if (tq_mom_set(handle, 1, &card.base, 0, 0) != 0) return 1;

    dm_cache_multi_thread_init();
    dm_cache::Follower cards = dm_cache::follow<PDev__CardInfo>([](const dm_cache::Event<PDev__CardInfo> &event) {
        if (event.what == DM_CACHE_EVENT_ADDED) std::printf("slot %d: a card was added\n", event.after->index->slotid);
    });
    if (!cards || dm_cache_init(handle, "client") != 0 || dm_cache_wait_synced(5000) != 0) return 1;

    std::printf("slot 3 is %s\n", ndm_card_is_online(1, 3, 0) == 1 ? "online" : "offline");
    {
        const dm_cache::Lock lock;
        for (const PDev__CardInfo &cached : dm_cache::objects<PDev__CardInfo>(lock))
            std::printf("slot %d has %d ports\n", cached.index->slotid, cached.port_num);
    }
    cards.stop();
    dm_cache_stop();
    return tq_mom_client_close(handle);
}
