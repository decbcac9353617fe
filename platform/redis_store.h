// A store on a Redis server, shared by every process that reaches it. One object is one client: it hears on one
// connection (the feed) and commands on another (the link).
#ifndef TQ_PLATFORM_REDIS_STORE_H
#define TQ_PLATFORM_REDIS_STORE_H

#include <atomic>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <random>

#include "platform/redis_feed.h"
#include "platform/redis_link.h"
#include "platform/redis_wire.h"
#include "platform/store.h"
#include "platform/trouble.h"

namespace tq {

class RedisStore final : public Store, private FeedOwner {
public:
    // Connects. Null, after one line on standard error, and the loop has been stopped: see `error`.
    static std::unique_ptr<Store> open(const RedisUrl &url, Sink &sink, Loop &loop, int32_t &error);

    void end() override;
    bool up() const override;
    int32_t rescan_delay_ms() const override { return rescan_delay_ms_; }
    void follow(const Place &place, const std::string *key, const Ticket &ticket) override;
    void scan(const Place &place, const Ticket &ticket) override;
    int32_t read(const Place &place, const std::string &key, ObjectPtr &object) override;
    int32_t read_all(const Place &place, std::vector<ObjectPtr> &objects) override;
    int32_t write(const Place &place, Object object) override;
    int32_t write_many(const std::vector<Write> &writes, size_t &taken, size_t &refused) override;
    int32_t erase(const Place &place, const std::string &key) override;
    int32_t replace(const Place &place, const ObjectPtr &before, const ObjectPtr &after) override;

private:
    // What is subscribed to: a place, or one object of it.
    struct Channel {
        std::string hash;  // of the place
        std::vector<Ticket> followers = {};
        bool is_refused = false;
        bool holds = false;  // a place: there is an object in it, as far as was told
    };
    using Channels = std::map<std::string, Channel, std::less<>>;
    struct Confirmation {
        Ticket ticket;
        const Channel *channel;
    };
    struct Scan {
        uint64_t number;
        std::string hash;
        Ticket ticket;
        bool is_told = false;  // that it is held
        std::string cursor = "0";
        size_t count = 4;  // to ask for: few at first, since nothing is known of the objects
        size_t largest = 1;
    };

    // A place of which the server refuses a subscription or a page. It is tried again at a growing distance.
    struct Hold {
        std::chrono::steady_clock::time_point next;
        std::chrono::milliseconds pause;
        std::vector<Scan> scans = {};  // they wait, and the confirmations of what is refused
        std::vector<Confirmation> confirmations = {};
    };

    enum class Phase { lost, restoring, up };

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
    void drop_cut_off();
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
    void add_scan(Scan scan);
    void ask_page();
    void cut_off();
    Hold &hold(const std::string &hash, const std::string &fault);
    void release(const std::string &hash);
    bool is_refused(const std::string &hash) const;

    // On any thread.
    using IsAnswer = bool (*)(const redisReply &);
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
    void lost_by_call(uint64_t connection, const char *why);

    const RedisUrl url_;
    Sink &sink_;
    Loop &loop_;
    const std::string private_channel_ = new_private_channel();
    RedisLink link_;
    Identity link_identity_;  // written before the loop's thread opens the link again
    std::promise<bool> started_;
    std::atomic<int32_t> rescan_delay_ms_ = 10;
    std::atomic<bool> ended_ = false;  // nothing is lost any more, but closed

    // The loop's thread only.
    RedisFeed feed_;
    Frame frame_;
    bool starting_ = true;
    uint64_t received_ = 0;  // on the command connection, at the last tick
    std::mt19937 random_{std::random_device{}()};

    mutable std::mutex mutex_;  // guards what follows; taken after the client's lock, before the link's and the loop's
    Phase phase_ = Phase::lost;
    uint64_t connection_ = 0;         // how often it has been up
    const char *lost_why_ = nullptr;  // what a call has found out
    bool replaced_ = false;           // the last echo was of other content
    Channels channels_;
    std::vector<Channels::value_type *> places_;      // of these, those of whole places, in the order they came
    std::vector<std::string> to_subscribe_;           // on this connection
    uint64_t asked_ = 0, fenced_ = 0, answered_ = 0;  // the last fence due, sent, answered
    std::map<uint64_t, Confirmation> to_confirm_;     // by the fence whose answer confirms it
    std::vector<Confirmation> owed_;                  // what the next connection confirms
    std::deque<Scan> scans_;                          // the first one is under way
    uint64_t scans_so_far_ = 0;
    bool page_asked_ = false;
    size_t most_at_once_ = 256;  // to ask for in a page. Fewer after a connection was lost with one under way: a server
                                 // that cuts off whoever asks for so much would do it again, and again
    int echoes_due_ = 0;         // asked for, not heard
    int echoes_ = 0;  // heard of those that were asked for after the page or fence that is owed; below 0: still to come
    std::map<std::string, Hold> held_;  // by the hash
    std::map<std::string, Trouble> held_troubles_;
    std::map<std::pair<std::string, bool>, Trouble>
        call_troubles_;  // by the hash, or the server's word, and whether of writes
};

}  // namespace tq

#endif
