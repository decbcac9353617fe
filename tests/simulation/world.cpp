// The simulated store and its connection.
#include "tests/simulation/world.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "tests/simulation/check.h"
#include "tq_dm_cache/dm_cache_status.h"
#include "tq_dm_cache/dm_cache_sync.h"

namespace {

World *world = nullptr;

int32_t on_change(tq_mom_handle *, int32_t type, int32_t operation, ProtobufCMessage *message) {
    world->listener.told(type, operation, message);
    return 0;
}

uint32_t database_of(int32_t row) {
    return row == DM_ROW_VSL_PORT_INFO ? 3 : 1;
}

const ProtobufCMessageDescriptor *kind_of(int32_t row) {
    return obj_sub_list[row].obj_tmpl->descriptor;
}

template <class T> T take_front(std::deque<T> &queue) {
    T front = std::move(queue.front());
    queue.pop_front();
    return front;
}

constexpr int32_t kinds[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 20, 21, 30, 31, 32, 38};

}  // namespace

World::World(uint64_t seed, bool trace)
    : random{std::mt19937_64(seed), seed % 2 == 0},
      trace_(trace),
      loss_rate_(random.below(40)),
      refusal_rate_(random.below(4)),
      one_scan_at_a_time_(random.percent(50)),
      longest_step_(2 + static_cast<size_t>(random.below(20))) {
    world = this;
    if (random.percent(50)) dm_cache_multi_thread_init();
    for (const int32_t row : kinds)
        if (random.percent(85)) dm_cache_sub_obj(row, on_change, random.percent(3) ? DM_CACHE_NO_STORE : 0);
    if (dm_cache_init(&platform.handle, "simulation") != 0) fail("the cache does not start");
    platform.during_call = [this](const std::string &call) { platform.answers = {{call, refuse(call)}}; };
    for (int i = 0; i < 60; ++i) write();
    for (const Connection &each : platform.connections) control_.push_back({Delivery::ready, each.db});
}

void World::step() {
    ++now_;
    ++totals[steps];
    if (!up_ && random.percent(15)) come_back();
    if (up_ && random.below(1000) < loss_rate_) lose();
    const int32_t roll = random.below(100);
    if (roll < 25) {
        write();
    } else if (roll < 60) {
        for (int32_t n = random.below(4); n >= 0; --n) serve();
    } else if (roll < 95) {
        for (int32_t n = random.below(8); n >= 0; --n) deliver();
    } else if (roll < 96) {
        older_ = content;
    } else if (up_ && g_cache_proc_done && !content.empty()) {
        const auto &[place, object] = *std::next(content.begin(), random.below(content.size()));
        if (!object.damaged) client_sets_object(place.row, Message::unpack(kind_of(place.row), object.bytes));
    }
    pass_time();
}

void World::pass_time() {
    platform.now_ms += random.below(longest_step_);
    platform.fire_timers(platform.now_ms);
    collect();
}

bool World::follows(int32_t row) const {
    return obj_sub_list[row].enable && !(obj_sub_list[row].flag & DM_CACHE_NO_STORE);
}

// The writer

void World::write() {
    const int32_t row = kinds[random.below(std::size(kinds))];
    if (row == DM_ROW_DP_LIB_COMPLETE && !random.percent(20)) return;  // each one is a resynchronisation
    const Place place{row, random_key(row)};
    if (random.percent(25)) return erase(place);
    put(place, {packed(random_object(random, row, place.key).get()), random.percent(2), now_});
}

int32_t World::random_key(int32_t row) {
    if (obj_sub_list[row].index_offset == 0) return 0;
    if (row != DM_ROW_VSD_PORT) return random.below(keys_of_a_row);
    // Ports of two VSDs at one place share their index keys.
    return random.below(keys_of_a_row) * 2 + (random.own_index_keys ? 0 : random.below(2));
}

void World::put(Place place, Object object) {
    say("write    row %d key %d%s", place.row, place.key, object.damaged ? ", damaged" : "");
    push(place.row, Delivery::set, object);
    content[place] = std::move(object);
}

void World::erase(Place place) {
    const auto found = content.find(place);
    if (found == content.end()) return;
    say("delete   row %d key %d", place.row, place.key);
    push(place.row, Delivery::deleted, found->second);
    content.erase(found);
}

void World::push(int32_t row, Delivery::What what, const Object &object) {
    for (const Request &each : in_force_)
        if (each.kind == kind_of(row) && each.db == database_of(row)) stream_.push_back({what, each.db, each, object});
}

// The store: takes up one thing that it has to do.

void World::serve() {
    const size_t waiting = !control_.empty() + !requests_.empty() + scans_.size();
    if (!up_ || waiting == 0) return;
    size_t pick = static_cast<size_t>(random.below(waiting));
    if (!control_.empty() && pick-- == 0) return stream_.push_back(take_front(control_));
    if (!requests_.empty() && pick-- == 0) {
        const Asked asked = take_front(requests_);
        return begin(asked.request, asked.scan);
    }
    go_on(one_scan_at_a_time_ ? 0 : pick);
}

void World::begin(const Request &request, bool scan) {
    if (scan) {
        Scan begun{request, {}};
        for (const auto &[place, object] : content)
            if (request.kind == kind_of(place.row) && request.db == database_of(place.row)) begun.left.push_back(place);
        std::shuffle(begun.left.begin(), begun.left.end(), random.engine);
        return scans_.push_back(std::move(begun));
    }
    const bool known = std::any_of(in_force_.begin(), in_force_.end(), [&](const Request &each) {
        return each.kind == request.kind && each.callback == request.callback && each.privdata == request.privdata;
    });
    if (!known) in_force_.push_back(request);
    control_.push_back({Delivery::confirmed, request.db, request});
}

// Some more objects of a scan, as they are now. An object may be met twice.
void World::go_on(size_t scan) {
    auto &[request, left] = scans_[scan];
    for (int32_t n = random.below(6); n >= 0 && !left.empty(); --n) {
        const auto found = content.find(left.back());
        if (!random.percent(5)) left.pop_back();
        if (found != content.end()) stream_.push_back({Delivery::reply, request.db, request, found->second});
    }
    if (!left.empty()) return;
    stream_.push_back({Delivery::scan_end, request.db, request});
    scans_.erase(scans_.begin() + static_cast<std::ptrdiff_t>(scan));
}

// The connection

void World::deliver() {
    if (stream_.empty()) return;
    const Delivery delivery = take_front(stream_);
    ++totals[deliveries];
    hand_over(delivery);
    collect();
}

void World::hand_over(const Delivery &delivery) {
    static constexpr const char *names[] = {"ready", "confirm", "set", "delete", "reply", "scan end", "reconnect"};
    const Request &to = delivery.to;
    const auto row = static_cast<int32_t>(reinterpret_cast<intptr_t>(to.privdata));
    say("deliver  %s, db %u, row %d%s", names[delivery.what], delivery.db, row,
        delivery.object.damaged ? ", damaged" : "");

    const Message object = to.kind ? Message::unpack(to.kind, delivery.object.bytes) : Message();
    const bool damaged = delivery.object.damaged;
    result_rec record{};
    record.obj = damaged ? nullptr : object.get();
    record.error = damaged;
    const auto connection = std::find_if(platform.connections.begin(), platform.connections.end(),
                                         [&](const Connection &each) { return each.db == delivery.db; });
    switch (delivery.what) {
        case Delivery::ready:
            ready_.insert(delivery.db);
            connection->ready(nullptr, connection->privdata);
            break;
        case Delivery::confirmed:
            for (Request &each : platform.subscriptions)
                if (each.callback == to.callback && each.privdata == to.privdata) each.confirmed = true;
            ScriptedPlatform::deliver(to, TQ_MOM_CMD_SUBSCRIBED, nullptr);
            break;
        case Delivery::set:
            ScriptedPlatform::deliver(to, TQ_MOM_CMD_SET, damaged ? nullptr : object.get(), 0, damaged);
            break;
        case Delivery::deleted:
            ScriptedPlatform::deliver(to, TQ_MOM_CMD_DELETE, key_only(object.get()).get());
            break;
        case Delivery::reply:
            ScriptedPlatform::deliver(to, TQ_MOM_CMD_REPLY, &record);
            break;
        case Delivery::scan_end:
            ScriptedPlatform::deliver(to, TQ_MOM_CMD_REPLY, nullptr, /*flag=*/1);
            break;
        case Delivery::reconnected:
            held_back_.erase(delivery.db);
            application_due_ = true;
            ++totals[reconnects];
            connection->reconnect(nullptr, delivery.db, delivery.reason, nullptr);
            break;
    }
    const bool scanned = std::any_of(platform.calls.begin(), platform.calls.end(),
                                     [](const std::string &call) { return call.starts_with("scan "); });
    const bool pushed = delivery.what == Delivery::set || delivery.what == Delivery::deleted;
    if (pushed && row == DM_ROW_DP_LIB_COMPLETE && scanned) {
        say("         a resynchronisation begins");
        ++totals[resyncs];
        application_due_ = true;
    }
}

// Takes up what the library asked for. Without a connection a scan is void: the reconnect ends it.
void World::collect() {
    for (Request &each : platform.subscriptions)
        if (!std::exchange(each.sent, true) && up_) requests_.push_back({each, false});
    for (const Request &each : std::exchange(platform.scans, {})) {
        if (up_) requests_.push_back({each, true});
        scan_before_report_ = scan_before_report_ || (up_ && report_waits());
    }
    for (const std::string &call : platform.calls) say("         %s", call.c_str());
    platform.calls.clear();

    if (dm_cache_applied() > applied_seen_) {
        applied_seen_ = dm_cache_applied();
        say("         applied: %u", applied_seen_);
        ++totals[applications];
        complete_ = up_ && !scan_before_report_;
        if (complete_) check_complete(*this);
    }
    if (complete_ && random.percent(3)) check_complete(*this);
}

bool World::report_waits() const {
    const auto report = [](const Delivery &each) { return each.what == Delivery::reconnected; };
    return std::any_of(control_.begin(), control_.end(), report) || std::any_of(stream_.begin(), stream_.end(), report);
}

int32_t World::refuse(const std::string &call) {
    if (at_rest_ || !(call.starts_with("sub") || call.starts_with("scan "))) return 0;
    if (up_ ? random.below(1000) >= refusal_rate_ : random.percent(50)) return 0;
    say("         refused:");
    held_back_.insert(call.find(" 3 ") == std::string::npos ? 1 : 3);
    return 7;
}

void World::lose() {
    say("connection lost");
    ++totals[losses];
    up_ = complete_ = scan_before_report_ = false;
    requests_.clear();
    scans_.clear();
    control_.clear();
    stream_.clear();
    in_force_.clear();
}

void World::come_back() {
    const bool same = random.percent(60);
    say("connection back, %s server", same ? "the same" : "another");
    if (!same) swap_content();
    up_ = true;
    up_since_ = ++now_;
    in_force_ = platform.subscriptions;
    for (const Request &each : in_force_)
        if (!each.confirmed) control_.push_back({Delivery::confirmed, each.db, each});
    for (const Connection &each : platform.connections) {
        const bool known = ready_.contains(each.db);
        if (!known) control_.push_back({Delivery::ready, each.db});
        if (known || random.percent(50)) control_.push_back({Delivery::reconnected, each.db, {}, {}, same ? 1 : 2});
    }
}

// Another server holds the same, what there was some time ago, nothing, or anything.
void World::swap_content() {
    const int32_t roll = random.below(100);
    if (roll < 30) return;
    content = roll < 65 ? older_ : Content{};
    for (int i = 0; i < 60 && roll >= 85; ++i) write();
}

// The client

void World::client_sets_object(int32_t row, const Message &object) {
    say("client   sets an object of row %d", row);
    if (follows(row)) listener.sets_own(row, object.get());
    if (dm_cache_set_obj(row, object.get()) != 0) fail("row %d: dm_cache_set_obj refuses an object", row);
}

// Objects in the cache that the store does not have: the next full application is to sweep them.
void World::plant_ghosts() {
    for (const int32_t row : kinds)
        if (follows(row) && obj_sub_list[row].index_offset > 0 && random.percent(30))
            client_sets_object(row, random_object(random, row, ghost_keys));
}

// Coming to rest

void World::drain() {
    const auto under_way = [this] {
        return control_.size() + requests_.size() + scans_.size() + stream_.size() + platform.timers.size();
    };
    for (int turns = 0; under_way() > 0; ++turns) {
        if (turns > 100000) fail("the client never comes to rest");
        random.percent(50) ? serve() : deliver();
        pass_time();
    }
}

// What was refused is asked again only after a lost connection.
void World::come_to_rest() {
    at_rest_ = true;
    if (!up_) come_back();
    drain();
    if (!held_back_.empty()) {
        lose();
        come_back();
        drain();
    }
    at_rest_ = false;
    say("at rest");
    ++totals[quiet_points];
}

void World::check_at_rest() {
    come_to_rest();
    if ((dm_cache_applied() > applied_at_rest_) != application_due_) fail("applied %u times", dm_cache_applied());
    applied_at_rest_ = dm_cache_applied();
    application_due_ = false;
    check_equal(*this);

    if (!random.percent(30)) return;
    plant_ghosts();
    if (obj_sub_list[DM_ROW_DP_LIB_COMPLETE].enable && random.percent(50)) {
        put({DM_ROW_DP_LIB_COMPLETE, 0}, {packed(random_object(random, 1, 0).get()), false, now_});
    } else {
        lose();
    }
    come_to_rest();
    if (!application_due_) fail("no resynchronisation");
    check_at_rest();
}

void World::say(const char *format, ...) const {
    if (!trace_) return;
    std::printf("%5lld  ", static_cast<long long>(now_));
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::printf("\n");
}
