// Opening, starting, writing, waiting.
#include "dmq/session.h"

#include <algorithm>

#include "dmq/output.h"
#include "dmq/watch.h"

namespace dmq {

namespace {

Client open_store(const std::string &url) {
    const SignalsHeld held;
    tq_mom_handle *handle = nullptr;
    const int32_t code = tq_mom_client_open(url.c_str(), &handle);
    if (code == TQ_MOM_E_URL || code == TQ_MOM_E_ARGUMENT)
        throw Failure(exit_usage, url + " names no store; see --store in dmq --help");
    if (code == TQ_MOM_E_DENIED)
        throw Failure(exit_unreachable, "the store " + url +
                                            " knows no such user or password; TQ_STORE_USER and "
                                            "TQ_STORE_PASSWORD give others");
    if (code) throw Failure(exit_unreachable, "the store " + url + " is not reachable; is its server running?");
    return Client(handle);
}

[[noreturn]] void write_failed(int32_t code, const std::string &what) {
    if (code == TQ_MOM_E_NOT_FOUND) throw Failure(exit_no, what + ": no such object in the store");
    if (code == TQ_MOM_E_TIMEOUT) throw Failure(exit_timeout, what + ": the store did not answer in time");
    if (code == TQ_MOM_E_UNREACHABLE) throw Failure(exit_unreachable, what + ": the store is not reachable");
    throw Failure(exit_usage, what + ": the store refused it, code " + std::to_string(code));
}

bool is_complete_notice(const ProtobufCMessage &object) {
    return kind_of(*object.descriptor).row == DM_ROW_DP_LIB_COMPLETE && stats_of(DM_ROW_DP_LIB_COMPLETE).enabled;
}

std::string seconds(double timeout) {
    return dump(timeout == static_cast<int>(timeout) ? Json(int(timeout)) : Json(timeout));
}

}  // namespace

Session::Session(const Settings &settings) : store_(settings.store) {
    std::vector<std::vector<Entry>> topologies;
    for (const auto &file : settings.load) topologies.push_back(read_topology(file));
    writer_ = open_store(store_);
    for (const auto &topology : topologies) write(topology, settings.timeout);
}

Session::~Session() {
    stop_watch();
}

void Session::open_reader() {
    if (reader_) return;
    reader_ = open_store(store_);
    tq_mom_client_set_connection_cb(reader(), watch_connection, nullptr);
}

void Session::start(const std::vector<Kind> &kinds) {
    if (started_) return;
    open_reader();
    dm_cache_multi_thread_init();
    for (const Kind &kind : kinds.empty() ? cached_kinds() : kinds) dm_cache_sub_obj(kind.row, watch_change, 0);
    if (const int32_t code = dm_cache_init(reader(), "dmq"))
        throw Failure(exit_unreachable, "the store " + store_ + " did not connect, code " + std::to_string(code));
    started_ = true;
}

void Session::synchronise(const std::vector<Kind> &kinds, const Settings &settings) {
    start(kinds);
    Progress progress("synchronising, rows scanned");
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds(settings.timeout));
    while (true) {
        const uint32_t applied = dm_cache_applied();
        if (applied > 0 && held_back().empty()) break;
        if (dm_cache_wait_applied(applied, 100) == 0) continue;
        size_t enabled = 0, scanned = 0;
        for (const Kind &kind : cached_kinds()) {
            enabled += stats_of(kind.row).enabled;
            scanned += stats_of(kind.row).scanned;
        }
        progress.show(scanned, enabled);
        if (std::chrono::steady_clock::now() >= end)
            throw Failure(exit_timeout, "not synchronised after " + seconds(settings.timeout) + " s: " + held_back());
    }
}

static constexpr size_t objects_at_a_time = 1024;  // between two looks at the progress

void Session::write(const std::vector<Entry> &entries, double timeout) {
    const uint32_t applied = dm_cache_applied();
    bool notice = false;
    size_t done = 0;
    Progress progress("writing objects");
    while (done < entries.size()) {
        std::vector<tq_mom_write> group;
        for (size_t i = done; i < entries.size() && i < done + objects_at_a_time; i++) {
            group.push_back({entries[i].db, entries[i].object.get()});
            notice |= is_complete_notice(*entries[i].object);
        }
        uint32_t taken = 0, refused = 0;
        if (const int32_t code =
                tq_mom_set_many(writer(), group.data(), static_cast<uint32_t>(group.size()), &taken, &refused))
            write_failed(code, object_name(*entries[done + std::min<size_t>(refused, group.size() - 1)].object) +
                                   " (after " + std::to_string(done + taken) + " objects written)");
        progress.show(done += group.size(), entries.size());
    }
    settle_edit(notice, applied, timeout);
}

void Session::erase(uint32_t db, const ProtobufCMessage &object_with_key, double timeout) {
    const uint32_t applied = dm_cache_applied();
    if (const int32_t code = tq_mom_del(writer(), db, &object_with_key))
        write_failed(code, object_name(object_with_key));
    settle_edit(is_complete_notice(object_with_key), applied, timeout);
}

// A change of row 1 makes the cache scan everything again.
void Session::settle_edit(bool resynchronises, uint32_t applied, double timeout) {
    if (!follows()) return;
    resynchronises &&applied > 0 ? settle_applied(applied, timeout) : settle(timeout);
}

void Session::settle(double timeout) {
    if (!started_) return;
    if (tq_mom_client_drain(reader(), milliseconds(timeout)))
        throw Failure(exit_timeout, "the cache was not told everything after " + seconds(timeout) + " s");
    catch_up_watch();
}

void Session::settle_applied(uint32_t applied, double timeout) {
    if (dm_cache_wait_applied(applied, milliseconds(timeout)))
        throw Failure(exit_timeout, "not synchronised again after " + seconds(timeout) + " s: " + held_back());
    catch_up_watch();
}

std::string held_back() {
    size_t enabled = 0, waiting = 0;
    std::string first;
    bool subscribing = false;
    for (const Kind &kind : cached_kinds()) {
        const dm_cache_stats stats = stats_of(kind.row);
        if (!stats.enabled) continue;
        enabled++;
        const bool unconfirmed = !stats.subscribed;
        if (!unconfirmed && (stats.scanned || subscribing)) continue;
        if (unconfirmed && !subscribing) waiting = 0, first.clear(), subscribing = true;
        waiting++;
        if (first.empty()) first = "row " + std::to_string(kind.row) + " " + kind.type->name;
    }
    if (first.empty()) return "";
    const std::string others = waiting > 1 ? " and " + std::to_string(waiting - 1) + " others are" : " is";
    return first + others + (subscribing ? " not subscribed" : " not scanned") + ", which holds back all " +
           std::to_string(enabled) + " rows";
}

dm_cache_stats stats_of(int32_t row) {
    dm_cache_stats stats{};
    dm_cache_get_stats(row, &stats, sizeof stats);
    return stats;
}

}  // namespace dmq
