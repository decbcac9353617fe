// Feeds the cache through its public entry points only.
#include "tests/support/live_cache.h"

Strings changes;

int32_t note_change(tq_mom_handle *, int32_t type, int32_t operation, ProtobufCMessage *message) {
    static constexpr const char *names[] = {" added", " replaced", " deleted"};
    const std::string key = key_text(message);
    changes.push_back(std::to_string(type) + names[operation] + (key.empty() ? "" : ' ' + key));
    return -1;
}

void start(std::initializer_list<int32_t> rows) {
    for (const int32_t row : rows) dm_cache_sub_obj(row, note_change, 0);
    dm_cache_init(&platform.handle, "test");
}

void start_gathering(std::initializer_list<int32_t> rows) {
    start(rows);
    platform.become_ready();
    platform.confirm();
    platform.calls.clear();
}

int32_t receive(int32_t row, int32_t cmd, const Message &object, int32_t flag) {
    result_rec record{};
    record.obj = object.get();
    const bool wrapped = cmd == REPLY || cmd == REPLY_HASH || cmd == REPLY_GET;
    return receive_value(row, cmd, wrapped ? static_cast<void *>(&record) : object.get(), flag);
}

int32_t receive_value(int32_t row, int32_t cmd, void *value, int32_t flag, int32_t result) {
    auto *const word = reinterpret_cast<void *>(static_cast<intptr_t>(row));
    return Request{0, nullptr, dm_cache_mom_callback_func, word}.deliver(cmd, value, flag, result);
}

dm_cache_list_node *element(int32_t row, const Message &object) {
    return dm_cache_list_find(obj_sub_list[row].obj_list, obj_sub_list[row].cmp_func, object.get());
}

dm_cache_stats counters(int32_t row) {
    dm_cache_stats stats{};
    EXPECT_EQ(dm_cache_get_stats(row, &stats, sizeof stats), 0);
    return stats;
}

bool another_thread_can_lock() {
    std::packaged_task<int32_t()> take([] { return dm_cache_lock() + dm_cache_unlock(); });
    auto taken = take.get_future();
    std::thread(std::move(take)).detach();
    return taken.wait_for(std::chrono::seconds(10)) == std::future_status::ready && taken.get() == 0;
}
