// Which records of a table are meant: conditions on its columns, and the sameness of a cell and a word that a person types.
// Takes no lock.
#pragma once

#include <span>

#include "dmq/views.h"

namespace dmq {

// "slot=1/1,1/2", "role!=master", "mbps>=100G".
struct Condition {
    std::string word;  // as it was typed
    size_t column;
    enum class Sign { same, other, less, less_or_same, more, more_or_same } sign;
    std::vector<std::string> values;  // of same and other: any of them
    Json bound;                       // of the others
};

// Does a word look like one?
bool is_condition(const std::string &word);

// Throws a Failure for a column or a name that is not there, and lists those that are.
std::vector<Condition> read_conditions(const View &view, std::span<const std::string> words);

// Does a record fulfil them all? Throws a Failure for a bound that its cell cannot be compared with.
bool fits(const std::vector<Json> &record, const std::vector<Condition> &conditions);

// Does a word mean what the cell shows? In whatever case, a number decimal or hexadecimal, a slot without the word Slot, a MAC
// address without colons.
bool means(const std::string &word, const Json &cell);

}  // namespace dmq
