// The store client's C functions: they refuse what is unusable, keep exceptions in, and hand the rest to the Client.
#include <cstdlib>

#include "platform/client.h"
#include "platform/guard.h"
#include "platform/message.h"
#include "tq_dm_cache/tq_platform_bundled.h"

using namespace tq;

namespace {

// As tq_platform.h and tq_platform_bundled.h promise.
constexpr std::chrono::seconds connect_limit(5);
constexpr int32_t field_limit = 10;

bool usable(const ProtobufCMessage *message) {
    return message && message->descriptor;
}

Place place_of(uint32_t db, const ProtobufCMessage *message) {
    return {db, message->descriptor->name};
}

int32_t read(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *obj_with_key, ProtobufCMessage *&message) {
    return with_client(handle, [&](Client &client) {
        const Target target(db, obj_with_key);
        if (!target.key) return int32_t{TQ_MOM_E_ARGUMENT};
        return client.read(target.place, *target.kind, *target.key, message);
    });
}

bool usable_fields(const ProtobufCMessageDescriptor &kind, const uint32_t *numbers, const tq_mom_msg_cb *callbacks,
                   int32_t n) {
    for (int32_t i = 0; i < n; ++i)
        if (!callbacks[i] || !has_field(kind, numbers[i])) return false;
    return true;
}

}  // namespace

// A ready callback is owed while the connection is lost. Every database shares the client's one connection.
int32_t tq_mom_client_connect(tq_mom_handle *handle, uint32_t, tq_mom_ready_cb ready, uintptr_t privdata) {
    if (!ready) return TQ_MOM_E_ARGUMENT;
    return with_client(handle, [&](Client &client) {
        client.connect(ready, privdata);
        return 0;
    });
}

int32_t tq_mom_client_set_reconnect_cb(tq_mom_handle *handle, uint32_t db, tq_mom_reconnect_cb reconnect, int32_t) {
    if (!reconnect) return TQ_MOM_E_ARGUMENT;
    return with_client(handle, [&](Client &client) {
        client.set_reconnect(db, reconnect);
        return 0;
    });
}

int32_t tq_mom_client_connect_sync(tq_mom_handle *handle, int32_t) {
    return with_client(
        handle, [&](Client &client) { return client.wait_connected(connect_limit) ? 0 : int32_t{TQ_MOM_E_TIMEOUT}; });
}

int32_t tq_mom_subscribe(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *tmpl, int32_t,
                         tq_mom_msg_cb callback, void *privdata) {
    if (!usable(tmpl) || !callback) return TQ_MOM_E_ARGUMENT;
    return with_client(handle, [&](Client &client) {
        client.subscribe({place_of(db, tmpl), tmpl->descriptor, {callback, privdata}});
        return 0;
    });
}

// The first field's callback is told that the subscription stands.
int32_t tq_mom_subscribe_field(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *key, int32_t,
                               const uint32_t *field_numbers, tq_mom_msg_cb *callbacks, void **privdata, int32_t n) {
    if (!usable(key) || !field_numbers || !callbacks || !privdata) return TQ_MOM_E_ARGUMENT;
    if (n < 1 || n > field_limit) return TQ_MOM_E_ARGUMENT;
    if (!usable_fields(*key->descriptor, field_numbers, callbacks, n)) return TQ_MOM_E_ARGUMENT;
    return with_client(handle, [&](Client &client) {
        Target target(db, key);
        if (!target.key) return int32_t{TQ_MOM_E_ARGUMENT};
        Request request = {target.place, target.kind, {callbacks[0], privdata[0]}, *target.key};
        for (int32_t i = 0; i < n; ++i) request.fields.push_back({field_numbers[i], {callbacks[i], privdata[i]}});
        client.subscribe(std::move(request));
        return 0;
    });
}

int32_t tq_mom_scan(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *tmpl, int32_t, tq_mom_msg_cb callback,
                    void *privdata) {
    if (!usable(tmpl) || !callback) return TQ_MOM_E_ARGUMENT;
    return with_client(handle, [&](Client &client) {
        client.scan({place_of(db, tmpl), tmpl->descriptor, {callback, privdata}});
        return 0;
    });
}

int32_t tq_mom_scan_sync(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *tmpl, int32_t,
                         tq_mom_msg_cb callback, void *privdata) {
    if (!usable(tmpl) || !callback) return TQ_MOM_E_ARGUMENT;
    return with_client(handle, [&](Client &client) {
        return client.scan_here({place_of(db, tmpl), tmpl->descriptor, {callback, privdata}});
    });
}

int32_t tq_mom_get_reconnect_scan_time(tq_mom_handle *handle, uint32_t) {
    return with_client(handle, [](Client &client) { return client.store().rescan_delay_ms(); });
}

// Where no record can be made, or nothing could be asked, there is no reply; any other failure stands in the record.
result_rec *tq_mom_hgetall_sync(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *obj_with_key) {
    ProtobufCMessage *message = nullptr;
    const int32_t error = read(handle, db, obj_with_key, message);
    if (error == TQ_MOM_E_ARGUMENT || error == TQ_MOM_E_MEMORY) return nullptr;
    auto *record = static_cast<result_rec *>(std::calloc(1, sizeof(result_rec)));
    if (!record) {
        tq::FreeMessage()(message);
        return nullptr;
    }
    record->obj = message;
    record->error = error;
    return record;
}

ProtobufCMessage *tq_mom_get_sync(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *obj_with_key,
                                  int32_t *error) {
    ProtobufCMessage *message = nullptr;
    const int32_t code = read(handle, db, obj_with_key, message);
    if (error) *error = code;
    return message;
}

int32_t tq_mom_hash_res_free(result_rec *record) {
    if (!record) return 0;
    tq::FreeMessage()(record->obj);
    std::free(record);
    return 0;
}

int32_t tq_mom_tq_obj_free(ProtobufCMessage *message) {
    tq::FreeMessage()(message);
    return 0;
}

int32_t tq_mom_set(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *obj, int32_t, int32_t) {
    return with_client(handle, [&](Client &client) {
        const Target target(db, obj);
        if (!target.key) return int32_t{TQ_MOM_E_ARGUMENT};
        return client.store().write(target.place, {*target.key, pack(*obj)});
    });
}

// All of it is packed before anything is sent, so one unusable entry leaves the store as it was.
int32_t tq_mom_set_many(tq_mom_handle *handle, const tq_mom_write *writes, uint32_t count, uint32_t *taken,
                        uint32_t *refused) {
    size_t number_taken = 0, first_refused = 0;
    const int32_t code = with_client(handle, [&](Client &client) {
        if ((count > 0 && !writes)) return int32_t{TQ_MOM_E_ARGUMENT};
        std::vector<Write> all;
        all.reserve(count);
        for (; first_refused < count; ++first_refused) {
            const auto &[db, obj] = writes[first_refused];
            const Target target(db, obj);
            if (!target.key) return int32_t{TQ_MOM_E_ARGUMENT};
            all.push_back({target.place, {*target.key, pack(*obj)}});
        }
        return client.store().write_many(all, number_taken, first_refused);
    });
    if (taken) *taken = static_cast<uint32_t>(number_taken);
    if (refused) *refused = static_cast<uint32_t>(first_refused);
    return code;
}

int32_t tq_mom_del(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *obj_with_key) {
    return with_client(handle, [&](Client &client) {
        const Target target(db, obj_with_key);
        if (!target.key) return int32_t{TQ_MOM_E_ARGUMENT};
        return client.store().erase(target.place, *target.key);
    });
}

// Either may be null, but not both: where one is, the other stands for it, so that both are of one kind and key.
int32_t tq_mom_replace(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *before,
                       const ProtobufCMessage *after) {
    return with_client(handle, [&](Client &client) {
        const Target target(db, after ? after : before), other(db, before ? before : after);
        if (!target.key || target.kind != other.kind || target.key != other.key) return int32_t{TQ_MOM_E_ARGUMENT};
        return client.replace(target, before, after);
    });
}
