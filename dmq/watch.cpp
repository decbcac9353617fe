// The copies that a watch keeps, and its lines. Callbacks run on the store client's thread; a thread of its own waits for
// applications.
#include "dmq/watch.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include "dmq/deadline.h"
#include "dmq/output.h"
#include "dmq/session.h"

namespace dmq {

namespace {

// Packed objects by their packed key.
using Copies = std::map<std::string, std::string>;

struct Watch {
    bool json;
    std::map<int32_t, Copies> rows;  // of the kinds that are followed
    uint32_t applied;                // applications whose consequences are printed
};

std::mutex guard;
std::optional<Watch> watch;
std::jthread follower;

std::string clock_time() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[32];
    const size_t length = std::strftime(text, sizeof text, "%H:%M:%S", &local);
    std::snprintf(text + length, sizeof text - length, ".%03ld", now.tv_nsec / 1000000);
    return text;
}

Copies copies_of_row(int32_t row) {
    Copies copies;
    each_cached(row, [&](const ProtobufCMessage &object) { copies[packed_key(object)] = pack(object); });
    return copies;
}

// Which of the copies is this object? Its key decides; but the cache compares fewer fields than a key has, so when an
// object was replaced and no key is equal, the cache's own comparison does.
Copies::iterator find_copy(Copies &copies, int32_t row, int32_t operation, const ProtobufCMessage &object) {
    const auto found = copies.find(packed_key(object));
    if (found != copies.end() || operation != DM_CACHE_REPLACED) return found;
    return std::find_if(copies.begin(), copies.end(), [&](const auto &copy) {
        const Message old = unpack(*object.descriptor, copy.second);
        return old && obj_sub_list[row].cmp_func(old.get(), &object) == 0;
    });
}

// A line about the connection as a whole: `text` for a person, the record for a program.
void tell(const std::string &text, const Json &record) {
    if (!watch->json) return print_line(clock_time() + "  " + coloured(Colour::heading, text));
    Json line = {{"time", clock_time()}};
    line.update(record);
    print_line(dump(line));
}

// A line about one object; `detail` is its content or its changes.
void tell_object(const char *event, Colour colour, int32_t row, const ProtobufCMessage &object, const char *name,
                 const Json &detail) {
    if (watch->json) {
        const ProtobufCMessage *key = key_of(object);
        Json line = {{"time", clock_time()}, {"event", event}, {"row", row}, {"kind", object.descriptor->name}};
        line["key"] = key ? to_json(*key, Fields::all) : Json::object();
        line[name] = detail;
        return print_line(dump(line));
    }
    std::string text;
    for (const auto &[field, value] : detail.items()) {
        text += text.empty() ? ": " : ", ";
        const bool change = std::string_view(name) == "changes";
        text += change ? field + " " + change_text(value) : field + "=" + dump(value);
    }
    print_line(clock_time() + "  " + coloured(colour, event) + std::string(9 - std::strlen(event), ' ') +
               object_name(object) + text);
}

Json content(const ProtobufCMessage &object) {
    Json fields = to_json(object, Fields::set);
    if (const auto *key = key_field(*object.descriptor)) fields.erase(key->name);
    return fields;
}

void tell_added(int32_t row, const ProtobufCMessage &object) {
    tell_object("added", Colour::good, row, object, "object", content(object));
}

void tell_deleted(int32_t row, const ProtobufCMessage &object) {
    tell_object("deleted", Colour::bad, row, object, "object", Json::object());
}

void tell_changed(int32_t row, const ProtobufCMessage &before, const ProtobufCMessage &after) {
    tell_object("changed", Colour::change, row, after, "changes", differences(before, after));
}

// What was packed from an object need not be one again: then it is shown empty.
Message readable(const ProtobufCMessageDescriptor &type, const std::string &bytes) {
    Message object = unpack(type, bytes);
    return object ? std::move(object) : new_message(type);
}

void take_set(Copies &copies, int32_t row, int32_t operation, const ProtobufCMessage &object) {
    const auto old = find_copy(copies, row, operation, object);
    const std::string now = pack(object);
    if (old == copies.end()) {
        tell_added(row, object);
    } else if (old->second != now) {
        tell_changed(row, *readable(*object.descriptor, old->second), object);
        copies.erase(old);
    }
    copies[packed_key(object)] = now;
}

void take_delete(Copies &copies, int32_t row, const ProtobufCMessage &object) {
    if (copies.erase(packed_key(object))) tell_deleted(row, object);
}

// Objects that went without a callback: the cache no longer holds them after an application.
size_t take_swept(int32_t row, Copies &copies) {
    const Copies cached = copies_of_row(row);
    size_t swept = 0;
    for (auto copy = copies.begin(); copy != copies.end();) {
        if (cached.contains(copy->first)) {
            ++copy;
            continue;
        }
        tell_deleted(row, *readable(*obj_sub_list[row].obj_tmpl->descriptor, copy->second));
        copy = copies.erase(copy);
        ++swept;
    }
    return swept;
}

void follow_applications(const std::stop_token &stop, uint32_t applied) {
    while (!stop.stop_requested()) {
        if (dm_cache_wait_applied(applied, 100)) continue;
        applied = dm_cache_applied();
        catch_up_watch();
    }
}

}  // namespace

void start_watch(const std::vector<Kind> &kinds, bool json) {
    stop_watch();
    const std::lock_guard lock(guard);
    Watch next{.json = json, .rows = {}, .applied = dm_cache_applied()};
    for (const Kind &kind : kinds.empty() ? cached_kinds() : kinds) next.rows[kind.row] = copies_of_row(kind.row);
    watch = std::move(next);
    const SignalsHeld held;
    follower = std::jthread(follow_applications, watch->applied);
}

void stop_watch() {
    if (follower.joinable()) {
        follower.request_stop();
        follower.join();
    }
    const std::lock_guard lock(guard);
    watch.reset();
}

void catch_up_watch() {
    const std::lock_guard lock(guard);
    const uint32_t applied = dm_cache_applied();
    if (!watch || watch->applied == applied) return;
    watch->applied = applied;
    size_t swept = 0;
    for (auto &[row, copies] : watch->rows) swept += take_swept(row, copies);
    tell("resynchronised, " + counted_objects(swept) + (swept == 1 ? " was gone" : " were gone"),
         {{"event", "resynchronised"}, {"gone", swept}});
}

void wait_for_end(double seconds) {
    const SignalsHeld held;
    const sigset_t ends = ending_signals();
    const Deadline end(std::max(seconds, 0.0));
    int signal = -1;
    do {  // stopped and continued, a wait ends early
        const int32_t left = end.left();
        const timespec limit = {left / 1000, left % 1000 * 1000000L};
        signal = seconds < 0 ? sigwaitinfo(&ends, nullptr) : sigtimedwait(&ends, nullptr, &limit);
    } while (signal < 0 && errno == EINTR);
}

int32_t watch_change(tq_mom_handle *, int32_t row, int32_t operation, ProtobufCMessage *object) {
    const std::lock_guard lock(guard);
    if (!watch) return 0;
    const auto followed = watch->rows.find(row);
    if (followed == watch->rows.end()) return 0;
    if (operation == DM_CACHE_DELETED) {
        take_delete(followed->second, row, *object);
    } else {
        take_set(followed->second, row, operation, *object);
    }
    return 0;
}

void watch_connection(tq_mom_handle *, int32_t connected, int32_t reason, void *) {
    const std::lock_guard lock(guard);
    if (!watch) return;
    if (!connected) return tell("connection lost", {{"event", "lost"}});
    if (reason == 0) return;
    const char *store = reason == 2 ? "to another instance of the store" : "to the same store";
    tell(std::string("connection back, ") + store, {{"event", "back"}, {"reason", reason}});
}

}  // namespace dmq
