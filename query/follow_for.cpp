// Enables what a query reads (dm_cache_follow.h). Takes the cache lock to enable a row after the start.
#include <bit>

#include "base/rows.h"
#include "cache/startup.h"
#include "tq_dm_cache/dm_cache_follow.h"

namespace dm {
namespace {

// Rows as the bits of a word: no row between 21 and 30 holds a kind.
constexpr int32_t gap_begin = 22, gap = 8;
constexpr uint32_t bit_of(int32_t row) {
    return 1u << (row < gap_begin ? row : row - gap);
}
constexpr int32_t row_of_bit(int32_t bit) {
    return bit < gap_begin ? bit : bit + gap;
}
template <class... Row> constexpr uint32_t rows(Row... row) {
    return (0u | ... | bit_of(row));
}

// A query's name is four bytes here, where the names themselves would be as large as all that reads them.
constexpr uint32_t name(const char *text) {
    uint32_t hash = 2166136261u;
    for (; *text; ++text) hash = (hash ^ static_cast<unsigned char>(*text)) * 16777619u;
    return hash;
}

struct Reads {
    uint32_t query;
    uint32_t rows;
};
constexpr Reads table[] = {
#include "query/read_rows.inc"
};

constexpr bool all_differ() {
    for (const Reads &a : table)
        for (const Reads &b : table)
            if (&a != &b && a.query == b.query) return false;
    return true;
}
static_assert(all_differ(), "two names share a hash");

}  // namespace
}  // namespace dm

using namespace dm;

int32_t dm_cache_follow_for(const char *query) {
    if (!query) return -1;
    for (const Reads &reads : table) {
        if (reads.query != name(query)) continue;
        for (uint32_t left = reads.rows; left != 0; left &= left - 1) {
            const int32_t row = row_of_bit(std::countr_zero(left));
            if (!started()) dm_cache_sub_obj(row, nullptr, 0);
            enable_row(row);
        }
        return 0;
    }
    return -1;
}
