// Waiting for an object: a follower compares each change of its row, on the store client's thread, and wakes the command up.
// What it sees has a lock of its own.
#include <condition_variable>
#include <mutex>

#include "dmq/command.h"
#include "dmq/words.h"
#include "tq_dm_cache/dm_cache_follow.h"

namespace dmq {

namespace {

// The object that is waited for, and what was last seen of it. take() runs on the store client's thread for each change, and on
// the command's for what is cached: `guard_` guards the last three. The rest is constant once made.
class Wanted {
public:
    Wanted(const ObjectKind &kind, const std::vector<std::string> &words, bool gone)
        : kind_(kind), values_(read_words(*kind.type, words)), gone_(gone) {
        refuse_twice(values_);
        need_whole_key(*kind.type, values_);
        key_ = key_part(*kind.type, values_);
        if (gone && key_.size() < values_.size())
            throw Failure(exit_usage, "--gone waits for the absence of an object, so only its key is named");
    }
    Wanted(const Wanted &) = delete;
    ~Wanted() { dm_cache_unfollow(kind_.row, tell, this); }

    void wait(const Deadline &deadline) {
        if (dm_cache_follow(kind_.row, tell, this, DM_CACHE_FOLLOW_FROM_NOW) != 0)
            throw Failure(exit_no, "not enough memory to follow");
        each_cached(kind_.row, [this](const ProtobufCMessage &object) { take(object, /*there=*/true); });
        std::unique_lock lock(guard_);
        fulfilled_ |= gone_ && !seen_;
        if (changed_.wait_until(lock, deadline.end(), [this] { return fulfilled_; })) return;
        deadline.passed(object_name(*object_with_key(*kind_.type, key_)), gone_              ? "it is still there"
                                                                          : instead_.empty() ? "there is no such object"
                                                                                             : instead_);
    }

private:
    static void tell(const dm_cache_event *event, void *word) {
        static_cast<Wanted *>(word)->take(event->after ? *event->after : *event->before, event->after != nullptr);
    }

    // An event that was on its way when the cache was looked at comes behind that look, and tells of a moment before it.
    void take(const ProtobufCMessage &object, bool there) {
        const Json now = to_json(object, Fields::all);
        if (!agrees(now, key_)) return;
        const std::lock_guard lock(guard_);
        seen_ = there;
        instead_ = there ? unlike(now, values_) : "";
        fulfilled_ |= gone_ ? !there : there && instead_.empty();
        changed_.notify_all();
    }

    const ObjectKind kind_;
    const std::vector<Assignment> values_;
    std::vector<Assignment> key_;
    const bool gone_;
    std::mutex guard_;
    std::condition_variable changed_;
    bool seen_ = false, fulfilled_ = false;
    std::string instead_;
};

}  // namespace

Exit run_wait(Context &context, const Command &command) {
    const ObjectKind kind = find_cached_kind(command.words[0]);
    const std::vector<std::string> words(command.words.begin() + 1, command.words.end());
    Wanted wanted(kind, words, command.gone);
    Session &session = context.live({kind}, command.settings);
    if (session.is_lost() || session.is_cut_off()) {
        note("the connection to the store is lost: the cache is as it was then");
        context.doubtful = true;
    }
    wanted.wait(session.deadline());
    return exit_yes;
}

}  // namespace dmq
