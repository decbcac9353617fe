// Lines that a person types at a terminal: edited, completed, remembered. What other threads print meanwhile stands above
// the line. One a process; it belongs to the thread that reads.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "dmq/complete.h"

namespace dmq {

class LineEditor {
public:
    // Whether standard input and the answers are a terminal that can be written on anywhere.
    static bool is_possible();

    // `candidates` are for the last word of the line in front of the cursor.
    explicit LineEditor(std::function<Candidates(const std::string &before)> candidates);
    LineEditor(const LineEditor &) = delete;
    ~LineEditor();

    // Nothing: there are no more. Empty also for a line that Ctrl-C has cleared.
    std::optional<std::string> read();

private:
    struct Parts;
    const std::unique_ptr<Parts> parts_;
};

}  // namespace dmq
