// Changes of the cache as a person reads them: one line each, with the time.
#pragma once

#include "dmq/attach.h"

namespace dmq {

// Either object may be null: it was added, or it is gone. Called without the cache lock.
std::string change_line(const ProtobufCMessage *before, const ProtobufCMessage *after);

// What differs between two pictures of a process, but no more than so many lines.
std::vector<std::string> changes_between(const Picture &before, const Picture &after, size_t most);

// The time of day in front of a text.
std::string with_time(const std::string &text);

}  // namespace dmq
