// What only the bundled platform has: opening and closing a client, hearing of its connection, and the embedded store's
// faults.
#include "platform/client.h"
#include "platform/guard.h"
#include "platform/mem_store.h"
#include "platform/message.h"
#include "platform/redis_url.h"
#include "platform/text.h"

using namespace tq;

namespace {

// Does something to a client of the embedded store.
template <class F> int32_t with_mem_store(tq_mom_handle *handle, F &&fault) {
    return with_client(handle, [&](Client &client) -> int32_t {
        auto *mem = dynamic_cast<MemClient *>(&client.store());
        return mem ? fault(*mem) : TQ_MOM_E_ARGUMENT;
    });
}

// What stands behind a word of a line, up to the next blank.
std::string field_of(std::string_view line, std::string_view word) {
    const size_t at = line.find(word);
    if (at == std::string_view::npos) return {};
    const std::string_view rest = line.substr(at + word.size());
    return std::string(rest.substr(0, rest.find(' ')));
}

uint32_t number_of(const std::string &text) {
    return whole_number<uint32_t>(text).value_or(0);
}

// A line a connection: "id=3 addr=10.0.0.7:4242 name=cards age=35 idle=0 sub=0 ..". Each client has two, and one of them subscribes.
void tell_clients(std::string_view list, tq_mom_store_client_cb callback, void *word) {
    while (!list.empty()) {
        const size_t end = list.find('\n');
        const std::string line = " " + std::string(list.substr(0, end));
        list.remove_prefix(end == std::string_view::npos ? list.size() : end + 1);
        if (line.size() < 2 || number_of(field_of(line, " sub=")) != 0) continue;
        const std::string name = field_of(line, " name="), address = field_of(line, " addr=");
        const tq_mom_store_client client = {name.c_str(), address.c_str(), number_of(field_of(line, " age=")),
                                            number_of(field_of(line, " idle="))};
        callback(&client, word);
    }
}

}  // namespace

int32_t tq_mom_client_open(const char *url, tq_mom_handle **handle) {
    if (!url || !handle) return TQ_MOM_E_ARGUMENT;
    return guarded([&] {
        int32_t error = 0;
        auto client = Client::open(url, error);
        if (client) *handle = client.release()->handle();
        return error;
    });
}

int32_t tq_mom_url_without_secret(const char *url, char *text, uint32_t size) {
    if (!url || !text || size == 0) return TQ_MOM_E_ARGUMENT;
    return guarded([&] {
        const std::string shown = url_without_secret(url);
        text[shown.copy(text, size - 1)] = '\0';
        return 0;
    });
}

// Not by with_client(): closing waits for whoever is in a call, and would wait for itself.
int32_t tq_mom_client_close(tq_mom_handle *handle) {
    Client *client = client_of(handle);
    if (!client || client->loop().on_own_thread() || !client->close()) return TQ_MOM_E_ARGUMENT;
    delete client;
    return 0;
}

int32_t tq_mom_client_set_connection_cb(tq_mom_handle *handle, tq_mom_connection_cb callback, void *privdata) {
    return with_client(handle, [&](Client &client) {
        client.set_connection(callback, privdata);
        return 0;
    });
}

uint64_t tq_mom_client_damaged(tq_mom_handle *handle) {
    uint64_t damaged = 0;
    with_client(handle, [&](Client &client) {
        damaged = client.damaged();
        return 0;
    });
    return damaged;
}

int32_t tq_mom_client_store(tq_mom_handle *handle, char *text, uint32_t size) {
    if (!text || size == 0) return TQ_MOM_E_ARGUMENT;
    return with_client(handle, [&](Client &client) {
        text[client.shown_store().copy(text, size - 1)] = '\0';
        return 0;
    });
}

int32_t tq_mom_client_set_name(tq_mom_handle *handle, const char *name) {
    if (!name) return TQ_MOM_E_ARGUMENT;
    return with_client(handle, [&](Client &client) {
        client.store().set_name(name);
        return 0;
    });
}

int32_t tq_mom_store_clients(tq_mom_handle *handle, tq_mom_store_client_cb callback, void *word) {
    if (!callback) return TQ_MOM_E_ARGUMENT;
    return with_client(handle, [&](Client &client) {
        std::string list;
        const int32_t code = client.store().list_clients(list);
        if (code == 0) tell_clients(list, callback, word);
        return code;
    });
}

int64_t tq_mom_client_heard_ms(tq_mom_handle *handle) {
    int64_t ago = -1;
    with_client(handle, [&](Client &client) {
        ago = client.heard_ms_ago();
        return 0;
    });
    return ago;
}

int32_t tq_mom_client_forget(tq_mom_handle *handle, tq_mom_msg_cb callback) {
    if (!callback) return TQ_MOM_E_ARGUMENT;
    return with_client(handle, [&](Client &client) {
        client.forget(callback);
        return 0;
    });
}

int32_t tq_mom_client_drain(tq_mom_handle *handle, int32_t timeout_ms) {
    return with_client(handle, [&](Client &client) -> int32_t {
        if (client.loop().on_own_thread()) return TQ_MOM_E_ARGUMENT;
        return client.loop().drain(std::chrono::milliseconds(timeout_ms)) ? 0 : TQ_MOM_E_TIMEOUT;
    });
}

int32_t tq_mem_disconnect(tq_mom_handle *handle) {
    return with_mem_store(handle, [](MemClient &mem) { return mem.disconnect(); });
}

int32_t tq_mem_reconnect(tq_mom_handle *handle) {
    return with_mem_store(handle, [](MemClient &mem) { return mem.reconnect(); });
}

int32_t tq_mem_restart(tq_mom_handle *handle, int32_t keep) {
    return with_mem_store(handle, [&](MemClient &mem) { return mem.restart(keep != 0); });
}

int32_t tq_mem_lose_confirmations(tq_mom_handle *handle, int32_t n) {
    return with_mem_store(handle, [&](MemClient &mem) { return mem.lose_confirmations(n); });
}

int32_t tq_mem_put_bytes(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *obj_with_key, const uint8_t *bytes,
                         uint32_t length) {
    if (!bytes && length > 0) return TQ_MOM_E_ARGUMENT;
    return with_mem_store(handle, [&](MemClient &mem) {
        const Target target(db, obj_with_key);
        if (!target.key) return int32_t{TQ_MOM_E_ARGUMENT};
        return mem.write(target.place, {*target.key, std::string(reinterpret_cast<const char *>(bytes), length)});
    });
}
