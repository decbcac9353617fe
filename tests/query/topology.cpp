// Describes the unit message by message, as the device manager would.
#include "tests/query/topology.h"

#include <regex>

// Ports of the card itself: 1, 2 (on both chips), 300, 556. Of sub-card 1: 40, and 41, which it does not know. Of sub-card 2,
// which is not there: 50.
const char *const line_card =
    "index{type:645} chip_num:2 switch_num:1 chip_attr_array{chip_type:88 port_attr{lport:40 owner_subcard:1 "
    "logic_id:5 "
    "type:1 poe_support:1} port_attr{lport:2 type:3 unit:7 poe_support:1} port_attr{lport:1 type:4 hpoe_support:1}} "
    "chip_attr_array{chip_type:99 port_attr{lport:2 type:5 unit:1 port:22} port_attr{lport:41 owner_subcard:1 "
    "logic_id:9} port_attr{lport:50 owner_subcard:2 logic_id:5} port_attr{lport:300 type:10 unit:1 port:23} "
    "port_attr{lport:556 type:11 unit:2 port:24}}";

const char *const role_record =
    "my_grole:3 global_master{devid:1 slotid:30 sslotid:2} global_slave{devid:2 slotid:5 sslotid:1} l3_mac:'ABCDEFGH' "
    "card_role{devid:1 slotid:30 sslotid:1 is_local_master:1 globe_role:1} card_role{devid:1 slotid:30 globe_role:2} "
    "card_role{devid:1 slotid:31 globe_role:2} card_role{devid:2 is_local_master:1 globe_role:3}";

namespace {

const std::string chassis =
    "index{type:100} min_slot:1 max_slot:8 lc_min_slot:2 lc_max_slot:9 fe_min_slot:22 fe_max_slot:29 "
    "user_slot_index:0,4 "
    "slot_index:-1,2,3,4,5,6,7,8,9,-1,-1,-1,-1,-1,-1,-1,-1,-1,-1,-1,-1,-1,-1,-1,-1,24,-1,-1,-1,-1,31,-1 name:'a "
    "chassis' "
    "slot_type:1,8,1,1,1,1,1,8,1,1";
const std::string box = "index{type:200} is_box:1 slot_index:30,30,30,30,30 name:'a box of more than 31 characters'";
const std::string short_tables = "index{type:300} min_slot:1 max_slot:20 slot_index:-1,6,5 user_slot_index:9";
const std::string online = " is_online:1 ", typed = "} config_dev_type:", of_1 = "index{devid:1 slotid:";

const std::pair<int32_t, std::string> unit[] = {
    {2, "card_type:645 dm_my_node_type:3 slotid:3 card_nodeid:201589504"},
    {12, "my_lrole:2 local_master_node:44"},
    {13, "devid:1 dev_type:100 user_slotid:2"},
    {15, role_record},
    {3, chassis},
    {3, box},
    {3, short_tables},
    {16, "index{devid:3} devid:3 config_dev_type:300 static_info{" + short_tables + "}"},
    {16, "index{devid:1} devid:1 config_dev_type:100 devname:'more than 31 characters, to be cut'" + online +
             "static_info{" + chassis + "}"},
    {16, "index{devid:2} devid:2 config_dev_type:200 devname:'box' static_info{" + box + "}"},
    {16, "index{devid:4} devid:4 config_dev_type:200"},
    {38, "index{devid:1} serial_no:'SN-12345'"},
    {17, of_1 + "30} is_mboard:1 cpu_num:2 card_nodeid:1 static_info{node_type:2}" + online},
    {17, of_1 + "31} is_mboard:1 card_nodeid:2"},
    {17, of_1 + "3" + typed + "645" + online +
             "user_slot:2 name:'LC-48' card_nodeid:3 static_info{node_type:3 sub_slot_num:2}"},
    {17, of_1 + "3 sslotid:1" + typed + "7" + online + "card_nodeid:4 static_info{node_type:4}"},
    {17, of_1 + "4" + typed + "645 card_nodeid:5 static_info{node_type:3}"},
    {17, of_1 + "5" + typed + "1" + online + "card_nodeid:6"},
    {17, "index{devid:2 slotid:30} config_dev_type:20 card_nodeid:7 static_info{sub_slot_num:3}" + online},
    {17, "index{devid:2 slotid:30 sslotid:2} name:'BOX-SUB'"},
    {6, "index{type:20} node_type:1 sub_slot_num:3"},
    {14, "index{slotid:3} ldp_online:1 card_type:645"},
    {14, "index{slotid:4} card_type:645"},
    {11, line_card},
    {11,
     "index{type:7} extended_port_array{logic_id:4 type:2} extended_port_array{logic_id:5 type:6 hpoe_support:1} "
     "extended_port_array{logic_id:5 type:7}"}};

// What stands up to the brace that closes, packed.
std::string packed_fields(const ProtobufCMessageDescriptor &kind, std::sregex_iterator &at) {
    std::string bytes;
    const ProtobufCFieldDescriptor *field = nullptr;
    for (; at != std::sregex_iterator() && at->str() != "}"; ++at) {
        if ((*at)[1].matched) field = dmq::find_field(kind, at->str(1));
        if ((*at)[2] == "{")
            put_part(bytes, *field, packed_fields(part_of(*field), ++at));
        else if ((*at)[3].matched)
            put_part(bytes, *field, at->str(3));
        else if ((*at)[4].matched)
            put_number(bytes, *field, std::stoi(at->str(4)));
    }
    return bytes;
}

}  // namespace

Message object(std::string_view kind, const std::string &fields) {
    static const std::regex token("(\\w+)([{:])|'([^']*)'|(-?[0-9]+)|\\}");
    std::sregex_iterator at(fields.begin(), fields.end(), token);
    const auto *type = dm_schema_find_message(std::string(kind).c_str());
    return Message::unpack(type, packed_fields(*type, at));
}

Message object(int32_t row, const std::string &fields) {
    return object(obj_sub_list[row].obj_tmpl->descriptor->name, fields);
}

void set(int32_t row, const std::string &fields) {
    EXPECT_EQ(dm_cache_set_obj(row, object(row, fields).get()), 0) << row << ' ' << fields;
}

void drop(int32_t row, const std::string &fields) {
    EXPECT_EQ(receive(row, DELETE, object(row, fields)), 0) << row << ' ' << fields;
}

Topology::Topology() {
    dm_cache_multi_thread_init();
    start({1, 2, 3, 6, 7, 8, 10, 11, 12, 13, 14, 15, 16, 17, 20, 21, 30, 31, 32, 38});
    platform.objects.clear();
    platform.answers.clear();
    platform.during_read = nullptr;
    platform.reads = 0;
    if (!g_cache_proc_done) platform.synchronise();
    receive(1, SET, complete());
    platform.answer_scans();  // of an empty store: whatever another test has left is swept
    for (const auto &[row, fields] : unit) set(row, fields);
}
