// The records of an answer. All of a process fits into the buffer at once. Takes the cache lock, its shared side, for the
// settings of a row; objects are packed without it.
#include "inspect/answer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "base/rows.h"
#include "cache/events.h"
#include "cache/row_sync.h"
#include "cache/startup.h"
#include "tq_dm_cache/dm_cache_status.h"

namespace dm {
namespace {

constexpr uint32_t usual_room = 16384;

// Room for so many bytes more in a row; null without memory. What was in the buffer stays.
uint8_t *place_for(Outgoing &out, uint32_t size) {
    if (size > out.room - out.filled) {
        const uint32_t room = out.filled + std::max(size, usual_room);
        auto *const bytes = static_cast<uint8_t *>(size < UINT32_MAX / 2 ? malloc(room) : nullptr);
        if (!bytes) return nullptr;
        if (out.filled > 0) std::memcpy(bytes, out.bytes.get(), out.filled);
        out.bytes.reset(bytes);
        out.room = room;
    }
    uint8_t *const place = out.bytes.get() + out.filled;
    out.filled += size;
    return place;
}

// A record with its fixed part; where its further bytes go, or null without memory.
uint8_t *add(Outgoing &out, uint32_t what, const void *part, uint32_t size, uint32_t more) {
    const dm_inspect_record record = {size + more, what};
    uint8_t *const place = place_for(out, static_cast<uint32_t>(sizeof record) + size + more);
    if (!place) return nullptr;
    std::memcpy(place, &record, sizeof record);
    if (size > 0) std::memcpy(place + sizeof record, part, size);
    return place + sizeof record + size;
}

bool add_process(Outgoing &out, const ProcessTexts &texts) {
    const dm_inspect_process process = {.started = started(),
                                        .live = load(machine_is_live),
                                        .reserved = {},
                                        .applied = dm_cache_applied(),
                                        .gathered = load(gathered_objects),
                                        .events = events_noted()};
    char both[sizeof texts.store + 256];
    const auto reason = static_cast<uint32_t>(dm_cache_reason(both, 256)) + 1;
    const auto store = static_cast<uint32_t>(strlen(texts.store)) + 1;
    std::memcpy(both + reason, texts.store, store);
    uint8_t *const place = add(out, DM_INSPECT_PROCESS, &process, sizeof process, reason + store);
    if (place) std::memcpy(place, both, reason + store);
    return place;
}

// A start after one that has failed sets the table up under the lock.
dm_inspect_row row_now(int32_t type) {
    const SharedCacheLock lock;
    const obj_sub_entry &entry = obj_sub_list[type];
    return {.type = type,
            .flag = entry.flag,
            .db = entry.db_id,
            .callbacks = entry.func_num,
            .followers = followers_of(type),
            .reserved = 0,
            .age_ms = -1,
            .stats = {}};
}

bool add_row(Outgoing &out, int32_t type) {
    dm_inspect_row row = row_now(type);
    if (started()) row.age_ms = dm_cache_age_ms(type);
    dm_cache_get_stats(type, &row.stats, sizeof row.stats);
    return add(out, DM_INSPECT_ROW, &row, sizeof row, 0);
}

bool add_end(Answer &answer) {
    answer.is_due = false;
    return add(answer.out, DM_INSPECT_END, nullptr, 0, 0);
}

bool tell_process(Answer &answer, const ProcessTexts &texts) {
    if (!add_process(answer.out, texts)) return false;
    for (int32_t type = 0; type < obj_sub_list_max; ++type)
        if (kind_of_row(type) && !add_row(answer.out, type)) return false;
    return add_end(answer);
}

bool add_object(Outgoing &out, const dm_inspect_object &about, const ProtobufCMessage *object, uint32_t size) {
    uint8_t *const place = add(out, DM_INSPECT_OBJECT, &about, sizeof about, size);
    if (place) protobuf_c_message_pack(object, place);
    return place;
}

// The next piece, when the one at hand is told. False without memory.
bool turn_piece(Answer &answer) {
    RowWalk &walk = answer.walk;
    answer.taken = 0;
    if (walk.is_last) {
        end_walk(walk);
        return add_end(answer);
    }
    take_piece(walk);
    return !walk.is_again || add(answer.out, DM_INSPECT_AGAIN, nullptr, 0, 0);
}

}  // namespace

bool greet(Answer &answer, const char *name) {
    const dm_inspect_hello hello = {DM_INSPECT_VERSION, getpid()};
    const auto length = static_cast<uint32_t>(strlen(name));
    uint8_t *const place = add(answer.out, DM_INSPECT_HELLO, &hello, sizeof hello, length);
    if (place) std::memcpy(place, name, length);
    return place;
}

bool ask(Answer &answer, const char *line, const ProcessTexts &texts) {
    answer.out.filled = answer.out.sent = 0;
    if (strcmp(line, "process") == 0) return tell_process(answer, texts);
    int32_t type = 0, length = 0;
    if (sscanf(line, "objects %2d%n", &type, &length) != 1 || line[length] != '\0' || !kind_of_row(type)) return false;
    const char *const number = line + sizeof "objects";
    if (number[-1] != ' ' || *number < '0' || *number > '9') return false;  // blanks and signs that sscanf() lets pass
    begin_walk(answer.walk, type);
    answer.taken = 0;
    answer.is_due = true;
    return true;
}

bool go_on(Answer &answer) {
    Outgoing &out = answer.out;
    out.filled = out.sent = 0;
    while (answer.is_due) {
        const RowWalk &walk = answer.walk;
        if (answer.taken == walk.count) {
            if (!turn_piece(answer)) return false;
            continue;
        }
        const ProtobufCMessage *const object = walk.objects[answer.taken];
        const auto size = static_cast<uint32_t>(protobuf_c_message_get_packed_size(object));
        const uint32_t whole = static_cast<uint32_t>(sizeof(dm_inspect_record) + sizeof(dm_inspect_object)) + size;
        if (out.filled > 0 && whole > out.room - out.filled) return true;
        if (!add_object(out, walk.about[answer.taken], object, size)) return false;
        ++answer.taken;
    }
    return true;
}

void end_answer(Answer &answer) {
    end_walk(answer.walk);
    answer.out = {};
    answer.is_due = false;
}

}  // namespace dm
