// Held places. No lock: the store's.
#include "platform/redis_holds.h"

#include <algorithm>
#include <utility>

namespace tq {

namespace {

constexpr std::chrono::milliseconds shortest_pause(1000), longest_pause(60'000);

}  // namespace

Hold &RedisHolds::refuse(const std::string &hash, const std::string &fault) {
    Hold &hold = holds_.try_emplace(hash, Hold{Trouble(store_)}).first->second;
    hold.trouble.say(hash + " is held: " + fault);
    hold.pause = hold.stands ? std::min(hold.pause * 2, longest_pause) : shortest_pause;
    hold.stands = true;
    hold.next = Clock::now() + hold.pause;
    return hold;
}

Hold *RedisHolds::find(const std::string &hash) {
    const auto found = holds_.find(hash);
    return found != holds_.end() && found->second.stands ? &found->second : nullptr;
}

std::vector<std::string> RedisHolds::take_due(Clock::time_point now) {
    std::vector<std::string> due;
    for (auto &[hash, hold] : holds_) {
        if (!hold.stands || now < hold.next) continue;
        hold.next = now + longest_pause;
        due.push_back(hash);
    }
    return due;
}

Hold RedisHolds::release(const std::string &hash) {
    auto released = holds_.extract(hash);
    if (!released) return {Trouble(store_)};
    released.mapped().trouble.end();
    return std::move(released.mapped());
}

std::vector<Confirmation> RedisHolds::lose() {
    std::vector<Confirmation> owed;
    for (auto &[hash, hold] : holds_) {
        owed.insert(owed.end(), hold.confirmations.begin(), hold.confirmations.end());
        hold.confirmations.clear();
        hold.scans.clear();
        hold.stands = false;
    }
    return owed;
}

}  // namespace tq
