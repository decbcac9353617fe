// Answers ndm/statics.h: how many chips a card type has. Takes the cache lock.
#include "query/shapes.h"
#include "tq_dm_cache/ndm/statics.h"

static constexpr dm::LogTag log_tag{"dm_static_tbl", dm::Threshold::library};

using namespace dm;

namespace {

// A count of a card type's description, followed in the log in the caller's name; -1 when the type is not cached.
int32_t logged_count(int32_t PDev__DmCardStattrT::*field, int32_t card_type, const char *what,
                     Caller caller = Caller{}) {
    DM_LOG_AS(caller, trace, "type = %d!\n", card_type);
    const auto count = cached_field(field, card_attributes_key(card_type));
    if (!count) return -1;
    DM_LOG_AS(caller, trace, "%s num = %d!\n", what, *count);
    return *count;
}

}  // namespace

int32_t ndm_get_card_switch_chip_num(int32_t card_type) {
    return logged_count(&PDev__DmCardStattrT::switch_num, card_type, "switch");
}

int32_t ndm_get_total_chip_num_by_card_type(int32_t card_type) {
    return logged_count(&PDev__DmCardStattrT::chip_num, card_type, "chip");
}
