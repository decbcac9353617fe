// A store on a Redis server, shared by every process that reaches it. One object is one client: it hears on one
// connection (the feed) and commands on another (the link).
//
// up_ alone says whether the store is there for its client. It becomes true in come_up(), on the loop's thread, once the
// feed's server has answered on both connections and all that is followed is in force. It becomes false in lose(), on
// whichever thread notices first: from then on nothing of that connection is told, though the feed itself, which is the
// loop's, may end a moment later.
//
// Fences, scans and echoes have numbers that only grow: what is owed is what was asked for beyond what was answered, and a
// late answer is known by its number.
#pragma once

#include <atomic>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <random>

#include "platform/redis_feed.h"
#include "platform/redis_holds.h"
#include "platform/redis_link.h"
#include "platform/redis_scans.h"
#include "platform/redis_wire.h"
#include "platform/store.h"
#include "platform/trouble.h"

namespace tq {

// Joins the feed, which says what changes and in which order, with the link, on which scans and calls are answered.
class RedisStore final : public Store, private FeedOwner {
public:
    // Connects. Null, after one line on standard error, and the loop has been stopped: see `error`.
    static std::unique_ptr<Store> open(const RedisUrl &url, Sink &sink, Loop &loop, int32_t &error);

    void end() override;
    bool up() const override;
    bool tells_at_once() const override { return false; }
    int32_t rescan_delay_ms() const override { return rescan_delay_ms_; }
    void follow(const Place &place, const std::string *key, const Ticket &ticket) override;
    void scan(const Place &place, const Ticket &ticket) override;
    int32_t read(const Place &place, const std::string &key, ObjectPtr &object) override;
    int32_t read_all(const Place &place, std::vector<ObjectPtr> &objects) override;
    int32_t write(const Place &place, Object object) override;
    int32_t write_many(const std::vector<Write> &writes, size_t &taken, size_t &refused) override;
    int32_t erase(const Place &place, const std::string &key) override;
    int32_t replace(const Place &place, const ObjectPtr &before, const ObjectPtr &after) override;
    void set_name(std::string_view name) override;
    int32_t list_clients(std::string &list) override;

private:
    using Channels = std::map<std::string, Channel, std::less<>>;

    RedisStore(const RedisUrl &url, Sink &sink, Loop &loop);
    int32_t start();

    // The feed's news, on the loop's thread.
    void subscribe_all() override;
    void heard(std::string_view channel, std::string_view bytes) override;
    void deliver_page();
    void subscribed(const std::string &name, std::string_view refusal) override;
    void answered(uint64_t fence) override;
    bool is_heard_elsewhere() override;
    void tick() override;
    void lost() override;
    void establish();
    bool is_master_still();
    bool come_up();
    void send_follows();
    void lose_feed();
    void ask_echo();
    void try_held();

    // With the lock held.
    const char *take(std::string_view channel);  // the frame; null, or what is wrong with it
    const char *take_echo();
    void take_change(Channel &channel);
    bool is_my_mark() const;
    void take_page(const redisReply &page);
    void page_refused(const std::string &fault);
    bool subscribe_rest();
    void confirm(uint64_t fence);
    void confirm(const Confirmation &confirmation);
    void ask_page();
    void lose();
    void release(const std::string &hash);
    bool is_refused(const std::string &hash) const;

    // On any thread, without the lock.
    void lose(uint64_t connection, const char *why);

    // The same, for commands: redis_commands.cpp.
    using IsAnswer = bool (*)(const redisReply &);
    // One call's request, on its caller's thread alone: what is sent, and how its answer is judged.
    struct Command {
        bool is_write;
        std::string hash;
        Words words;
        IsAnswer is_answer;
    };
    int32_t call(const Words &words, Reply &reply, uint64_t &connection);
    int32_t carry_out(const Command &command, Reply &reply);
    int32_t run(const Script &script, const std::string &hash, Words words, IsAnswer is_answer, Reply &reply);
    int32_t judge(const Command &command, const redisReply &reply, uint64_t connection);
    int32_t refused(const Command &command, std::string_view error, uint64_t connection);
    // How far many writes have come; the first that was refused counts.
    struct Progress {
        size_t &taken, &refused_at;
        size_t answered = 0;
        int32_t code = 0;
        void note(int32_t error);
    };
    void write_groups(const std::vector<Write> &writes, Progress &progress);

    const RedisUrl url_;
    Sink &sink_;
    Loop &loop_;
    const std::string private_channel_ = new_private_channel();
    ConnectionName name_;
    RedisLink link_;
    Identity link_identity_;  // written before the loop's thread opens the link again
    std::promise<bool> started_;
    std::atomic<int32_t> rescan_delay_ms_ = 10;

    // The loop's thread only.
    RedisFeed feed_;
    Frame frame_;
    bool starting_ = true;
    uint64_t received_ = 0;  // on the command connection, at the last tick
    std::mt19937 random_{std::random_device{}()};

    mutable std::mutex mutex_;  // guards what follows; taken after the client's lock, before the link's and the loop's
    bool up_ = false;
    uint64_t connection_ = 0;         // how often it has been up
    const char *lost_why_ = nullptr;  // what a call has found out
    bool replaced_ = false;           // the last echo was of other content
    Channels channels_;
    std::vector<Channels::value_type *> places_;                    // of these, in the order they came
    std::vector<std::string> to_subscribe_;                         // on this connection
    uint64_t fence_due_ = 0, fence_sent_ = 0, fence_answered_ = 0;  // the last one's number
    std::map<uint64_t, Confirmation> to_confirm_;                   // by the fence whose answer confirms it
    std::vector<Confirmation> owed_;                                // what the next connection confirms
    RedisScans scans_;
    uint64_t echo_asked_ = 0, echo_heard_ = 0;  // the last one's number
    std::deque<Clock::time_point> echo_times_;  // when those were asked for that are not heard yet
    uint64_t echo_before_ = 0;                  // the last one that was asked for before the page or fence that is owed
    RedisHolds holds_;
    // By the hash, or the server's word, and whether of writes.
    std::map<std::pair<std::string, bool>, Trouble> call_troubles_;
};

}  // namespace tq
