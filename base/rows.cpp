// The table of kinds, one line a kind, and the set-up of the rows that port_index/ does not set up. Takes no lock: a row is set
// up before anybody uses it, or, at a start after one that failed, by a caller that holds the cache lock.
#include "base/rows.h"

#include "base/row_table.h"

namespace dm {
namespace {

// Two messages are the same object when these fields of their keys are equal.
template <class T, auto... field> int32_t same_object(const ProtobufCMessage *cached, const ProtobufCMessage *probe) {
    const auto *a = as<T>(cached)->index;
    const auto *b = as<T>(probe)->index;
    if (!a || !b) return -1;
    return ((a->*field == b->*field) && ...) ? 0 : -1;
}

template <class Key, auto... field> void read_fields(const ProtobufCMessage *key, int32_t *words) {
    ((*words++ = static_cast<int32_t>(as<Key>(key)->*field)), ...);
}

// Kinds with one object.
int32_t always_same(const ProtobufCMessage *, const ProtobufCMessage *) {
    return 0;
}
int32_t always_same_port(const ProtobufCMessage *, const ProtobufCMessage *) {
    return 0;
}

// The template of a kind: what the store client is handed with every subscribe and scan.
template <class T> T template_of;
using dm_cache::KeyOf;
template <class T> KeyOf<T> template_key_of;

// What a line of the table says beside kind and key.
struct Traits {
    int32_t proc_order;
    uint32_t db = 1;
    uint8_t mark = 0;
    uint8_t key_owners = 0;
    Index index = Index::none;
    dm_cache_cmp_func cmp = always_same;
};

template <class T> constexpr Kind singleton(const ProtobufCMessageDescriptor &descriptor, Traits traits) {
    return {.row = row_of<T>,
            .descriptor = &descriptor,
            .key_descriptor = nullptr,
            .tmpl = &template_of<T>.base,
            .key = nullptr,
            .cmp = traits.cmp,
            .read_key = nullptr,
            .key_words = 0,
            .key_owners = traits.key_owners,
            .size = sizeof(T),
            .index_offset = 0,
            .db = traits.db,
            .proc_order = traits.proc_order,
            .mark = traits.mark,
            .index = traits.index};
}

template <class T, auto... field>
constexpr Kind keyed(const ProtobufCMessageDescriptor &descriptor, const ProtobufCMessageDescriptor &key_descriptor,
                     Traits traits) {
    Kind kind = singleton<T>(descriptor, traits);
    kind.key_descriptor = &key_descriptor;
    kind.key = &template_key_of<T>.base;
    kind.cmp = same_object<T, field...>;
    kind.read_key = read_fields<KeyOf<T>, field...>;
    kind.key_words = sizeof...(field);
    static_assert(sizeof...(field) <= max_key_words);
    kind.index_offset = offsetof(T, index);
    return kind;
}

using TypeKey = PDev__DmTypeIndex;
using PortKey = PDev__PortIndex;
using VsdPortKey = PDev__VsdPortIndex;
using LocalCardKey = PDev__LocalCardInfoIndex;
using CardKey = PDev__CardInfoIndex;
using DeviceKey = PDev__DeviceInfoIndex;
using VslKey = PDev__VslPortIndex;

// The compared fields may be fewer than the key's: t_mod is never compared, nor is a local card's devid.
constexpr Kind table[] = {
    singleton<PDev__DpLibComplete>(p_dev__dp_lib_complete__descriptor, {.proc_order = 0}),
    singleton<PDev__DpLibMyInfo>(p_dev__dp_lib_my_info__descriptor, {.proc_order = 1}),
    keyed<PDev__DeviceStaticInfo, &PDev__DeviceStaticInfoIndex::type>(
        p_dev__device_static_info__descriptor, p_dev__device_static_info_index__descriptor, {.proc_order = 1}),
    keyed<PDev__DmDeviceStattrT, &TypeKey::type>(p_dev__dm_device_stattr_t__descriptor,
                                                 p_dev__dm_type_index__descriptor, {.proc_order = 1}),
    singleton<PDev__DmPortAttrT>(p_dev__dm_port_attr_t__descriptor, {.proc_order = 1, .cmp = always_same_port}),
    keyed<PDev__CardStaticInfo, &PDev__CardStaticInfoIndex::type>(
        p_dev__card_static_info__descriptor, p_dev__card_static_info_index__descriptor, {.proc_order = 1}),
    keyed<PDev__PortStatic, &PortKey::t_dev, &PortKey::t_slot, &PortKey::t_sslot, &PortKey::t_port, &PortKey::t_type>(
        p_dev__port_static__descriptor, p_dev__port_index__descriptor, {.proc_order = 1, .index = Index::static_port}),
    keyed<PDev__UnitCportInfo, &PDev__UnitCportIndex::unit, &PDev__UnitCportIndex::cport>(
        p_dev__unit_cport_info__descriptor, p_dev__unit_cport_index__descriptor,
        {.proc_order = 1, .mark = 1, .index = Index::local_port}),
    keyed<PDev__LportInfo, &PDev__LportIndex::lport>(p_dev__lport_info__descriptor, p_dev__lport_index__descriptor,
                                                     {.proc_order = 1, .mark = 1, .index = Index::lport}),
    singleton<PDev__LocalPortInfo>(p_dev__local_port_info__descriptor, {.proc_order = 1}),
    keyed<PDev__DmCardStattrT, &PDev__DmCardStattrIndex::type>(p_dev__dm_card_stattr_t__descriptor,
                                                               p_dev__dm_card_stattr_index__descriptor,
                                                               {.proc_order = 1, .mark = 1, .index = Index::card_type}),
    singleton<PDev__DpLibLrole>(p_dev__dp_lib_lrole__descriptor, {.proc_order = 2}),
    singleton<PDev__DpLibMyChssInfo>(p_dev__dp_lib_my_chss_info__descriptor, {.proc_order = 2}),
    keyed<PDev__LocalCardInfo, &LocalCardKey::slotid, &LocalCardKey::sslotid>(
        p_dev__local_card_info__descriptor, p_dev__local_card_info_index__descriptor, {.proc_order = 2}),
    singleton<PDev__DpLibGrole>(p_dev__dp_lib_grole__descriptor, {.proc_order = 3}),
    keyed<PDev__DeviceInfo, &DeviceKey::devid>(p_dev__device_info__descriptor, p_dev__device_info_index__descriptor,
                                               {.proc_order = 3}),
    keyed<PDev__CardInfo, &CardKey::slotid, &CardKey::sslotid, &CardKey::devid>(
        p_dev__card_info__descriptor, p_dev__card_info_index__descriptor, {.proc_order = 3}),
    keyed<PDev__DmChipStattrT, &TypeKey::type>(p_dev__dm_chip_stattr_t__descriptor, p_dev__dm_type_index__descriptor,
                                               {.proc_order = 3, .mark = 1, .index = Index::chip_type}),
    keyed<PDev__VslPortInfo, &VslKey::devid, &VslKey::slotid, &VslKey::subslot, &VslKey::lport>(
        p_dev__vsl_port_info__descriptor, p_dev__vsl_port_index__descriptor, {.proc_order = 4, .db = 3, .mark = 1}),
    keyed<PDev__VsdPort, &VsdPortKey::t_vsdid, &VsdPortKey::t_dev, &VsdPortKey::t_slot, &VsdPortKey::t_sslot,
          &VsdPortKey::t_port, &VsdPortKey::t_type>(
        p_dev__vsd_port__descriptor, p_dev__vsd_port_index__descriptor,
        {.proc_order = 5, .mark = 1, .key_owners = 1, .index = Index::global_port}),
    keyed<PDev__VsdPortAttr, &PortKey::t_dev, &PortKey::t_slot, &PortKey::t_sslot, &PortKey::t_port, &PortKey::t_type>(
        p_dev__vsd_port_attr__descriptor, p_dev__port_index__descriptor,
        {.proc_order = 5, .mark = 1, .index = Index::vsd_port}),
    keyed<PDev__VsdInfo, &PDev__VsdIndex::t_vsdid>(p_dev__vsd_info__descriptor, p_dev__vsd_index__descriptor,
                                                   {.proc_order = 5}),
    keyed<PDev__DeviceSyncInfo, &DeviceKey::devid>(p_dev__device_sync_info__descriptor,
                                                   p_dev__device_info_index__descriptor, {.proc_order = 3}),
};

constexpr bool ascending() {
    int32_t last = 0;
    for (const Kind &kind : table) {
        if (kind.row <= last) return false;
        last = kind.row;
    }
    return last < DM_ROW_COUNT;
}
static_assert(ascending(), "one line a kind, in the order of the row numbers");

constexpr bool within(size_t room) {
    for (const Kind &kind : table)
        if (kind.size > room) return false;
    return true;
}
static_assert(within(largest_object));

struct LineOfRow {
    uint8_t line[DM_ROW_COUNT];  // 0: none
};
constexpr LineOfRow line_of_row() {
    LineOfRow made{};
    uint8_t line = 0;
    for (const Kind &kind : table) made.line[kind.row] = ++line;
    return made;
}
constexpr LineOfRow lines = line_of_row();

void set_up(obj_sub_entry *entry, const Kind &kind) {
    fill_row(entry, kind);
    entry->proc_order = kind.proc_order;
}

}  // namespace

const Kind *kind_of_row(int32_t row) {
    const uint8_t line = row >= 0 && row < DM_ROW_COUNT ? lines.line[row] : 0;
    return line > 0 ? &table[line - 1] : nullptr;
}

bool same_kind(const ProtobufCMessageDescriptor *own, const ProtobufCMessageDescriptor &kind) {
    return own && own->sizeof_message == kind.sizeof_message && std::strcmp(own->name, kind.name) == 0;
}

void fill_row(obj_sub_entry *entry, const Kind &kind) {
    // A template is written once: from then on the store client may be reading it.
    if (!kind.tmpl->descriptor) {
        kind.descriptor->message_init(kind.tmpl);
        if (kind.key) {
            kind.key_descriptor->message_init(kind.key);
            put(reinterpret_cast<char *>(kind.tmpl) + kind.index_offset, kind.key);
        }
    }
    entry->mark = kind.mark;
    entry->obj_tmpl = kind.tmpl;
    entry->obj_list = emptied_list(kind.row);
    entry->cmp_func = kind.cmp;
    entry->obj_size = kind.size;
    entry->index_offset = kind.index_offset;
    if (kind.db != 1) entry->db_id = kind.db;
}

}  // namespace dm

using namespace dm;

obj_sub_entry obj_sub_list[DM_ROW_COUNT];
const int32_t obj_sub_list_max = DM_ROW_COUNT;

int32_t dm_cache_init_obj(obj_sub_entry *table_of_rows) {
    if (!table_of_rows) return -1;
    for (const Kind &kind : table)
        if (kind.index == Index::none) set_up(&table_of_rows[kind.row], kind);
    return 0;
}

int32_t dm_init_cache_device_sync_info(obj_sub_entry *row) {
    if (!row) return -1;
    set_up(row, *kind_of_row(DM_ROW_DEVICE_SYNC_INFO));
    return 0;
}
