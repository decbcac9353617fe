// What the figures are taken of: the largest unit that the cache holds, 10,000 global and 10,000 static ports and all
// that belongs to them, as `dmq gen` makes them. Times are those of one clock, in every process of the machine.
#pragma once

#include <atomic>
#include <chrono>
#include <semaphore>

#include "dmq/session.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace bench {

constexpr int ports_of_a_kind = 10000;

using Clock = std::chrono::steady_clock;
inline double milliseconds(Clock::duration time) {
    return std::chrono::duration<double, std::milli>(time).count();
}
// Processor time so far, in milliseconds.
double process_time();
double thread_time();

const std::vector<dmq::Entry> &objects();
std::vector<const ProtobufCMessage *> global_ports();

using dmq::Client;

void check(int32_t code, const char *what);  // throws unless it is 0
Client open_client(const std::string &url);
void set(const Client &client, const ProtobufCMessage &object, uint32_t db = 1);
void load(const std::string &url);

// Waiting for so many of something that another thread hears.
class Tally {
public:
    void expect(int n) { left_ = n; }
    void hear() {
        if (--left_ != 0) return;
        at_ = Clock::now();
        done_.release();
    }
    Clock::time_point wait();  // when the last one was heard; throws after a minute

private:
    std::atomic<int> left_ = 0;
    Clock::time_point at_;
    std::binary_semaphore done_{0};
};

}  // namespace bench
