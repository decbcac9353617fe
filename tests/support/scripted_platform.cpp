// The scripted platform: the platform's functions write down, look up the answer, and hand out copies.
#include "tests/support/scripted_platform.h"

#include "tq_dm_cache/tq_platform_bundled.h"

#include <algorithm>
#include <mutex>
#include <utility>

ScriptedPlatform platform;

namespace {

// Over the list of calls and the store's content; not held while anything of the test or the library runs.
std::mutex shared;

// Writes a call down and finds its answer.
int32_t call(const std::string &text) {
    {
        const std::lock_guard hold(shared);
        platform.calls.push_back(text);
    }
    if (platform.during_call) platform.during_call(text);
    int32_t answer = 0;
    for (const auto &[start, code] : platform.answers)
        if (text.starts_with(start)) answer = code;  // the longest comes last
    return answer;
}

std::string text(const char *name, uint32_t db, const ProtobufCMessage *message) {
    return std::string(name) + ' ' + std::to_string(db) + ' ' + message->descriptor->name;
}

// Where the store keeps a kind, and an object of it.
std::string place(uint32_t db, const ProtobufCMessageDescriptor *kind) {
    return std::to_string(db) + ' ' + kind->name + '\n';
}
std::string place(uint32_t db, const ProtobufCMessage *object) {
    return place(db, object->descriptor) + key_bytes(object);
}

// The store's object with a probe's key; an empty message when there is none.
Message stored(uint32_t db, const ProtobufCMessage *probe) {
    const std::lock_guard hold(shared);
    const auto found = platform.objects.find(place(db, probe));
    return found == platform.objects.end() ? Message() : Message::copy(found->second.get());
}

// All of a kind, in the order of their keys.
std::vector<Message> stored(uint32_t db, const ProtobufCMessageDescriptor *kind) {
    const std::lock_guard hold(shared);
    std::vector<Message> found;
    for (const auto &[at, object] : platform.objects)
        if (at.starts_with(place(db, kind))) found.push_back(Message::copy(object.get()));
    return found;
}

// A read's answer and, when that is 0, the object.
ProtobufCMessage *read(const char *name, uint32_t db, const ProtobufCMessage *probe, int32_t *error) {
    ++platform.reads;
    *error = call(text(name, db, probe));
    Message object = *error ? Message() : stored(db, probe);
    if (platform.instead.get()) object = Message::copy(platform.instead.get());
    if (platform.during_read) platform.during_read();
    return object.release();
}

// Copies: a callback may ask for more.
std::vector<Request> subscriptions_to(const Message &object) {
    std::vector<Request> found = platform.subscriptions;
    std::erase_if(found, [&](const Request &each) { return each.kind != object.get()->descriptor; });
    return found;
}

}  // namespace

void ScriptedPlatform::put(const Message &object, uint32_t db) {
    const std::lock_guard hold(shared);
    objects[place(db, object.get())] = Message::copy(object.get());
}

void ScriptedPlatform::erase(const Message &object, uint32_t db) {
    const std::lock_guard hold(shared);
    objects.erase(place(db, object.get()));
}

int32_t Request::deliver(int32_t cmd, void *value, int32_t flag, int32_t result) const {
    store_msg msg{};
    msg.db = db;
    msg.cmd = cmd;
    msg.value = value;
    msg.flag = flag;
    msg.result = result;
    return callback(handle ? handle : &platform.handle, &msg, privdata);
}

int32_t Request::reply(const Message &object, bool damaged) const {
    result_rec record{};
    record.obj = damaged ? nullptr : object.get();
    record.error = damaged;
    return deliver(TQ_MOM_CMD_REPLY, &record);
}

void ScriptedPlatform::become_ready() {
    const auto all = connections;
    for (const Connection &each : all) each.ready(nullptr, each.privdata);
}

void ScriptedPlatform::confirm() {
    for (size_t i = 0; i < subscriptions.size(); ++i) {
        if (std::exchange(subscriptions[i].confirmed, true)) continue;
        const Request request = subscriptions[i];
        request.deliver(TQ_MOM_CMD_SUBSCRIBED, nullptr);
    }
}

void ScriptedPlatform::push(const Message &object) {
    for (const Request &each : subscriptions_to(object)) each.deliver(TQ_MOM_CMD_SET, object.get());
}

void ScriptedPlatform::push_delete(const Message &object) {
    const Message bare = key_only(object.get());
    for (const Request &each : subscriptions_to(bare)) each.deliver(TQ_MOM_CMD_DELETE, bare.get());
}

void ScriptedPlatform::answer_scans() {
    while (!scans.empty()) {
        const Request scan = scans[0];
        for (const Message &object : stored(scan.db, scan.kind)) scan.reply(object);
        scans.erase(std::ranges::find_if(scans, [&](const Request &each) { return each.is(scan); }));
        scan.end();
    }
}

void ScriptedPlatform::lose_connection(uint32_t db, int32_t reason) {
    std::erase_if(scans, [db](const Request &scan) { return scan.db == db; });
    for (const Connection &each : connections)
        if (each.db == db) each.reconnect(nullptr, db, reason, nullptr);
}

void ScriptedPlatform::fire_timers(int64_t until_ms) {
    for (;;) {
        const auto next = std::min_element(timers.begin(), timers.end(), [](const auto &a, const auto &b) {
            return a.second.due_ms < b.second.due_ms;
        });
        if (next == timers.end() || next->second.due_ms > until_ms) return;
        const auto [record, timer] = *next;
        timers.erase(next);
        now_ms = std::max(now_ms, timer.due_ms);
        record->state = 0;
        timer.handler(record);
    }
}

void ScriptedPlatform::synchronise() {
    become_ready();
    confirm();
    answer_scans();
}

int64_t tq_mom_client_heard_ms(tq_mom_handle *) {
    return platform.heard_ms;
}

int32_t tq_mom_client_connect(tq_mom_handle *, uint32_t db, tq_mom_ready_cb ready, uintptr_t privdata) {
    const int32_t answer = call("connect " + std::to_string(db));
    if (answer == 0) platform.connections.push_back({db, ready, privdata, nullptr});
    return answer;
}

int32_t tq_mom_client_set_reconnect_cb(tq_mom_handle *, uint32_t db, tq_mom_reconnect_cb reconnect, int32_t) {
    const int32_t answer = call("set_reconnect_cb " + std::to_string(db));
    for (Connection &each : platform.connections)
        if (answer == 0 && each.db == db) each.reconnect = reconnect;
    return answer;
}

int32_t tq_mom_client_connect_sync(tq_mom_handle *, int32_t) {
    return call("connect_sync");
}

int32_t tq_mom_subscribe(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *tmpl, int32_t,
                         tq_mom_msg_cb callback, void *privdata) {
    const int32_t answer = call(text("subscribe", db, tmpl));
    if (answer != 0) return answer;
    const Request asked{db, tmpl->descriptor, callback, privdata, handle};
    const auto same = std::ranges::find_if(platform.subscriptions, [&](const Request &each) { return each.is(asked); });
    if (same == platform.subscriptions.end())
        platform.subscriptions.push_back(asked);
    else
        *same = asked;
    return 0;
}

int32_t tq_mom_subscribe_field(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *key, int32_t,
                               const uint32_t *field_numbers, tq_mom_msg_cb *callbacks, void **privdata, int32_t n) {
    std::string line = text("subscribe_field", db, key);
    for (int32_t i = 0; i < n; ++i) line += ' ' + std::to_string(field_numbers[i]);
    const int32_t answer = call(line);
    for (int32_t i = 0; i < n && answer == 0; ++i)
        platform.subscriptions.push_back(
            {db, key->descriptor, callbacks[i], privdata[i], handle, i > 0, true, field_numbers[i]});
    return answer;
}

int32_t tq_mom_scan(tq_mom_handle *handle, uint32_t db, const ProtobufCMessage *tmpl, int32_t, tq_mom_msg_cb callback,
                    void *privdata) {
    const int32_t answer = call(text("scan", db, tmpl));
    if (answer == 0) platform.scans.push_back({db, tmpl->descriptor, callback, privdata, handle});
    return answer;
}

int32_t tq_mom_scan_sync(tq_mom_handle *, uint32_t db, const ProtobufCMessage *tmpl, int32_t, tq_mom_msg_cb callback,
                         void *privdata) {
    const Request asked{db, tmpl->descriptor, callback, privdata};
    if (platform.before_scan) platform.before_scan(asked);
    ++platform.reads;
    const int32_t answer = call(text("scan_sync", db, tmpl));
    const auto found = stored(db, tmpl->descriptor);
    if (platform.during_read) platform.during_read();
    if (answer != 0) return answer;
    for (const Message &object : found) asked.reply(object);
    return 0;
}

int32_t tq_mom_get_reconnect_scan_time(tq_mom_handle *, uint32_t db) {
    call("scan_time " + std::to_string(db));
    return platform.reconnect_scan_ms;
}

result_rec *tq_mom_hgetall_sync(tq_mom_handle *, uint32_t db, const ProtobufCMessage *obj_with_key) {
    int32_t error = 0;
    ProtobufCMessage *object = read("hgetall", db, obj_with_key, &error);
    if (error == ScriptedPlatform::no_reply) return nullptr;
    ++platform.unreleased;
    return new result_rec{object, {}, error};
}

ProtobufCMessage *tq_mom_get_sync(tq_mom_handle *, uint32_t db, const ProtobufCMessage *obj_with_key, int32_t *error) {
    ProtobufCMessage *object = read("get", db, obj_with_key, error);
    if (object) ++platform.unreleased;
    return object;
}

int32_t tq_mom_hash_res_free(result_rec *record) {
    if (!record) return 0;
    --platform.unreleased;
    protobuf_c_message_free_unpacked(record->obj, nullptr);
    delete record;
    return 0;
}

int32_t tq_mom_tq_obj_free(ProtobufCMessage *message) {
    if (!message) return 0;
    --platform.unreleased;
    protobuf_c_message_free_unpacked(message, nullptr);
    return 0;
}

int32_t tq_mom_set(tq_mom_handle *, uint32_t db, const ProtobufCMessage *obj, int32_t, int32_t) {
    const int32_t answer = call(text("set", db, obj));
    if (answer == 0) platform.put(Message::copy(obj), db);
    return answer;
}

int32_t tq_thread_insert_timer(tq_thread_master *master, tq_thread_timer *timer, int32_t (*handler)(tq_thread_timer *),
                               int32_t arg, int32_t delay_ms, const char *name) {
    const int32_t answer = call("timer " + std::to_string(arg) + ' ' + std::to_string(delay_ms) + ' ' + name);
    if (answer != 0 || timer->state != 0) return answer ? answer : -1;
    timer->arg = arg;
    timer->state = TQ_THREAD_TIMER_ARMED;
    platform.timers[timer] = {handler, platform.now_ms + delay_ms, master};
    return 0;
}

int32_t tq_thread_cancel(tq_thread_timer *timer) {
    call("cancel " + std::to_string(timer->arg));
    platform.timers.erase(timer);
    timer->state = 0;
    return 0;
}

void *libtq_cap_get_g_cap_init(const char *path) {
    call(std::string("cap_init ") + path);
    ++platform.unreleased;
    return &platform;
}

int32_t libtq_cap_get_g_cap(void *, const char *key, int32_t, void *value, int32_t) {
    const int32_t answer = call(std::string("cap ") + key);
    const auto found = platform.capabilities.find(key);
    if (answer != 0 || found == platform.capabilities.end()) return answer ? answer : -1;
    *static_cast<int32_t *>(value) = found->second;
    return 0;
}

void libtq_cap_get_g_cap_finish(void *) {
    --platform.unreleased;
}
