// How many chips a card type has. Under the cache lock.
#include "query/shapes.h"
#include "tq_dm_cache/ndm/statics.h"

static constexpr char log_tag[] = "dm_static_tbl";

using namespace dm;

int32_t ndm_get_card_switch_chip_num(int32_t card_type) {
    DM_LOG(lib_debug, "type = %d!\n", card_type);
    const auto chips = cached_field(&PDev__DmCardStattrT::switch_num, card_attributes_key(card_type));
    if (!chips) return -1;
    DM_LOG(lib_debug, "switch num = %d!\n", *chips);
    return *chips;
}

int32_t ndm_get_total_chip_num_by_card_type(int32_t card_type) {
    DM_LOG(lib_debug, "type = %d!\n", card_type);
    const auto chips = cached_field(&PDev__DmCardStattrT::chip_num, card_attributes_key(card_type));
    if (!chips) return -1;
    DM_LOG(lib_debug, "chip num = %d!\n", *chips);
    return *chips;
}
