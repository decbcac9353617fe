// Scans page by page. What a page asks for grows and shrinks with what the pages before it had, and with lost connections.
#include "platform/redis_scans.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "platform/redis_wire.h"

namespace tq {

namespace {

constexpr size_t page_bytes = 262144, growth = 4, regrowth = 16;

}  // namespace

void RedisScans::add(Scan scan) {
    scan.number = ++last_number_;
    scan.count = std::min(scan.count, most_at_once_);
    scans_.push_back(std::move(scan));
}

const RedisScans::Scan *RedisScans::ask() {
    if (scans_.empty() || std::exchange(page_due_, true)) return nullptr;
    return &scans_.front();
}

Page RedisScans::take(const redisReply &reply) {
    Scan &scan = scans_.front();
    scan.cursor = text_of(*reply.element[0]);
    Page page{scan.ticket, objects_of(*reply.element[1]), scan.cursor == "0"};
    for (const ObjectPtr &object : page.objects)
        scan.largest = std::max(scan.largest, object->key.size() + object->bytes.size());
    scan.count = std::clamp(page_bytes / scan.largest, size_t{1}, std::min(growth * scan.count, most_at_once_));
    if (page.last) {
        scans_.pop_front();
        most_at_once_ = std::min(most_at_once_ + regrowth, largest_page);
    }
    page_due_ = false;
    return page;
}

std::vector<RedisScans::Scan> RedisScans::refuse() {
    const std::string hash = scans_.front().hash;
    const auto refused =
        std::stable_partition(scans_.begin(), scans_.end(), [&](const Scan &scan) { return scan.hash != hash; });
    std::vector<Scan> taken(std::make_move_iterator(refused), std::make_move_iterator(scans_.end()));
    scans_.erase(refused, scans_.end());
    page_due_ = false;
    return taken;
}

void RedisScans::lose() {
    if (page_due_) most_at_once_ = std::max(scans_.front().count / growth, size_t{1});
    scans_.clear();
    page_due_ = false;
}

}  // namespace tq
