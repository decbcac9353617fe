// The road in virtual time: a simulated store, and a connection to it that may be lost at any moment. Everything that happens
// is chosen by chance.
//
// The connection keeps what every store client promises: pushes and scan replies arrive in one order, the store's own; a
// scan is its objects, then an end mark; a lost connection voids what is under way, and when it is back the subscriptions
// are restored, confirmations that were owed are given, then the reconnect is reported. Deletes made meanwhile are lost.
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <set>
#include <thread>

#include "cache/pending.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/world.h"
#include "tq_dm_cache/dm_cache_status.h"
#include "tq_dm_cache/dm_cache_sync.h"

namespace {

struct RowKey {
    int32_t row;
    std::string key;
    auto operator<=>(const RowKey &) const = default;
};

struct Stored {
    std::string bytes;
    bool damaged = false;
    int64_t since = 0;  // the step that wrote it
};

using Content = std::map<RowKey, Stored>;

// What is on its way to the client: how a trace names it, and what happens when it arrives.
struct Delivery {
    std::string name;
    std::function<void()> arrive;
};

struct Scan {
    Request request;
    std::vector<RowKey> left;
};

bool asks_for(const Request &request, int32_t row) {
    return request.kind == kind_of(row) && request.db == (row == DM_ROW_VSL_PORT_INFO ? 3 : 1);
}

template <class T> T take_front(std::deque<T> &queue) {
    T front = std::move(queue.front());
    queue.pop_front();
    return front;
}

class Simulation : World {
public:
    Simulation(uint64_t seed, bool trace) : World(seed, trace, /*own_index_keys=*/seed % 2 == 0) {
        if (random.percent(50)) dm_cache_multi_thread_init();
        for (const int32_t row : rows)
            if (random.percent(85)) follow(row, random.percent(3) ? DM_CACHE_NO_STORE : 0);
        if (dm_cache_init(&platform.handle, "simulation") != 0) fail("the cache does not start");
        platform.during_call = [this](const std::string &call) { platform.answers = {{call, refuse(call)}}; };
        for (int i = 0; i < 60; ++i) write(random);
        for (const Connection &each : platform.connections) say_ready(each);
    }

    void run(long steps) {
        for (; steps > 0; --steps) {
            step();
            if (random.below(80) == 0) check_at_rest();
        }
        check_at_rest();
        for (const int32_t row : rows) count("objects swept", counters(row).swept);
    }

private:
    void step() {
        ++now;
        if (!up_ && random.percent(15)) come_back();
        if (up_ && random.below(1000) < loss_rate_) lose();
        const int32_t roll = random.below(100);
        if (roll < 25) {
            write(random);
        } else if (roll < 60) {
            for (int32_t n = random.below(4); n >= 0; --n) serve();
        } else if (roll < 95) {
            for (int32_t n = random.below(8); n >= 0; --n) deliver();
        } else if (roll < 96) {
            if (random.percent(50))
                follower_comes_or_goes(random);
            else
                older_ = content_;
        } else if (up_ && g_cache_proc_done && !content_.empty()) {
            const auto &[place, object] = *std::next(content_.begin(), random.below(content_.size()));
            if (!object.damaged) client_sets_object(place.row, Message::unpack(kind_of(place.row), object.bytes));
        }
        pass_time();
        if (random.percent(20)) check_ages();
    }

    // All that the store told has been delivered: a row that claims to be equal to the store now is.
    void check_ages() {
        if (!up_ || !stream_.empty() || !control_.empty()) return;
        platform.heard_ms = 0;
        for (const int32_t row : rows) {
            if (dm_cache_age_ms(row) != 0) continue;
            count("rows that are told to be equal");
            Picture cache = cached_picture(row), store;
            read_store(row, store, cache);
            if (const std::string found = ::difference(cache, store); !found.empty())
                fail("row %d is told to be equal to the store: %s", row, found.c_str());
        }
    }

    void pass_time() {
        platform.now_ms += random.below(longest_step_);
        platform.fire_timers(platform.now_ms);
        collect();
    }

    // The writer

    void set(int32_t row, const Message &object) override { put(row, object, /*damaged=*/random.percent(2)); }

    void put(int32_t row, const Message &object, bool damaged) {
        say("write    row %d key %s%s", row, key_text(object.get()).c_str(), damaged ? ", damaged" : "");
        content_[{row, key_bytes(object.get())}] = {packed(object.get()), damaged, now};
        push(row, damaged ? "set, damaged" : "set", TQ_MOM_CMD_SET, packed(object.get()), damaged);
    }

    void remove(int32_t row, const Message &object) override {
        if (content_.erase({row, key_bytes(object.get())}) == 0) return;
        say("delete   row %d key %s", row, key_text(object.get()).c_str());
        push(row, "delete", TQ_MOM_CMD_DELETE, packed(key_only(object.get()).get()));
    }

    void push(int32_t row, const char *name, int32_t cmd, const std::string &bytes, bool damaged = false) {
        for (const Request &each : in_force_) {
            if (!asks_for(each, row)) continue;
            send(stream_, name, each, [=, this] {
                const Message message = Message::unpack(each.kind, bytes);
                each.deliver(cmd, damaged ? nullptr : message.get(), /*flag=*/0, damaged);
                const auto is_scan = [](const std::string &call) { return call.starts_with("scan "); };
                if (row != DM_ROW_DP_LIB_COMPLETE || std::ranges::none_of(platform.calls, is_scan)) return;
                say("         a resynchronisation begins");
                count("resynchronisations");
                application_due_ = true;
            });
        }
    }

    // Whether the cache has what came damaged, or an older one, depends on when it came.
    bool read_store(int32_t row, Picture &store, Picture &cache) override {
        for (const auto &[place, object] : content_) {
            if (place.row != row) continue;
            if (object.damaged)
                cache.erase(place.key);
            else
                store.emplace(place.key, object.bytes);
        }
        return true;
    }

    // The store

    // Takes up one thing that it has to do.
    void serve() {
        const size_t waiting = !control_.empty() + !requests_.empty() + scans_.size();
        if (!up_ || waiting == 0) return;
        auto pick = static_cast<size_t>(random.below(waiting));
        if (!control_.empty() && pick-- == 0) return stream_.push_back(take_front(control_));
        if (!requests_.empty() && pick-- == 0) return take_front(requests_)();
        go_on(one_scan_at_a_time_ ? 0 : pick);
    }

    void begin_scan(const Request &request) {
        Scan begun{request, {}};
        for (const auto &[place, object] : content_)
            if (asks_for(request, place.row)) begun.left.push_back(place);
        std::ranges::shuffle(begun.left, random.engine);
        scans_.push_back(std::move(begun));
    }

    // Some more objects of a scan, as they are now. An object may be met twice.
    void go_on(size_t scan) {
        auto &[request, left] = scans_[scan];
        for (int32_t n = random.below(6); n >= 0 && !left.empty(); --n) {
            const auto found = content_.find(left.back());
            if (!random.percent(5)) left.pop_back();
            if (found == content_.end()) continue;
            send(stream_, "reply", request, [to = request, object = found->second] {
                to.reply(Message::unpack(to.kind, object.bytes), object.damaged);
            });
        }
        if (!left.empty()) return;
        send(stream_, "scan end", request, [to = request] { to.end(); });
        scans_.erase(scans_.begin() + static_cast<std::ptrdiff_t>(scan));
    }

    void subscribe(const Request &request) {
        const bool known = std::ranges::any_of(in_force_, [&](const Request &each) { return each.is(request); });
        if (!known) in_force_.push_back(request);
        confirm(request);
    }

    void confirm(const Request &request) {
        send(control_, "confirm", request, [request] {
            for (Request &each : platform.subscriptions) each.confirmed |= each.is(request);
            request.deliver(TQ_MOM_CMD_SUBSCRIBED, nullptr);
        });
    }

    void say_ready(const Connection &to) {
        control_.push_back({"ready", [this, to] {
                                ready_.insert(to.db);
                                to.ready(nullptr, to.privdata);
                            }});
    }

    void report_reconnect(const Connection &to, int32_t reason) {
        ++reports_under_way_;
        control_.push_back({"reconnect", [this, to, reason] {
                                --reports_under_way_;
                                held_back_.erase(to.db);
                                application_due_ = true;
                                count("reconnects reported");
                                to.reconnect(nullptr, to.db, reason, nullptr);
                            }});
    }

    // The connection

    static void send(std::deque<Delivery> &queue, const char *name, const Request &to, std::function<void()> arrive) {
        const auto row = reinterpret_cast<intptr_t>(to.privdata);
        queue.push_back({std::string(name) + ", row " + std::to_string(row), std::move(arrive)});
    }

    void deliver() {
        if (stream_.empty()) return;
        const Delivery delivery = take_front(stream_);
        count("deliveries");
        say("deliver  %s", delivery.name.c_str());
        delivery.arrive();
        collect();
    }

    // Takes up what the library asked for. Without a connection a scan is void: the reconnect ends it.
    void collect() {
        for (Request &each : platform.subscriptions)
            if (!std::exchange(each.sent, true) && up_) requests_.push_back([this, each] { subscribe(each); });
        for (const Request &each : std::exchange(platform.scans, {})) {
            if (up_) requests_.push_back([this, each] { begin_scan(each); });
            scan_before_report_ |= up_ && reports_under_way_ > 0;
        }
        for (const std::string &call : std::exchange(platform.calls, {})) say("         %s", call.c_str());

        if (dm_cache_applied() > applied_seen_) {
            applied_seen_ = dm_cache_applied();
            say("         applied: %u", applied_seen_);
            count("full applications");
            complete_ = up_ && !scan_before_report_;
            if (complete_) check_complete();
        }
        if (complete_ && random.percent(3)) check_complete();
    }

    int32_t refuse(const std::string &call) {
        if (at_rest_ || !(call.starts_with("sub") || call.starts_with("scan "))) return 0;
        if (up_ ? random.below(1000) >= refusal_rate_ : random.percent(50)) return 0;
        say("         refused:");
        held_back_.insert(call.find(" 3 ") == std::string::npos ? 1 : 3);
        return 7;
    }

    void lose() {
        say("connection lost");
        count("lost connections");
        up_ = complete_ = scan_before_report_ = false;
        reports_under_way_ = 0;
        requests_.clear();
        scans_.clear();
        control_.clear();
        stream_.clear();
        in_force_.clear();
    }

    void come_back() {
        const bool same = random.percent(60);
        say("connection back, %s server", same ? "the same" : "another");
        if (!same) swap_content();
        up_ = true;
        up_since_ = ++now;
        in_force_ = platform.subscriptions;
        for (const Request &each : in_force_)
            if (!each.confirmed) confirm(each);
        for (const Connection &each : platform.connections) {
            const bool known = ready_.contains(each.db);
            if (!known) say_ready(each);
            if (known || random.percent(50)) report_reconnect(each, same ? 1 : 2);
        }
    }

    // Another server holds the same, what there was some time ago, nothing, or anything.
    void swap_content() {
        const int32_t roll = random.below(100);
        if (roll < 30) return;
        content_ = roll < 65 ? older_ : Content{};
        for (int i = 0; i < 60 && roll >= 85; ++i) write(random);
    }

    // The client

    void client_sets_object(int32_t row, const Message &object) {
        say("client   sets an object of row %d", row);
        if (follows(row)) listener.sets_own(row, object.get());
        if (dm_cache_set_obj(row, object.get()) != 0) fail("row %d: dm_cache_set_obj refuses an object", row);
    }

    // Objects in the cache that the store does not have: the next full application is to sweep them.
    void plant_ghosts() {
        for (const int32_t row : rows)
            if (follows(row) && obj_sub_list[row].index_offset > 0 && random.percent(30))
                client_sets_object(row, random_object(random, row, ghost_keys));
    }

    // After a full application on a connection: what has not changed in the store since it was made is cached, at any time.
    void check_complete() const {
        for (const auto &[place, object] : content_) {
            if (object.damaged || object.since >= up_since_ || !follows(place.row) || late_rows.contains(place.row))
                continue;
            const Message wanted = Message::unpack(kind_of(place.row), object.bytes);
            if (!cache_shows(place.row, key_message(wanted.get()), wanted.get()))
                fail("row %d key %s: applied, but not what the store has", place.row, key_text(wanted.get()).c_str());
        }
    }

    // Coming to rest

    void drain() {
        const auto under_way = [this] {
            return control_.size() + requests_.size() + scans_.size() + stream_.size() + platform.timers.size();
        };
        for (int turns = 0; under_way() > 0; ++turns) {
            if (turns > 100000) fail("the client never comes to rest");
            if (random.percent(50))
                serve();
            else
                deliver();
            pass_time();
        }
    }

    // What was refused is asked again only after a lost connection.
    void come_to_rest() {
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
        count("quiet points");
    }

    void check_at_rest() {
        come_to_rest();
        if ((dm_cache_applied() > applied_at_rest_) != application_due_) fail("applied %u times", dm_cache_applied());
        applied_at_rest_ = dm_cache_applied();
        application_due_ = false;
        if (const std::string found = difference(); !found.empty()) fail("%s", found.c_str());
        if (dm::g_cache_pending_num != 0) fail("%u items are left in the queue", dm::g_cache_pending_num);

        if (!random.percent(30)) return;
        plant_ghosts();
        if (obj_sub_list[DM_ROW_DP_LIB_COMPLETE].enable && random.percent(50)) {
            put(DM_ROW_DP_LIB_COMPLETE, random_object(random, DM_ROW_DP_LIB_COMPLETE, 0), /*damaged=*/false);
        } else {
            lose();
        }
        come_to_rest();
        if (!application_due_) fail("no resynchronisation");
        check_at_rest();
    }

    const int32_t loss_rate_ = random.below(40);    // per mille of the steps
    const int32_t refusal_rate_ = random.below(4);  // per mille of the calls
    const bool one_scan_at_a_time_ = random.percent(50);
    const size_t longest_step_ = 2 + static_cast<size_t>(random.below(20));  // in milliseconds
    bool up_ = true, at_rest_ = false, complete_ = false;
    int64_t up_since_ = 1;
    size_t reports_under_way_ = 0;
    // A scan was asked for on a connection whose reconnect is not reported yet. Its end cannot be told from that of the rescan
    // to come, so the next application may come too early; at rest all is equal again.
    bool scan_before_report_ = false;
    bool application_due_ = true;
    uint32_t applied_at_rest_ = 0, applied_seen_ = 0;

    Content content_, older_;
    std::deque<std::function<void()>> requests_;  // on their way to the store
    std::vector<Scan> scans_;                     // under way in the store
    std::deque<Delivery> control_;                // what the store will say when it comes to it, in order
    std::deque<Delivery> stream_;                 // on its way to the client
    std::vector<Request> in_force_;               // subscriptions that the store knows
    std::set<uint32_t> ready_, held_back_;        // databases
};

}  // namespace

int main(int argc, char **argv) {
    const auto run = [](uint64_t seed, long steps, bool trace) {
        alarm(60);
        Simulation(seed, trace).run(steps);
    };
    return run_seeds({"simulate", "steps", 500, std::max(1U, std::thread::hardware_concurrency()), run}, argc, argv);
}
