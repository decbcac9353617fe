#ifndef TQ_DM_SIMULATION_WORLD_H
#define TQ_DM_SIMULATION_WORLD_H

// A store, a connection to it that may be lost at any moment, and a writer that goes on all the while; the cache library
// is the client. One seed is one run: time is virtual and everything that happens is chosen by chance.
//
// The connection keeps what every store client promises: pushes and scan replies arrive in one order, the store's own; a
// scan is its objects, then an end mark; a lost connection voids what is under way, and when it is back the subscriptions
// are restored, confirmations that were owed are given, then the reconnect is reported. Deletes made meanwhile are lost.

#include <deque>
#include <set>

#include "tests/simulation/listener.h"
#include "tests/simulation/objects.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/seeds.h"

struct Place {
    int32_t row, key;
    auto operator<=>(const Place &) const = default;
};

struct Object {
    std::string bytes;
    bool damaged = false;
    int64_t since = 0;  // the step that wrote it
};

using Content = std::map<Place, Object>;

struct Delivery {
    enum What { ready, confirmed, set, deleted, reply, scan_end, reconnected } what;
    uint32_t db = 0;
    Request to{};
    Object object{};
    int32_t reason = 0;
};

struct Scan {
    Request request;
    std::vector<Place> left;
};

// What was done, counted.
enum Total { steps, deliveries, losses, reconnects, resyncs, applications, swept, quiet_points, total_count };
inline constexpr const char *total_names[total_count] = {"steps",
                                                         "deliveries",
                                                         "lost connections",
                                                         "reconnects reported",
                                                         "resynchronisations",
                                                         "full applications",
                                                         "objects swept",
                                                         "quiet points"};
using Totals = std::array<int64_t, total_count>;

class World {
public:
    World(uint64_t seed, bool trace);

    void step();
    void check_at_rest();  // comes to rest, then compares cache and store

    // What compares itself with the cache: each is told of every change, and looked at whenever all is at rest.
    Listener listener;

    Random random;
    Content content;
    Totals totals{};

    bool follows(int32_t row) const;  // enabled, and stored
    // Whether an object has not changed since the connection was established.
    bool settled(const Object &object) const { return object.since < up_since_; }

private:
    void write();
    int32_t random_key(int32_t row);
    void put(Place place, Object object);
    void erase(Place place);
    void push(int32_t row, Delivery::What what, const Object &object);
    void serve();
    void begin(const Request &request, bool scan);
    void go_on(size_t scan);
    void deliver();
    void hand_over(const Delivery &delivery);
    void collect();
    void lose();
    void come_back();
    void swap_content();
    void client_sets_object(int32_t row, const Message &object);
    void plant_ghosts();
    void come_to_rest();
    void drain();
    void pass_time();
    bool report_waits() const;
    int32_t refuse(const std::string &call);
    void say(const char *format, ...) const __attribute__((format(printf, 2, 3)));

    const bool trace_;
    const int32_t loss_rate_;     // per mille of the steps
    const int32_t refusal_rate_;  // per mille of the calls
    const bool one_scan_at_a_time_;
    const size_t longest_step_;  // in milliseconds
    bool up_ = true, at_rest_ = false, complete_ = false;
    int64_t now_ = 0, up_since_ = 1;
    // A scan was asked for on a connection whose reconnect is not reported yet. Its end cannot be told from that of the rescan
    // to come, so the next application may come too early; at rest all is equal again.
    bool scan_before_report_ = false;
    bool application_due_ = true;
    uint32_t applied_at_rest_ = 0, applied_seen_ = 0;

    struct Asked {
        Request request;
        bool scan;
    };
    std::deque<Asked> requests_;     // on their way to the store
    std::vector<Scan> scans_;        // under way in the store
    std::deque<Delivery> control_;   // what the store will say when it comes to it, in order
    std::deque<Delivery> stream_;    // on its way to the client
    std::vector<Request> in_force_;  // subscriptions that the store knows
    std::set<uint32_t> ready_, held_back_;
    Content older_;
};

#endif
