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

namespace tq {

class RedisStore final : public Store, private FeedOwner {
public:
    // Connects. Null, after one line on standard error, and the loop has been stopped: see `error`.
    static std::unique_ptr<Store> open(const RedisUrl &url, Sink &sink, Loop &loop, int32_t &error);

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
    using Followers = std::vector<Ticket>;
    struct Scan {
        uint64_t number;
        std::string hash;
        Ticket ticket;
        std::string cursor = "0";
        size_t count = 4;  // to ask for: few at first, since nothing is known of the objects
        size_t largest = 1;
    };

    enum class Phase { lost, restoring, up };

    RedisStore(const RedisUrl &url, Sink &sink, Loop &loop);
    int32_t start();

    // The feed's news, on the loop's thread.
    void subscribe_all() override;
    void heard(std::string_view channel, std::string_view bytes) override;
    void deliver_page();
    void answered(uint64_t ping) override;
    void tick() override;
    void lost() override;
    void establish();
    bool come_up();
    void send_follows();
    void drop_cut_off();

    // With the lock held.
    const char *take(std::string_view channel);  // the frame; null, or what is wrong with it
    const char *take_echo();
    void take_change(const Followers &followers);
    bool is_my_mark() const;
    void take_page(const redisReply &page);
    bool subscribe_rest();
    void confirm(uint64_t ping);
    void ask_page();
    void cut_off();

    // On any thread.
    int32_t call(const Words &words, Reply &reply, uint64_t &connection);
    int32_t command(const Words &words, Reply &reply);
    int32_t run(const Script &script, Words words, Reply &reply);
    int32_t refused(std::string_view error, uint64_t connection);
    void lost_by_call(uint64_t connection, bool demoted);

    const RedisUrl url_;
    Sink &sink_;
    Loop &loop_;
    const std::string private_channel_ = new_private_channel();
    RedisLink link_;
    std::promise<bool> started_;
    std::atomic<int32_t> rescan_delay_ms_ = 10;

    // The loop's thread only.
    RedisFeed feed_;
    Frame frame_;
    bool starting_ = true;
    std::mt19937 random_{std::random_device{}()};

    mutable std::mutex mutex_;  // guards what follows; taken after the client's lock, before the link's and the loop's
    Phase phase_ = Phase::lost;
    uint64_t connection_ = 0;  // how often it has been up
    bool demoted_ = false;     // the server was found to be no master: what it is when it is one again may differ
    std::map<std::string, Followers, std::less<>> channels_;
    std::vector<std::string> to_subscribe_;           // on this connection
    uint64_t asked_ = 0, pinged_ = 0, answered_ = 0;  // the last ping due, sent, answered
    std::map<uint64_t, Ticket> to_confirm_;           // by the ping whose answer confirms it
    std::vector<Ticket> owed_;                        // confirmations that the next connection gives
    std::deque<Scan> scans_;                          // the first one is under way
    uint64_t scans_so_far_ = 0;
    bool page_asked_ = false;
    int echoes_due_ = 0;  // asked for, not heard
    int echoes_ = 0;  // heard of those that were asked for after the page or ping that is owed; below 0: still to come
    std::string refusal_;  // the last one on standard error
};

}  // namespace tq

#endif
