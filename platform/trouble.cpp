// A lasting trouble on standard error. No lock.
#include "platform/trouble.h"

#include <algorithm>
#include <cstdio>

#include "platform/text.h"

namespace tq {

namespace {

constexpr std::chrono::minutes pause(1);
constexpr int most_lines = 4;  // of a trouble that comes and goes, or gives another reason each time; then one a minute

}  // namespace

void Trouble::say(const std::string &reason) {
    const auto now = Clock::now();
    const bool begins = reason_.empty(), is_due = now - said_ >= pause;
    if (begins) {
        begin_ = now;
        is_told_ = false;
    }
    if (is_due) lines_ = now - heard_ >= pause ? 0 : std::min(lines_, most_lines - 1);
    heard_ = now;
    const bool is_other = begins || reason != reason_;
    reason_ = reason;
    if (lines_ >= most_lines || (!is_due && !is_other)) return;
    ++lines_;
    said_ = now;
    const std::string shown = printable(reason);
    if (begins || !is_due)
        std::fprintf(stderr, "tq_platform: store %s: %s\n", store_.c_str(), shown.c_str());
    else
        std::fprintf(stderr, "tq_platform: store %s: for %.0f s now: %s\n", store_.c_str(), seconds(), shown.c_str());
    is_told_ = true;
}

void Trouble::end() {
    if (reason_.empty()) return;
    if (is_told_) {
        std::fprintf(stderr, "tq_platform: store %s: over after %.1f s: %s\n", store_.c_str(), seconds(),
                     printable(reason_).c_str());
    }
    reason_.clear();
}

}  // namespace tq
