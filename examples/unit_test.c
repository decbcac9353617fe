/*
 * How a client of the device cache tests its own code: each case has a store of its own name and begins with an empty picture.
 * Here the code under test is one query. No test framework: a case that fails says where and ends the program.
 */
#include <stdio.h>
#include <stdlib.h>

#include "tq_dm_cache/dm_cache_follow.h"
#include "tq_dm_cache/dm_cache_status.h"
#include "tq_dm_cache/ndm.h"
#include "tq_dm_cache/p_dev.pb-c.h"
#include "tq_dm_cache/tq_platform_bundled.h"

#define CHECK(holds) ((holds) ? (void)0 : fail(__LINE__, #holds))

static tq_mom_handle *device_manager, *client; /* who writes the store, and whose cache follows it */

static void fail(int line, const char *what) {
    fprintf(stderr, "line %d: %s\n", line, what);
    exit(1);
}

static void begin(const char *store) {
    CHECK(tq_mom_client_open(store, &device_manager) == 0 && tq_mom_client_open(store, &client) == 0);
    CHECK(dm_cache_init(client, "unit_test") == 0 && dm_cache_wait_synced(5000) == 0);
}

static void end(void) {
    dm_cache_stop();
    tq_mom_client_close(client);
    tq_mom_client_close(device_manager);
}

static void put_card(int is_online) {
    PDev__CardInfoIndex key = P_DEV__CARD_INFO_INDEX__INIT;
    PDev__CardInfo card = P_DEV__CARD_INFO__INIT;
    key.devid = 1;
    key.slotid = 3;
    card.index = &key;
    card.is_online = is_online;
    CHECK(tq_mom_set(device_manager, 1, &card.base, 0, 0) == 0);
    CHECK(tq_mom_client_drain(client, 5000) == 0); /* what has been pushed is cached, callbacks have run */
}

static void a_change_arrives(void) {
    CHECK(ndm_card_is_online(1, 3, 0) != 1);
    put_card(1);
    CHECK(ndm_card_is_online(1, 3, 0) == 1);
}

static void a_lost_connection_keeps_the_last_picture(void) {
    uint32_t applied;
    put_card(1);
    tq_mem_disconnect(client);
    put_card(0);
    CHECK(ndm_card_is_online(1, 3, 0) == 1);
    applied = dm_cache_applied();
    tq_mem_reconnect(client);
    CHECK(dm_cache_wait_applied(applied, 5000) == 0);
    CHECK(ndm_card_is_online(1, 3, 0) != 1);
}

static void a_damaged_object_changes_nothing(void) {
    const uint8_t bytes[] = {0xFF};
    PDev__CardInfoIndex key = P_DEV__CARD_INFO_INDEX__INIT;
    PDev__CardInfo card = P_DEV__CARD_INFO__INIT;
    dm_cache_stats before, after;
    put_card(1);
    key.devid = 1;
    key.slotid = 3;
    card.index = &key;
    CHECK(dm_cache_get_stats(DM_ROW_CARD_INFO, &before, sizeof before) == 0);
    CHECK(tq_mem_put_bytes(device_manager, 1, &card.base, bytes, sizeof bytes) == 0);
    CHECK(tq_mom_client_drain(client, 5000) == 0);
    CHECK(dm_cache_get_stats(DM_ROW_CARD_INFO, &after, sizeof after) == 0);
    CHECK(after.refused == before.refused + 1 && ndm_card_is_online(1, 3, 0) == 1);
}

int main(void) {
    static const struct {
        const char *store;
        void (*run)(void);
    } cases[] = {{"mem:change", a_change_arrives},
                 {"mem:lost", a_lost_connection_keeps_the_last_picture},
                 {"mem:damaged", a_damaged_object_changes_nothing}};
    size_t i;
    dm_cache_multi_thread_init();
    dm_cache_sub_obj(DM_ROW_CARD_INFO, NULL, 0);
    for (i = 0; i < sizeof cases / sizeof *cases; i++) {
        begin(cases[i].store);
        cases[i].run();
        end();
        printf("%s: ok\n", cases[i].store + 4);
    }
    return 0;
}
