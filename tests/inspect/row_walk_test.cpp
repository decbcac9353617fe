// A row that is read in pieces while it changes: what stays comes once, however much comes and goes between two pieces.
#include "inspect/row_walk.h"

#include "tests/support/live_cache.h"

namespace {

constexpr int32_t all = 250;

void set(int32_t slot, int32_t type = 0) {
    receive(17, SET, card(1, slot, 0).set("config_dev_type", type));
}
void erase(int32_t slot) {
    receive(17, DELETE, card(1, slot, 0));
}
void each(const std::function<void(int32_t)> &change, int32_t from, int32_t to) {
    for (int32_t slot = from; slot < to; ++slot) change(slot);
}

int32_t slot_of(const ProtobufCMessage *object) {
    return reinterpret_cast<const PDev__CardInfo *>(object)->index->slotid;
}

}  // namespace

// An object that is passed over is reported as lost; one of an old piece as stale.
TEST(RowWalk, GoesOnBehindThePieceWhateverHasHappenedMeanwhile) {
    start({17});
    platform.synchronise();
    const auto set_other = [](int32_t slot) { set(slot, 9); };
    const auto set_same = [](int32_t slot) { set(slot); };
    struct Case {
        const char *what;
        std::function<void()> change;  // when objects 0 to 99 have come
        int32_t next;                  // 0: the row begins again
        std::map<int32_t, size_t> times;
    };
    const Case cases[] = {
        {"nothing", [] {}, 100, {{0, 1}, {100, 1}, {249, 1}}},
        {"the last is gone", [] { erase(99); }, 100, {{98, 1}, {100, 1}}},
        {"the next is gone", [] { erase(100); }, 101, {{99, 1}, {100, 0}, {101, 1}}},
        {"the last has come again, now at the end", [] { erase(99), set(99); }, 100, {{99, 2}, {100, 1}}},
        {"all are replaced", [&] { each(set_other, 0, all); }, 100, {{0, 1}, {249, 1}}},
        {"all but one are replaced, one goes", [&] { each(set_other, 1, all), erase(150); }, 1, {{99, 2}, {249, 1}}},
        {"the piece is gone", [&] { each(erase, 0, 100); }, 0, {{100, 1}, {249, 1}}},
        {"all is gone", [&] { each(erase, 0, all); }, 0, {{100, 0}}},
        {"the others are gone", [&] { each(erase, 50, all); }, 0, {{0, 1}, {49, 1}, {99, 1}}},
        {"all came again, one goes", [&] { each(set_same, 0, all), erase(200); }, 0, {{0, 1}, {200, 0}, {249, 1}}},
        {"more", [] { set(1000); }, 100, {{249, 1}, {1000, 1}}},
    };
    dm::RowWalk walk;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        each(erase, 0, 1001);
        each(set_same, 0, all);
        std::map<int32_t, size_t> times;
        const auto count = [&] {
            for (uint32_t i = 0; i < walk.count; ++i) ++times[slot_of(walk.objects[i])];
        };
        dm::begin_walk(walk, 17);
        dm::take_piece(walk);
        EXPECT_EQ(walk.count, 100U);
        count();
        c.change();
        dm::take_piece(walk);
        EXPECT_EQ(walk.is_again, c.next == 0 && std::string(c.what) != "the others are gone");
        if (walk.is_again) times.clear();
        if (c.next > 0) {
            EXPECT_EQ(slot_of(walk.objects[0]), c.next);
        }
        for (count(); !walk.is_last; count()) dm::take_piece(walk);
        for (const auto &[slot, expected] : c.times) EXPECT_EQ(times[slot], expected) << slot;
        dm::end_walk(walk);
    }
}
