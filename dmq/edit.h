// The steps of a change of the store, for those who make one: read what is there, tell what it does, carry it out.
#pragma once

#include "dmq/command.h"

namespace dmq {

// The stored object with the same key as it is now, as the beginning of an edit.
Edit read_edit(Session &session, uint32_t db, const ProtobufCMessage &object);

// Says that there is no such object, and which are the nearest.
[[noreturn]] void refuse_unknown(Session &session, const ProtobufCMessage &object, const char *advice);

// What an edit does, for a program: kind, key, event (added, changed, unchanged, deleted) and the fields that change.
Json told_of(const Edit &edit);

// The same for a person; dry: what it would do.
std::string told_text(const Edit &edit, const Json &told, bool dry);

// Carries the edits out, unless it is a dry run. The answer comes last, behind what a watch has to tell.
Exit carry_out(Context &context, Session &session, const Command &command, std::vector<Edit> edits);

}  // namespace dmq
