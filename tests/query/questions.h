// Every query that can be asked with numbers and texts, by its name, over the list that is made of the headers.
#pragma once

#include "dmq/call.h"

#include <functional>
#include <string>
#include <vector>

class Question {
public:
    // "ndm_get_card_type_by_slot devid=0 rt=1". Parameters that are not named are usual ones of concurrency_test.cpp's unit.
    explicit Question(const std::string &line);

    static std::vector<std::string> names();  // of all queries that can be asked

    // The result, then what was written there by each argument, the last first: "~" for nothing. What is the caller's own is
    // released. An argument may be passed as another word. Any thread.
    std::string answer(size_t argument = SIZE_MAX, uintptr_t word = 0) const;

    std::span<const dmq::Pass> passes() const { return query_->callable.passes; }

    std::string parameter(size_t argument) const;

    const std::string line;
    std::string name() const { return std::string(query_->name); }

private:
    const dmq::Query *query_;
    std::vector<uintptr_t> words_;
};

inline bool is_number(dmq::Pass pass) {
    return pass < dmq::Pass::text;
}
