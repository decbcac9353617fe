// The deadline, and which thread hears Ctrl-C.
#include "dmq/deadline.h"

#include <algorithm>
#include <string>

namespace dmq {

namespace {

std::string number_text(double seconds) {
    std::string text = std::to_string(seconds);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') text.pop_back();
    return text;
}

}  // namespace

Deadline::Deadline(double seconds)
    : seconds_(seconds),
      end_(std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds))) {}

int32_t Deadline::left() const {
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end_ - std::chrono::steady_clock::now());
    return static_cast<int32_t>(std::max<int64_t>(rest.count(), 0));
}

void Deadline::passed(const std::string &what, const std::string &why) const {
    throw Failure(exit_timeout, what + " after " + number_text(seconds_) + " s: " + why);
}

sigset_t ending_signals() {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    return ends;
}

SignalsHeld::SignalsHeld(const sigset_t &held) {
    pthread_sigmask(SIG_BLOCK, &held, &before_);
}

SignalsHeld::~SignalsHeld() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace dmq
