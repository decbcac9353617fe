// The connection on which a client gives commands. call() waits for its answer. post() does not wait, and what it sends
// goes before whatever is called later: one thread's requests keep their order. Of the answers to what is posted only those
// of transactions are kept.
#pragma once

#include <deque>
#include <exception>
#include <mutex>

#include "platform/redis_connection.h"
#include "platform/redis_identity.h"

namespace tq {

// Any thread may call; calls take turns. What has been sent and not been answered is counted (Owed), so that an answer is never
// taken for another request's; whoever loses count loses the connection.
class RedisLink {
public:
    RedisLink(const RedisUrl &url, const ConnectionName &name) : url_(url), name_(name) {}

    // Connects, tries the credentials out and asks who the server is. 0, or TQ_MOM_E_UNREACHABLE, TQ_MOM_E_DENIED or
    // TQ_MOM_E_REFUSED with a fault in words.
    int32_t open(const Address &server, Identity &identity, std::string &fault);
    // Ends the calls under way, and all to come until it is opened again.
    void shut() { connection_.shut(); }
    // The same, for good: what fails from then on is no trouble of the server's.
    void end();
    bool has_ended() const { return ended_; }

    // Null: the connection is lost.
    Reply call(const Words &command);
    // The same for so many formatted commands: all are sent before the first one's answer is waited for. Fewer answers: the
    // connection is lost.
    std::vector<Reply> call_many(size_t count, const std::string &commands);
    // Waits for no call under way: whoever is in one sends it along.
    void post(const Words &command) { post({command}, /*is_transaction=*/false); }
    // The same, and a refusal is no fault.
    void post_wish(const Words &command) { post({command}, /*is_transaction=*/false, /*may_be_refused=*/true); }
    // The last command answers for all.
    void post_transaction(const std::vector<Words> &commands) { post(commands, /*is_transaction=*/true); }
    struct Transaction {
        Reply answer;       // null: the connection is lost
        std::string fault;  // of one of its commands
    };
    // The answer of the first posted transaction that has not been taken. Waits for it: the server must have it already.
    Transaction take_transaction();
    // The same, if it has come and has a fault: then nobody may be told otherwise that it was carried out. Does not wait.
    bool take_failed(Transaction &failed);
    // What is wrong with the connection, or with another posted command; empty: nothing known. Does not wait. To be asked
    // five times in a probe time: what is owed must not be silent for longer.
    std::string collect();
    // What is posted waits while a call's answer comes in. Bytes of answers, ever.
    bool is_waiting();
    uint64_t received() const { return connection_.received(); }

private:
    // Whoever runs out of memory half way leaves answers that are taken for those of the next call.
    struct LoseWhenThrown {
        RedisLink &link;
        int before = std::uncaught_exceptions();
        ~LoseWhenThrown() {
            if (std::uncaught_exceptions() == before) return;
            link.usable_ = false;
            link.connection_.shut();
        }
    };
    // Answers that nobody waits for.
    struct Owed {
        size_t answers;
        bool is_transaction;
        bool may_be_refused;
        std::string fault = {};
    };
    int32_t ask_identity(Identity &identity, std::string &fault);
    void post(const std::vector<Words> &commands, bool is_transaction, bool may_be_refused = false);
    void take_posted();
    void send_posted();
    void notice_silence();
    void take_all_owed();
    Reply answer();
    Reply read_answer();
    Reply lose();
    void take_owed(Reply reply);
    void receive_owed();

    const RedisUrl &url_;
    const ConnectionName &name_;

    std::mutex mutex_;  // guards the connection and what follows
    RedisConnection connection_;
    bool usable_ = false;
    std::deque<Owed> owed_;
    uint64_t received_before_ = 0;
    uint64_t answers_ = 0, answers_before_ = 0;  // that were owed, and have come
    int silences_ = 0, waits_ = 0;
    std::deque<Transaction> transactions_;
    std::string fault_;
    std::atomic<bool> ended_ = false;

    std::mutex posted_mutex_;  // guards posted_; taken last
    std::string posted_;
    std::deque<Owed> posted_owed_;
};

}  // namespace tq
