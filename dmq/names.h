// Names that a person types: kinds of objects by name or row number, and what was meant by a misspelt one. Takes no lock.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "tq_dm_cache/dm_types.h"

namespace dmq {

// " (did you mean x?)", or nothing when no candidate is near.
std::string did_you_mean(const std::string &word, std::span<const std::string> candidates);

// A kind of objects: its message type, the row that caches it (-1: none) and the database of the store that holds it.
struct Kind {
    const ProtobufCMessageDescriptor *type;
    int32_t row;
    uint32_t db;
};

Kind kind_of(const ProtobufCMessageDescriptor &type);

// By full name, by name without the package, or by row number. Throws a Failure.
Kind find_kind(const std::string &name);

// The same, and it must be a kind that the cache holds.
Kind find_cached_kind(const std::string &name);

// In the order of the rows.
const std::vector<Kind> &cached_kinds();

// Its full name, exactly; throws a Failure with a suggestion.
const ProtobufCMessageDescriptor &find_type(const std::string &name);

}  // namespace dmq
