#ifndef TQ_DM_FAULTS_WORLD_H
#define TQ_DM_FAULTS_WORLD_H

// A real server, a cache that follows it by a proxy, a writer that goes on whatever happens, and what can happen to them.
// One seed is one run; chance decides everything but what the machine's own scheduling decides.

#include <condition_variable>
#include <thread>

#include "tests/platform/redis_server.h"
#include "tests/simulation/listener.h"
#include "tests/simulation/objects.h"
#include "tests/support/seeds.h"
#include "tq_dm_cache/tq_platform_bundled.h"

// What was done, counted.
struct Totals {
    long cycles = 0, writes = 0, refused_writes = 0, losses = 0, same_server = 0, other_server = 0, objects = 0;
};

class World {
public:
    World(uint64_t seed, bool trace);
    World(const World &) = delete;

    void cycle();  // one fault or several, then a quiet point
    Totals end();  // of the writer and the clients

private:
    struct Fault {
        const char *name;
        void (World::*act)();
    };

    void write();
    void write_on();
    void write_paused(bool paused);
    bool wait_for_writes(long more);
    void wait_for_traffic();
    void strike();
    void wait_for_clients();
    void come_to_rest();
    std::string difference();

    void restart_with_older_content();
    void restart_with_content();
    void restart_empty();
    void freeze();
    void cut_off();
    void hold_up();
    void kill_subscribers();
    void kill_command_connections();
    void full_disk();
    void slow_answers();
    void be_replica();
    void empty();
    void have_child();
    static const Fault faults[];

    static int32_t on_change(tq_mom_handle *, int32_t, int32_t, ProtobufCMessage *);
    static void on_connection(tq_mom_handle *, int32_t connected, int32_t reason, void *world);
    bool wait_for_loss(int limit_ms);
    void say(const char *what, long number = 0) const;

    Random random_;
    const bool trace_;
    RedisServer server_;
    Proxy proxy_;
    tq_mom_handle *writer_ = nullptr, *reader_ = nullptr;

    std::atomic<uint32_t> applied_when_connected_ = 0;
    std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    Totals totals_;
    Listener listener_;
    bool ended_ = false, pause_ = false, paused_ = false, held_up_ = false, connected_ = false;
    long writes_ = 0, losses_ = 0;

    Random writers_random_;  // the writer's thread only
    std::thread writing_;
};

#endif
