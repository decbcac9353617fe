// The stores as the contract tests see them. That on Redis: a server, and a proxy for every client, to cut off one alone.
#include "platform/redis_wire.h"
#include "tests/platform/recording_client.h"
#include "tests/platform/redis_server.h"

namespace {

// Clients come and go on one thread at a time.
std::unique_ptr<RedisServer> server;
std::map<tq_mom_handle *, std::unique_ptr<Proxy>> proxies;

std::string new_mem() {
    static int count = 0;
    return "mem:test" + std::to_string(count++);
}

std::string new_redis() {
    server.reset();
    server = std::make_unique<RedisServer>();
    return server->url();
}

// The client finds out by the call, on whichever thread it is made.
int32_t disconnect(tq_mom_handle *handle) {
    proxies.at(handle)->cut();
    int32_t error = 0;
    EXPECT_EQ(tq_mom_get_sync(handle, 1, card(1, 1, 0).get(), &error), nullptr);
    EXPECT_EQ(error, TQ_MOM_E_UNREACHABLE);
    return 0;
}

int32_t reconnect(tq_mom_handle *handle) {
    proxies.at(handle)->let_in();
    return tq_mom_client_connect_sync(handle, 0);
}

int32_t restart(tq_mom_handle *, int32_t keep) {
    for (const auto &[handle, proxy] : proxies) disconnect(handle);
    server->restart(keep != 0);
    return 0;
}

int32_t lose_confirmations(tq_mom_handle *handle, int32_t n) {
    proxies.at(handle)->drop_fences(n);
    return 0;
}

int32_t put_bytes(tq_mom_handle *, uint32_t db, const ProtobufCMessage *object, const uint8_t *bytes, uint32_t length) {
    const std::string hash = "dm:" + std::to_string(db) + ":" + object->descriptor->name;
    const std::string key = packed(key_message(object)), value(reinterpret_cast<const char *>(bytes), length);
    const std::string script(tq::write_script.text);
    EXPECT_EQ(server->command({"EVAL", script, "1", hash, key, value, hash + "/" + key}), "nil");
    return 0;
}

}  // namespace

std::vector<StoreUnderTest> stores_under_test() {
    return {{"mem", new_mem, tq_mem_disconnect, tq_mem_reconnect, tq_mem_restart, tq_mem_lose_confirmations,
             tq_mem_put_bytes},
            {"redis", new_redis, disconnect, reconnect, restart, lose_confirmations, put_bytes}};
}

int32_t open_client(const std::string &url, tq_mom_handle **handle) {
    if (!server || url != server->url()) return tq_mom_client_open(url.c_str(), handle);
    static int count = 0;
    const std::string at = server->socket() + "." + std::to_string(count++);
    auto proxy = std::make_unique<Proxy>(at, server->socket());
    const int32_t error = tq_mom_client_open(("redis+unix://" + at + "?probe=2500").c_str(), handle);
    if (error == 0) proxies[*handle] = std::move(proxy);
    return error;
}

void close_client(tq_mom_handle *handle) {
    EXPECT_EQ(tq_mom_client_close(handle), 0);
    proxies.erase(handle);
}
