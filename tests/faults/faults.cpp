// The road over a real server: a cache that follows it by a proxy, a writer that goes on whatever happens, and what can
// happen to them. Chance decides everything but what the machine's own scheduling decides.
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <thread>

#include "tests/platform/redis_server.h"
#include "tests/support/world.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace {

constexpr size_t cards = 1500;  // their names make a scan of several pages
constexpr int32_t limit_ms = 30'000;
constexpr std::chrono::milliseconds patience(limit_ms);

tq_mom_handle *open(const std::string &url) {
    tq_mom_handle *handle = nullptr;
    if (tq_mom_client_open((url + "?probe=300").c_str(), &handle) != 0) fail("cannot open %s", url.c_str());
    return handle;
}

class Faults : World {
public:
    // The first faults strike while the cache starts.
    Faults(uint64_t seed, bool trace)
        : World(seed, trace, /*own_index_keys=*/false), writers_random_{std::mt19937_64(seed + 1'000'000'007)} {
        writer_ = open(server_.url());
        for (int i = 0; i < 3000; ++i) write_some();

        reader_ = open("redis+unix://" + proxied_);
        tq_mom_client_set_connection_cb(reader_, on_connection, this);
        dm_cache_multi_thread_init();
        for (const int32_t row : rows) follow(row);
        if (dm_cache_init(reader_, "faults") != 0) fail("the cache does not start");
        writing_ = std::thread([this] { write_on(); });
    }

    void run(long cycles) {
        for (; now < cycles; ++now) {
            do strike();
            while (random.percent(40));
            follower_comes_or_goes(random);
            come_to_rest();
        }
        tell([this] { ended_ = true; });
        writing_.join();
        followers.clear();
        tq_mom_client_close(reader_);
        tq_mom_client_close(writer_);
    }

private:
    // What the threads tell each other

    template <class Change> void tell(Change change) {
        const std::lock_guard lock(mutex_);
        change();
        changed_.notify_all();
    }

    template <class Done> bool wait_for(std::chrono::milliseconds limit, Done done) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, done);
    }

    void told(int32_t row, int32_t operation, const ProtobufCMessage *message) override {
        World::told(row, operation, message);
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return !held_up_; });
    }

    static void on_connection(tq_mom_handle *, int32_t connected, int32_t reason, void *word) {
        auto &faults = *static_cast<Faults *>(word);
        if (!connected) count("connections lost");
        if (connected && reason > 0)
            count(reason == 1 ? "times back on the same server" : "times back on another server");
        faults.tell([&] {
            faults.connected_ = connected != 0;
            if (connected) faults.applied_when_connected_ = dm_cache_applied();
        });
    }

    // The writer: its thread, but for what is written before the cache starts

    static uint32_t db(int32_t row) { return obj_sub_list[row].db_id; }

    void set(int32_t row, const Message &object) override { note(tq_mom_set(writer_, db(row), object.get(), 0, 0)); }

    void remove(int32_t row, const Message &object) override { note(tq_mom_del(writer_, db(row), object.get())); }

    void note(int32_t error) {
        const bool refused = error == TQ_MOM_E_UNREACHABLE || error == TQ_MOM_E_REFUSED;
        if (error && !refused && error != TQ_MOM_E_NOT_FOUND) fail("a write is answered oddly");
        count("writes");
        count("writes while cut off or refused", refused);
        tell([this] { ++writes_; });
    }

    void write_some() {
        Random &chance = writers_random_;
        if (chance.percent(50)) return write(chance);
        const Message card = random_object(chance, DM_ROW_CARD_INFO, chance.below(cards))
                                 .set("name", std::string(600, static_cast<char>('a' + chance.below(26))));
        if (chance.percent(30)) return remove(DM_ROW_CARD_INFO, card);
        set(DM_ROW_CARD_INFO, card);
    }

    void write_on() {
        for (;;) {
            {
                std::unique_lock lock(mutex_);
                paused_ = pause_;
                changed_.notify_all();
                changed_.wait(lock, [this] { return ended_ || !pause_; });
                paused_ = false;
                if (ended_) return;
            }
            write_some();
            tq_mom_client_connect_sync(writer_, 0);  // waits while it is cut off
        }
    }

    // Also when the writer cannot go on.
    void wait_for_writes(int32_t more) {
        const long until = writes_ + more;
        wait_for(std::chrono::seconds(2), [&] { return writes_ >= until; });
    }

    // The faults

    // At a moment of subscribing, scanning or following: when so many more bytes have come to the reader.
    void strike() {
        static const struct {
            const char *name;
            std::function<void(Faults &)> act;
        } faults[] = {
            {"restart with older content", &Faults::restart_with_older_content},
            {"restart with its content", [](Faults &self) { self.server_.restart(true); }},
            {"restart empty", [](Faults &self) { self.server_.restart(false); }},
            {"freeze", &Faults::freeze},
            {"cut off", &Faults::cut_off},
            {"hold up the reader", &Faults::hold_up},
            {"kill subscribers", [](Faults &self) { self.server_.lose_feeds(); }},
            {"kill command connections",
             [](Faults &self) {
                 self.server_.command({"CLIENT", "KILL", "TYPE", "normal"});
             }},
            {"full disk", &Faults::full_disk},
            {"slow answers", &Faults::slow_answers},
            {"another master for a moment", &Faults::be_replica},
            {"emptied", [](Faults &self) { self.server_.command({"FLUSHALL"}); }},
            {"a child", &Faults::have_child},
        };
        const auto bytes = static_cast<size_t>(random.below(size_t{1} << random.below(22)));
        const auto &fault = faults[random.below(std::size(faults))];
        say("after %zu bytes: %s", bytes, fault.name);
        proxy_.wait_for_bytes(bytes, std::chrono::seconds(1));
        fault.act(*this);
    }

    void restart_with_older_content() {
        server_.command({"SAVE"});
        wait_for_writes(random.below(2000));
        server_.kill();
        server_.start();
    }

    bool wait_for_loss(int32_t limit) {
        return wait_for(std::chrono::milliseconds(limit), [this] { return !connected_; });
    }

    // As often for less than the probe time, which nobody needs to notice.
    void freeze() {
        server_.freeze(true);
        const bool must_notice = random.percent(50);
        if (!wait_for_loss(must_notice ? limit_ms : random.below(250)) && must_notice) fail("a silence is not noticed");
        server_.freeze(false);
    }

    // What is deleted meanwhile must not stay.
    void cut_off() {
        proxy_.cut();
        if (!wait_for_loss(limit_ms)) fail("a lost connection is not noticed");
        wait_for_writes(random.below(2000));
        proxy_.let_in();
    }

    void hold_up() {
        tell([this] { held_up_ = true; });
        wait_for_writes(random.below(6000));
        tell([this] { held_up_ = false; });
    }

    // Reading goes on; what is written meanwhile is refused.
    void full_disk() {
        const std::string folder = std::filesystem::path(server_.socket()).parent_path();
        server_.command({"CONFIG", "SET", "dir", "/proc/self", "save", "900 1"});
        for (int i = 0; i < 200 && !server_.command({"PING"}).starts_with("MISCONF"); ++i) {
            server_.command({"BGSAVE"});
            ::poll(nullptr, 0, 5);
        }
        wait_for_writes(random.below(500));
        server_.command({"CONFIG", "SET", "dir", folder, "save", ""});
    }

    void slow_answers() {
        const auto bend_all = [this](const Proxy::Bend &bend) {
            for (const auto roads : {Proxy::Roads::commands, Proxy::Roads::feeds, Proxy::Roads::to_come})
                proxy_.bend(roads, bend);
        };
        bend_all([each = random.below(100)](std::string &, int) {
            ::poll(nullptr, 0, each);
            return true;
        });
        wait_for_writes(random.below(2000));
        bend_all({});
    }

    // Noticed while it lasts or not: the content may be another one afterwards.
    void be_replica() {
        server_.command({"REPLICAOF", "127.0.0.1", "1"});
        wait_for_writes(random.below(100));
        server_.command({"REPLICAOF", "NO", "ONE"});
    }

    void have_child() {
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

    // Coming to rest

    void wait_for_clients() {
        for (tq_mom_handle *handle : {writer_, reader_}) {
            for (int i = 0; tq_mom_client_connect_sync(handle, 0) != 0; ++i) {
                if (i == 5) fail("a client does not come back");
            }
        }
    }

    // A connection that was killed is noticed only when it is used.
    bool read_store(int32_t row, Picture &store, Picture &) override {
        const auto reply = [](tq_mom_handle *, store_msg *msg, void *picture) {
            add(*static_cast<Picture *>(picture), static_cast<result_rec *>(msg->value)->obj);
            return 0;
        };
        return tq_mom_scan_sync(writer_, db(row), obj_sub_list[row].obj_tmpl, 0, reply, &store) == 0;
    }

    // Either in the middle of what follows a reconnect, or when the cache has been following again for a while.
    void come_to_rest() {
        wait_for_clients();
        if (random.percent(60)) {
            if (dm_cache_wait_applied(applied_when_connected_, limit_ms) != 0)
                fail("the cache is not synchronised again");
            wait_for_writes(random.below(4000));
        }
        tell([this] { pause_ = true; });
        if (!wait_for(patience, [this] { return paused_; })) fail("the writer hangs");
        wait_for_clients();
        const auto end = std::chrono::steady_clock::now() + patience;
        std::string found = difference();
        while (!found.empty() && std::chrono::steady_clock::now() < end) {
            dm_cache_wait_applied(dm_cache_applied(), 100);
            found = difference();
        }
        if (!found.empty()) fail("%s", found.c_str());
        tell([this] { pause_ = false; });
    }

    RedisServer server_{
        {"--client-output-buffer-limit", "pubsub", "1mb", "0", "0", "--enable-protected-configs", "yes"}};
    const std::string proxied_ = server_.socket() + ".proxy";
    Proxy proxy_{proxied_, server_.socket()};
    tq_mom_handle *writer_ = nullptr, *reader_ = nullptr;
    std::atomic<uint32_t> applied_when_connected_ = 0;
    std::atomic<long> writes_ = 0;

    std::mutex mutex_;  // guards what follows; nothing waits under it but on changed_
    std::condition_variable changed_;
    bool ended_ = false, pause_ = false, paused_ = false, held_up_ = false, connected_ = false;

    Random writers_random_;  // the writer's thread only
    std::thread writing_;
};

}  // namespace

int main(int argc, char **argv) {
    const auto run = [](uint64_t seed, long cycles, bool trace) {
        alarm(static_cast<unsigned>(60 + 30 * cycles));
        Faults(seed, trace).run(cycles);
    };
    return run_seeds({"faults", "cycles", 10, /*at_a_time=*/1, run}, argc, argv);
}
