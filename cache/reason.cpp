// Why is the cache not synchronised? One sentence, from what is known of each row. Any thread: what it reads are atomic words,
// each right by itself, so a sentence may be a moment old. Takes no lock.
#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "base/clock.h"
#include "cache/row_sync.h"
#include "cache/startup.h"
#include "cache/status.h"
#include "tq_dm_cache/dm_cache_status.h"
#include "tq_dm_cache/dm_cache_sync.h"

namespace dm {
namespace {

// A sentence in the making; what does not fit is cut off.
class Sentence {
public:
    __attribute__((format(printf, 2, 3))) void add(const char *format, ...) {
        va_list args;
        va_start(args, format);
        const int n = std::vsnprintf(text_ + length_, sizeof text_ - length_, format, args);
        va_end(args);
        if (n > 0) length_ = std::min(length_ + static_cast<size_t>(n), sizeof text_ - 1);
    }

    // 18,200
    void add_count(uint32_t n) {
        if (n >= 1000) {
            add_count(n / 1000);
            add(",%03u", n % 1000);
        } else {
            add("%u", n);
        }
    }

    const char *text() const { return text_; }
    size_t length() const { return length_; }

private:
    char text_[256] = "";
    size_t length_ = 0;
};

// Rows that have something in common.
struct Rows {
    int32_t first = -1;
    uint32_t count = 0;
};
template <class Belongs> Rows rows_that(const Belongs &belongs) {
    Rows rows;
    for (int32_t row = 0; row < obj_sub_list_max; ++row) {
        if (!row_followed(obj_sub_list[row]) || !belongs(row_sync[row])) continue;
        if (rows.count++ == 0) rows.first = row;
    }
    return rows;
}

void add_name(Sentence &sentence, int32_t row) {
    sentence.add("row %d %s", row, obj_sub_list[row].obj_tmpl->descriptor->name);
}

void add_time_since(Sentence &sentence, uint32_t ms) {
    const uint32_t tenths = (static_cast<uint32_t>(now_ms()) - ms) / 100;
    sentence.add(" for %u.%u s", tenths / 10, tenths % 10);
}

void tell_of_unconfirmed(Sentence &sentence, const Rows &rows) {
    const RowSync &row = row_sync[rows.first];
    add_name(sentence, rows.first);
    if (rows.count > 1)
        sentence.add(" and %u other%s are not subscribed, the first", rows.count - 1, rows.count > 2 ? "s" : "");
    else
        sentence.add(" is not subscribed, it");
    if (load(row.followed) == 0) return sentence.add(" has not been asked for, or was refused");
    sentence.add(" has not been confirmed");
    add_time_since(sentence, load(row.subscribed_ms));
}

void tell_of_unscanned(Sentence &sentence, const Rows &rows) {
    const RowSync &row = row_sync[rows.first];
    add_name(sentence, rows.first);
    if (load(row.ended) != load(row.asked)) {
        sentence.add(" is subscribed, its scan has not ended");
        add_time_since(sentence, load(row.asked_ms));
    } else {
        sentence.add(" is subscribed, its scan has not begun or was refused");
    }
    if (rows.count > 1) sentence.add(" (and %u more row%s)", rows.count - 1, rows.count > 2 ? "s" : "");
}

void tell_of_queue(Sentence &sentence, const Rows &rows) {
    uint32_t left = 0;
    for (const RowSync &row : row_sync) left += load(row.queued);
    const uint32_t all = std::max(load(gathered_objects), left);
    if (rows.count == 1)
        sentence.add("the row is scanned, ");
    else
        sentence.add("all %u rows are scanned, ", rows.count);
    sentence.add_count(all - left);
    sentence.add(" of ");
    sentence.add_count(all);
    sentence.add(" object%s applied", all == 1 ? "" : "s");
}

// Others do not wait for a row that is apart; when all are, it is one of them that is waited for.
void tell(Sentence &sentence) {
    if (load(machine_is_live) != 0) return;
    if (!started()) return sentence.add("dm_cache_init() has not finished");
    const Rows followed = rows_that([](const RowSync &) { return true; });
    const Rows held = rows_that([](const RowSync &row) { return load(row.held) != 0; });
    if (followed.count == 0) return sentence.add("no row is enabled");
    if (followed.count == held.count) {
        sentence.add("the store refuses ");
        add_name(sentence, held.first);
        return sentence.add(", and no other row is followed");
    }
    const bool any_together = rows_that([](const RowSync &row) { return !is_apart(row); }).count > 0;
    const auto waits = [any_together](const RowSync &row) {
        return load(row.held) == 0 && !(any_together && is_apart(row));
    };
    const Rows unconfirmed = rows_that([&](const RowSync &row) { return waits(row) && load(row.confirmed) == 0; });
    if (unconfirmed.count > 0) return tell_of_unconfirmed(sentence, unconfirmed);
    const Rows unscanned = rows_that([&](const RowSync &row) { return waits(row) && load(row.scanned) == 0; });
    if (unscanned.count > 0) return tell_of_unscanned(sentence, unscanned);
    tell_of_queue(sentence, followed);
}

}  // namespace
}  // namespace dm

using namespace dm;

int32_t dm_cache_reason(char *buf, int32_t len) {
    Sentence sentence;
    tell(sentence);
    if (buf && len > 0) std::snprintf(buf, static_cast<size_t>(len), "%s", sentence.text());
    return static_cast<int32_t>(sentence.length());
}
