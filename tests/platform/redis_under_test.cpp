// The Redis store as the contract tests see it: a server of their own, and for every client a proxy, so that one can be cut
// off while the others go on. mutex guards who has which proxy.
#include <map>

#include "platform/redis_wire.h"
#include "tests/platform/recording_client.h"
#include "tests/platform/redis_server.h"

namespace {

struct World {
    std::mutex mutex;
    std::unique_ptr<RedisServer> server;
    std::map<tq_mom_handle *, std::unique_ptr<Proxy>> proxies;
    int proxies_so_far = 0;
};

World &world() {
    static World only;
    return only;
}

std::string new_redis() {
    world().server.reset();
    world().server = std::make_unique<RedisServer>();
    return world().server->url();
}

Proxy &proxy_of(tq_mom_handle *handle) {
    const std::lock_guard lock(world().mutex);
    return *world().proxies.at(handle);
}

// The client finds out by the call, on whichever thread it is made.
int32_t disconnect(tq_mom_handle *handle) {
    proxy_of(handle).cut();
    int32_t error = 0;
    EXPECT_EQ(tq_mom_get_sync(handle, 1, card(1, 1, 0).get(), &error), nullptr);
    EXPECT_EQ(error, TQ_MOM_E_UNREACHABLE);
    return 0;
}

int32_t reconnect(tq_mom_handle *handle) {
    proxy_of(handle).let_in();
    return tq_mom_client_connect_sync(handle, 0);
}

int32_t restart(tq_mom_handle *, int32_t keep) {
    std::vector<tq_mom_handle *> handles;
    for (const auto &[handle, proxy] : world().proxies) handles.push_back(handle);
    for (tq_mom_handle *handle : handles) disconnect(handle);
    world().server->restart(keep != 0);
    return 0;
}

int32_t lose_confirmations(tq_mom_handle *handle, int32_t n) {
    proxy_of(handle).drop_fences(n);
    return 0;
}

int32_t put_bytes(tq_mom_handle *, uint32_t db, const ProtobufCMessage *object, const uint8_t *bytes, uint32_t length) {
    const std::string hash = "dm:" + std::to_string(db) + ":" + object->descriptor->name;
    const std::string key = packed(key_of(object));
    const std::string value(reinterpret_cast<const char *>(bytes), length);
    EXPECT_EQ(
        world().server->command({"EVAL", std::string(tq::write_script.text), "1", hash, key, value, hash + "/" + key}),
        "nil");
    return 0;
}

}  // namespace

StoreUnderTest redis_under_test() {
    return {"redis", new_redis, {disconnect, reconnect, restart, lose_confirmations, put_bytes}};
}

int32_t open_client(const std::string &url, tq_mom_handle **handle) {
    const std::lock_guard lock(world().mutex);
    if (!world().server || url != world().server->url()) return tq_mom_client_open(url.c_str(), handle);
    const std::string at = world().server->socket() + "." + std::to_string(world().proxies_so_far++);
    auto proxy = std::make_unique<Proxy>(at, world().server->socket());
    const int32_t error = tq_mom_client_open(("redis+unix://" + at).c_str(), handle);
    if (error == 0) world().proxies[*handle] = std::move(proxy);
    return error;
}

void close_proxy(tq_mom_handle *handle) {
    const std::lock_guard lock(world().mutex);
    world().proxies.erase(handle);
}
