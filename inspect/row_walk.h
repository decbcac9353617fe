// A row's objects in pieces. Takes the cache lock, its shared side, for a share of each object of a piece; it is free between two
// pieces, and the messages are read without it. So a walk keeps nobody waiting for longer than a piece takes. One thread a walk.
#pragma once

#include "base/lock.h"
#include "tq_dm_cache/dm_cache_inspect.h"

namespace dm {

constexpr uint32_t piece_objects = 100;

struct RowWalk {
    int32_t type;
    uint32_t count;                            // of the piece at hand
    bool is_last;                              // no piece follows
    bool is_again;                             // the piece is the row's first, though others have been before it
    uint64_t mark;                             // of what had changed when it was taken
    ProtobufCMessage *objects[piece_objects];  // shares
    dm_inspect_object about[piece_objects];
};

void begin_walk(RowWalk &walk, int32_t type);

// Takes the next piece in place of the one at hand: objects that follow it in the list, each of them as it is now. An object
// that stays in the row all the while comes once; when nothing of the piece at hand is left where it was, the row begins again.
void take_piece(RowWalk &walk);

// Lets go the piece at hand; the walk is over.
void end_walk(RowWalk &walk);

}  // namespace dm
