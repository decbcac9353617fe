// Names and numbers that a person types: kinds of objects by name or row number, and what was meant by a misspelt one.
// Takes no lock.
#pragma once

#include <charconv>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tq_dm_cache/dm_types.h"

namespace dmq {

// " (did you mean x?)", or nothing when no candidate is near.
std::string did_you_mean(const std::string &word, std::span<const std::string> candidates);

// "; there are y, z", or nothing.
std::string listed(std::span<const std::string> names);

// A refusal: "`what` x (did you mean y?); there are y, z".
std::string no_such(const std::string &what, const std::string &word, std::span<const std::string> candidates);

// The value that a word names: by its name, or by the end of it, in whatever case: "master" is DM_ROLE_MASTER. Of several the
// shortest is meant; null: there is none, or more than one.
const ProtobufCEnumValue *find_value(const ProtobufCEnumDescriptor &type, std::string_view word);

std::vector<std::string> value_names(const ProtobufCEnumDescriptor &type);

// Are they the same, but for the case of letters?
bool same_word(std::string_view one, std::string_view other);

// The whole text as a number, decimal or hexadecimal ("-5", "0x1f"); nothing when it is none, or does not fit.
template <class T> std::optional<T> whole_number(std::string_view text) {
    const bool minus = text.starts_with('-');
    text.remove_prefix(minus);
    const bool hex = text.starts_with("0x");
    text.remove_prefix(hex ? 2 : 0);
    uint64_t size = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), size, hex ? 16 : 10);
    if (error != std::errc() || end != text.data() + text.size() || (minus && size > INT64_MAX)) return std::nullopt;
    const auto negative = -static_cast<int64_t>(size);
    if (minus ? !std::in_range<T>(negative) : !std::in_range<T>(size)) return std::nullopt;
    return minus ? static_cast<T>(negative) : static_cast<T>(size);
}

// A kind of objects: its message type, the row that caches it (-1: none) and the database of the store that holds it.
struct ObjectKind {
    const ProtobufCMessageDescriptor *type;
    int32_t row;
    uint32_t db;
};

ObjectKind kind_of(const ProtobufCMessageDescriptor &type);

// By full name, by name without the package, or by row number. Throws a Failure.
ObjectKind find_kind(const std::string &name);

// The same, and it must be a kind that the cache holds.
ObjectKind find_cached_kind(const std::string &name);

// In the order of the rows.
const std::vector<ObjectKind> &cached_kinds();
// Null: the row holds no kind.
const ObjectKind *kind_of_row(int32_t row);

// Its full name, exactly; throws a Failure with a suggestion.
const ProtobufCMessageDescriptor &find_type(const std::string &name);

}  // namespace dmq
