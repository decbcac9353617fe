// A watch and its lines. What it is told comes on the store client's thread; the commands that start and end it run on another.
#include "dmq/watch.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "dmq/deadline.h"
#include "dmq/output.h"
#include "dmq/program.h"
#include "dmq/session.h"
#include "tq_dm_cache/dm_cache_follow.h"

namespace dmq {

namespace {

// What is watched, and what has been told of it so far. Read and changed under `guard`, by whichever thread tells.
struct Watch {
    WatchOptions options;
    std::map<int32_t, uint32_t> refused;  // of each row that is followed: as many as have been told of
    size_t swept = 0;                     // since the last application
    std::unique_ptr<ProgramQueue> programs = nullptr;
};

std::mutex guard;  // held while a line is written, for as long as nobody reads it
std::optional<Watch> watch;

std::string time_text() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    const auto formatted = [&local](const char *format) {
        char text[32];
        return std::string(text, std::strftime(text, sizeof text, format, &local));
    };
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, ".%03ld", now.tv_nsec / 1000000);
    const bool date = watch->options.date;
    return formatted(date ? "%Y-%m-%dT%H:%M:%S" : "%H:%M:%S") + fraction + (date ? formatted("%z") : "");
}

// A line about the connection as a whole: `text` for a person, the record for a program.
void tell(const std::string &text, const Json &record) {
    if (watch->programs) return;
    if (!watch->options.json) return print_line(time_text() + "  " + coloured(Colour::heading, text));
    Json line = {{"time", time_text()}};
    line.update(record);
    print_line(dump(line));
}

// A line about one object: `detail`, by that name, is its content or its changes.
void tell_object(const dm_cache_event &event, const char *name, Colour colour, const char *detail_name,
                 const Json &detail) {
    const ProtobufCMessage &object = event.after ? *event.after : *event.before;
    if (watch->options.json || watch->programs) {
        const char *const phases[] = {"first", "live", "resync"};
        const ProtobufCMessage *key = key_of(object);
        Json line = {{"time", time_text()}, {"event", name}, {"phase", phases[event.phase]}, {"row", event.type}};
        line["kind"] = object.descriptor->name;
        line["key"] = key ? to_json(*key, Fields::all) : Json::object();
        line[detail_name] = detail;
        return watch->programs ? watch->programs->add(dump(line) + "\n") : print_line(dump(line));
    }
    std::string text;
    for (const auto &[field, value] : detail.items()) {
        text += text.empty() ? ": " : ", ";
        const bool change = event.what == DM_CACHE_EVENT_REPLACED;
        text += change ? field + " " + change_text(value) : field + "=" + dump(value);
    }
    print_line(time_text() + "  " + coloured(colour, name) +
               std::string(std::max(9 - std::strlen(name), size_t{1}), ' ') + object_name(object) + text);
}

Json content(const ProtobufCMessage &object) {
    Json fields = to_json(object, Fields::set);
    if (const auto *key = key_field(*object.descriptor)) fields.erase(key->name);
    return fields;
}

void tell(const dm_cache_event &event) {
    switch (event.what) {
        case DM_CACHE_EVENT_ADDED:
            return tell_object(event, "added", Colour::good, "object", content(*event.after));
        case DM_CACHE_EVENT_REPLACED:
            return tell_object(event, "changed", Colour::change, "changes", differences(*event.before, *event.after));
        case DM_CACHE_EVENT_UNCHANGED:
            return tell_object(event, "unchanged", Colour::none, "changes", Json::object());
        case DM_CACHE_EVENT_DELETED:
            return tell_object(event, "deleted", Colour::bad, "object", Json::object());
        case DM_CACHE_EVENT_SWEPT:
            ++watch->swept;
            return tell_object(event, "swept", Colour::bad, "object", Json::object());
        case DM_CACHE_EVENT_APPLIED: {
            const size_t gone = std::exchange(watch->swept, 0);
            return tell("resynchronised, " + counted(gone, "object was gone", "objects were gone"),
                        {{"event", "resynchronised"}, {"gone", gone}});
        }
        default:
            return;
    }
}

// Whoever reads too slowly holds up the cache, too: so it is said.
void on_event(const dm_cache_event *event, void *) {
    using Clock = std::chrono::steady_clock;
    const std::lock_guard lock(guard);
    if (!watch) return;
    const auto begun = Clock::now();
    tell(*event);
    const double seconds = std::chrono::duration<double>(Clock::now() - begun).count();
    if (seconds < 1) return;
    char text[64];
    std::snprintf(text, sizeof text, "behind by %.1f s: nobody read what was told", seconds);
    tell(text, {{"event", "behind"}, {"seconds", seconds}});
}

std::string kinds_text(const std::vector<ObjectKind> &kinds) {
    return kinds.size() == 1 ? kinds[0].type->name : std::to_string(kinds.size()) + " kinds";
}

}  // namespace

void start_watch(const std::vector<ObjectKind> &named, const WatchOptions &options) {
    stop_watch();
    const std::vector<ObjectKind> &kinds = named.empty() ? cached_kinds() : named;
    uint32_t flags = 0;
    if (options.unchanged) flags |= DM_CACHE_FOLLOW_UNCHANGED;
    if (!options.initial) flags |= DM_CACHE_FOLLOW_FROM_NOW;
    {
        const std::lock_guard lock(guard);
        watch = Watch{.options = options, .refused = {}};
        if (!options.program.empty()) watch->programs = std::make_unique<ProgramQueue>(options.program);
        size_t objects = 0;
        Json names = Json::array();
        for (const ObjectKind &kind : kinds) {
            const dm_cache_stats stats = stats_of(kind.row);
            watch->refused[kind.row] = stats.refused;
            objects += stats.objects;
            names.push_back(kind.type->name);
        }
        const std::string reason = waits_for();
        tell("following " + kinds_text(kinds) + ", " + counted(objects, "object") +
                 (reason.empty() ? ", live" : ", not live: " + reason),
             {{"event", "following"}, {"kinds", names}, {"objects", objects}, {"live", reason.empty()}});
    }
    int32_t code = dm_cache_follow(-1, on_event, nullptr, 0);
    for (const ObjectKind &kind : kinds) code |= dm_cache_follow(kind.row, on_event, nullptr, flags);
    if (code != 0) throw Failure(exit_no, "not enough memory to follow");
}

bool is_watch_blocked() {
    for (int tries = 100; tries > 0; --tries, std::this_thread::sleep_for(std::chrono::milliseconds(10)))
        if (const std::unique_lock lock(guard, std::try_to_lock); lock) return false;
    return true;
}

// Followers first: one that is being told waits for the lock.
void stop_watch() {
    dm_cache_unfollow(-1, on_event, nullptr);
    for (const ObjectKind &kind : cached_kinds()) dm_cache_unfollow(kind.row, on_event, nullptr);
    std::unique_ptr<ProgramQueue> programs;  // ends behind the lock
    const std::lock_guard lock(guard);
    if (watch) programs = std::move(watch->programs);
    watch.reset();
}

void tell_refused() {
    const std::unique_lock lock(guard, std::try_to_lock);  // a line is being written: next time
    if (!lock || !watch) return;
    for (auto &[row, told] : watch->refused) {
        const uint32_t more = stats_of(row).refused - told;
        if (more == 0) continue;
        told += more;
        const std::string kind = obj_sub_list[row].obj_tmpl->descriptor->name;
        tell("refused, row " + std::to_string(row) + " " + kind + ": " + counted(more, "object"),
             {{"event", "refused"}, {"row", row}, {"kind", kind}, {"count", more}});
    }
}

void drop_programs() {
    const std::lock_guard lock(guard);
    if (watch && watch->programs) watch->programs->drop();
}

bool wait_for_end(double seconds) {
    const SignalsHeld held;
    const sigset_t ends = ending_signals();
    const Deadline end(std::max(seconds, 0.0));
    constexpr int32_t look_ms = 200;  // for what nobody tells
    int signal = -1;
    do {
        const int32_t left = seconds < 0 ? look_ms : std::min(end.left(), look_ms);
        const timespec limit = {left / 1000, left % 1000 * 1000000L};
        signal = sigtimedwait(&ends, nullptr, &limit);
        tell_refused();
    } while (signal < 0 && (seconds < 0 || end.left() > 0));
    return signal >= 0;
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
