// A lasting trouble on standard error: one line when it begins, one a minute while it lasts, one when it ends; one that
// comes and goes is not told each time. No lock: its owner's.
#pragma once

#include <chrono>
#include <string>

namespace tq {

// Silent after a few lines a minute, however often the reason changes: a log must not fill a disk.
class Trouble {
public:
    explicit Trouble(const std::string &store) : store_(store) {}
    // It begins, or is there still. Another reason is another trouble, once there was a line for each of a few.
    void say(const std::string &reason);
    void end();  // if there is any

private:
    using Clock = std::chrono::steady_clock;
    double seconds() const { return std::chrono::duration<double>(Clock::now() - begin_).count(); }

    std::string store_;   // as it is shown
    std::string reason_;  // empty: there is none
    Clock::time_point begin_, heard_, said_;
    int lines_ = 0;  // since the last minute without any
    bool is_told_ = false;
};

}  // namespace tq
