// A lasting trouble on standard error. No lock.
#include "platform/trouble.h"

#include <cstdio>

#include "platform/text.h"

namespace tq {

namespace {

constexpr std::chrono::minutes pause(1);
constexpr int most_reasons = 8;  // of a trouble that gives another one each time

}  // namespace

void Trouble::say(const std::string &reason) {
    const auto now = Clock::now();
    const bool is_new = reason_.empty(), is_due = now - said_ >= pause;
    if (is_new) begin_ = now;
    if (is_new || is_due) reasons_ = 0;
    if (!is_due && (reason == reason_ || reasons_ == most_reasons)) return;
    reason_ = reason;
    reasons_++;
    said_ = now;
    const std::string shown = printable(reason);
    if (is_new || !is_due) {
        std::fprintf(stderr, "tq_platform: store %s: %s\n", store_.c_str(), shown.c_str());
    } else {
        std::fprintf(stderr, "tq_platform: store %s: for %.0f s now: %s\n", store_.c_str(), seconds(), shown.c_str());
    }
}

void Trouble::end() {
    if (reason_.empty()) return;
    std::fprintf(stderr, "tq_platform: store %s: over after %.1f s: %s\n", store_.c_str(), seconds(),
                 printable(reason_).c_str());
    reason_.clear();
}

}  // namespace tq
