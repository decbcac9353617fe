// What happens to a server, its reader and its writer. mutex_ guards what the threads tell each other; nothing waits under
// it but on changed_.
#include "tests/faults/world.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <filesystem>

#include "tq_dm_cache/dm_cache.h"
#include "tq_dm_cache/dm_cache_status.h"
#include "tq_dm_cache/dm_port_index.h"

namespace {

constexpr int32_t cards = 1500;  // their names make a scan of several pages
constexpr int32_t limit_ms = 30'000;
constexpr std::chrono::milliseconds patience(limit_ms);

World *world = nullptr;

// False: a connection that was killed is noticed only now.
bool read_store(tq_mom_handle *handle, int32_t row, Picture &picture) {
    const auto reply = [](tq_mom_handle *, store_msg *msg, void *word) {
        add(*static_cast<Picture *>(word), static_cast<result_rec *>(msg->value)->obj);
        return 0;
    };
    const obj_sub_entry &entry = obj_sub_list[row];
    return tq_mom_scan_sync(handle, entry.db_id, entry.obj_tmpl, 0, reply, &picture) == 0;
}

tq_mom_handle *open(const std::string &url) {
    tq_mom_handle *handle = nullptr;
    if (tq_mom_client_open((url + "?probe=300").c_str(), &handle) != 0) fail("cannot open %s", url.c_str());
    return handle;
}

}  // namespace

const World::Fault World::faults[] = {
    {"restart with older content", &World::restart_with_older_content},
    {"restart with its content", &World::restart_with_content},
    {"restart empty", &World::restart_empty},
    {"freeze", &World::freeze},
    {"cut off", &World::cut_off},
    {"hold up the reader", &World::hold_up},
    {"kill subscribers", &World::kill_subscribers},
    {"kill command connections", &World::kill_command_connections},
    {"full disk", &World::full_disk},
    {"slow answers", &World::slow_answers},
    {"another master for a moment", &World::be_replica},
    {"emptied", &World::empty},
    {"a child", &World::have_child},
};

// The first faults strike while the cache starts.
World::World(uint64_t seed, bool trace)
    : random_{std::mt19937_64(seed), false},
      trace_(trace),
      server_({"--client-output-buffer-limit", "pubsub", "1mb", "0", "0", "--enable-protected-configs", "yes"}),
      proxy_(server_.socket() + ".proxy", server_.socket()),
      writers_random_{std::mt19937_64(seed + 1'000'000'007), false} {
    world = this;
    dm_cache_init_obj(obj_sub_list);
    ndm_cache_init_port_obj(obj_sub_list);
    writer_ = open(server_.url());
    for (int i = 0; i < 3000; i++) write();

    reader_ = open("redis+unix://" + server_.socket() + ".proxy");
    tq_mom_client_set_connection_cb(reader_, on_connection, this);
    dm_cache_multi_thread_init();
    for (int32_t row = 0; row < obj_sub_list_max; row++) {
        if (obj_sub_list[row].obj_tmpl) dm_cache_sub_obj(row, on_change, 0);
    }
    if (dm_cache_init(reader_, "faults") != 0) fail("the cache does not start");
    writing_ = std::thread([this] { write_on(); });
}

Totals World::end() {
    {
        const std::lock_guard lock(mutex_);
        ended_ = true;
        changed_.notify_all();
    }
    writing_.join();
    tq_mom_client_close(reader_);
    tq_mom_client_close(writer_);
    return totals_;
}

void World::say(const char *what, long number) const {
    if (trace_) std::printf("%s %ld\n", what, number);
}

int32_t World::on_change(tq_mom_handle *, int32_t type, int32_t operation, ProtobufCMessage *message) {
    std::unique_lock lock(world->mutex_);
    world->listener_.told(type, operation, message);
    world->changed_.notify_all();
    world->changed_.wait(lock, [] { return !world->held_up_; });
    return 0;
}

void World::on_connection(tq_mom_handle *, int32_t connected, int32_t reason, void *) {
    const std::lock_guard lock(world->mutex_);
    world->connected_ = connected != 0;
    if (connected) {
        world->applied_when_connected_ = dm_cache_applied();
        world->totals_.same_server += reason == 1;
        world->totals_.other_server += reason == 2;
    } else {
        world->losses_++;
    }
    world->changed_.notify_all();
}

// The writer

void World::write() {
    Random &random = writers_random_;
    int32_t row = 0;
    while (!obj_sub_list[row].obj_tmpl) row = random.below(static_cast<size_t>(obj_sub_list_max));
    if (row == DM_ROW_DP_LIB_COMPLETE && random.percent(90))
        row = DM_ROW_CARD_INFO;  // it makes the cache scan everything
    if (random.percent(50)) row = DM_ROW_CARD_INFO;
    const bool card = row == DM_ROW_CARD_INFO;
    Message object = random_object(random, row, random.below(card ? cards : keys_of_a_row));
    if (card) object = std::move(object).set("name", std::string(600, static_cast<char>('a' + random.below(26))));
    const uint32_t db = obj_sub_list[row].db_id;
    const int32_t error =
        random.percent(30) ? tq_mom_del(writer_, db, object.get()) : tq_mom_set(writer_, db, object.get(), 0, 0);
    if (error && error != TQ_MOM_E_UNREACHABLE && error != TQ_MOM_E_NOT_FOUND && error != TQ_MOM_E_REFUSED)
        fail("a write is answered oddly");
    const std::lock_guard lock(mutex_);
    writes_++;
    totals_.refused_writes += error == TQ_MOM_E_UNREACHABLE || error == TQ_MOM_E_REFUSED;
    changed_.notify_all();
}

void World::write_on() {
    for (;;) {
        {
            std::unique_lock lock(mutex_);
            paused_ = pause_;
            changed_.notify_all();
            changed_.wait(lock, [this] { return ended_ || !pause_; });
            paused_ = false;
            if (ended_) return;
        }
        write();
        if (!tq_mom_client_connect_sync(writer_, 0)) continue;  // waits while it is cut off
    }
}

void World::write_paused(bool paused) {
    std::unique_lock lock(mutex_);
    pause_ = paused;
    changed_.notify_all();
    if (!changed_.wait_for(lock, patience, [&] { return paused_ == paused; })) fail("the writer hangs");
}

// Also when the writer cannot go on.
bool World::wait_for_writes(long more) {
    std::unique_lock lock(mutex_);
    const long until = writes_ + more;
    return changed_.wait_for(lock, std::chrono::seconds(2), [&] { return writes_ >= until; });
}

// The faults

void World::restart_with_older_content() {
    server_.command({"SAVE"});
    wait_for_writes(random_.below(2000));
    server_.kill();
    server_.start();
}

void World::restart_with_content() {
    server_.restart(true);
}

void World::restart_empty() {
    server_.restart(false);
}

bool World::wait_for_loss(int limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(limit), [&] { return !connected_; });
}

// As often for less than the probe time, which nobody needs to notice.
void World::freeze() {
    server_.freeze(true);
    const bool must_notice = random_.percent(50);
    if (!wait_for_loss(must_notice ? limit_ms : random_.below(250)) && must_notice) fail("a silence is not noticed");
    server_.freeze(false);
}

// Reading goes on; what is written meanwhile is refused.
void World::full_disk() {
    const std::string folder = std::filesystem::path(server_.socket()).parent_path();
    server_.command({"CONFIG", "SET", "dir", "/proc/self", "save", "900 1"});
    for (int i = 0; i < 200 && !server_.command({"PING"}).starts_with("MISCONF"); i++) {
        server_.command({"BGSAVE"});
        ::poll(nullptr, 0, 5);
    }
    wait_for_writes(random_.below(500));
    server_.command({"CONFIG", "SET", "dir", folder, "save", ""});
}

void World::slow_answers() {
    const Proxy::Bend slowly = [each = random_.below(100)](std::string &, int) {
        ::poll(nullptr, 0, each);
        return true;
    };
    const auto bend_all = [this](const Proxy::Bend &bend) {
        for (const auto roads : {Proxy::Roads::commands, Proxy::Roads::feeds, Proxy::Roads::to_come})
            proxy_.bend(roads, bend);
    };
    bend_all(slowly);
    wait_for_writes(random_.below(2000));
    bend_all({});
}

// Noticed while it lasts or not: the content may be another one afterwards.
void World::be_replica() {
    server_.command({"REPLICAOF", "127.0.0.1", "1"});
    wait_for_writes(random_.below(100));
    server_.command({"REPLICAOF", "NO", "ONE"});
}

void World::empty() {
    server_.command({"FLUSHALL"});
}

void World::have_child() {
    const Message object = card(1, 1, 0);
    const pid_t child = fork();
    if (child == 0) {
        bool refused = true;
        for (tq_mom_handle *handle : {writer_, reader_}) {
            refused &= tq_mom_set(handle, 1, object.get(), 0, 0) == TQ_MOM_E_ARGUMENT &&
                       tq_mom_client_close(handle) == TQ_MOM_E_ARGUMENT;
        }
        _exit(refused ? 0 : 1);
    }
    int status = -1;
    if (waitpid(child, &status, 0) != child || status != 0) fail("a child may use its parent's handle");
}

// What is deleted meanwhile must not stay.
void World::cut_off() {
    proxy_.cut();
    if (!wait_for_loss(limit_ms)) fail("a lost connection is not noticed");
    wait_for_writes(random_.below(2000));
    proxy_.let_in();
}

void World::hold_up() {
    const auto set = [this](bool held_up) {
        const std::lock_guard lock(mutex_);
        held_up_ = held_up;
        changed_.notify_all();
    };
    set(true);
    wait_for_writes(random_.below(6000));
    set(false);
}

void World::kill_subscribers() {
    server_.command({"CLIENT", "KILL", "TYPE", "pubsub"});
}

void World::kill_command_connections() {
    server_.command({"CLIENT", "KILL", "TYPE", "normal"});
}

// A moment of subscribing, scanning or following: when so many more bytes have come to the reader.
void World::wait_for_traffic() {
    const auto bytes = static_cast<size_t>(random_.below(size_t{1} << random_.below(22)));
    say("  after bytes:", static_cast<long>(bytes));
    proxy_.wait_for_bytes(bytes, std::chrono::seconds(1));
}

void World::strike() {
    wait_for_traffic();
    const Fault &fault = faults[random_.below(std::size(faults))];
    say(fault.name);
    (this->*fault.act)();
}

void World::cycle() {
    do strike();
    while (random_.percent(40));
    come_to_rest();
    totals_.cycles++;
}

// Comparing

void World::wait_for_clients() {
    for (tq_mom_handle *handle : {writer_, reader_}) {
        for (int i = 0; tq_mom_client_connect_sync(handle, 0) != 0; i++) {
            if (i == 5) fail("a client does not come back");
        }
    }
}

// Either in the middle of what follows a reconnect, or when the cache has been following again for a while.
void World::come_to_rest() {
    wait_for_clients();
    if (random_.percent(60)) {
        if (dm_cache_wait_applied(applied_when_connected_, limit_ms) != 0) fail("the cache is not synchronised again");
        wait_for_writes(random_.below(4000));
    }
    write_paused(true);
    wait_for_clients();
    const auto end = std::chrono::steady_clock::now() + patience;
    std::string found = difference();
    while (!found.empty() && std::chrono::steady_clock::now() < end) {
        dm_cache_wait_applied(dm_cache_applied(), 100);
        found = difference();
    }
    if (!found.empty()) fail("%s", found.c_str());
    const std::lock_guard lock(mutex_);
    totals_.writes = writes_;
    totals_.losses = losses_;
    pause_ = false;
    changed_.notify_all();
}

std::string World::difference() {
    if (dm_cache_wait_synced(0) != 0) return "the cache is not synchronised";
    for (int32_t row = 0; row < obj_sub_list_max; row++) {
        if (!obj_sub_list[row].obj_tmpl) continue;
        Picture store;
        if (!read_store(writer_, row, store)) return "the store cannot be read";
        totals_.objects = std::max(totals_.objects, static_cast<long>(store.size()));
        if (std::string found = ::difference(row, cached_picture(row), store); !found.empty()) return found;
    }
    const std::lock_guard lock(mutex_);  // a row that is followed by now is told of by now
    for (int32_t row = 0; row < obj_sub_list_max; row++) {
        if (!obj_sub_list[row].obj_tmpl) continue;
        if (std::string found = listener_.difference(row); !found.empty()) return found;
    }
    return "";
}
