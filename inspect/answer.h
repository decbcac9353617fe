// One client's question and its answer, as bytes: what is asked in a line becomes records, as many at a time as its buffer holds.
// Knows nothing of sockets. One thread an answer. Takes the cache lock, its shared side, for a row's settings and for a piece of
// its objects (row_walk.h); the rest is atomic words.
#pragma once

#include "base/message.h"
#include "inspect/row_walk.h"

namespace dm {

// Records that are to be sent. It has room for more than most objects take, and grows for one that takes more.
struct Outgoing {
    OwnedMemory<uint8_t> bytes;
    uint32_t room, filled, sent;
};

struct Answer {
    Outgoing out;
    bool is_due;     // the end of the answer is not in the buffer yet
    RowWalk walk;    // of the row whose objects are asked for
    uint32_t taken;  // objects of its piece that are in the buffer
};

// What is told of the process beside its cache: the name as it was given, and the store's URL.
struct ProcessTexts {
    char name[32];
    char store[256];
};

// False, here and below: there is no memory, or, for a question, it is none.
bool greet(Answer &answer, const char *name);
bool ask(Answer &answer, const char *line, const ProcessTexts &texts);

// More of the answer, once what was in the buffer is sent.
bool go_on(Answer &answer);

inline bool has_more(const Answer &answer) {
    return answer.is_due || answer.out.sent < answer.out.filled;
}

// Ends the walk and frees the buffer.
void end_answer(Answer &answer);

}  // namespace dm
