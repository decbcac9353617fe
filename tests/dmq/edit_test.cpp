// Changes of stored objects: nothing that somebody else has written is lost by them.
#include <gtest/gtest.h>

#include "dmq/session.h"
#include "dmq/words.h"

namespace dmq {
namespace {

const auto &card_type = *dm_schema_find_message("p_dev.card_info");

constexpr auto card = [](const Json &object) { return from_json(object, card_type, ""); };

// Two operators at two boards: the later one must hear of the other, not undo what he did.
TEST(Edit, LeavesAloneWhatSomebodyElseHasChanged) {
    const struct {
        const char *before, *meanwhile, *after;  // a card's name; null: there is none
        Exit code;
        const char *left;
    } cases[] = {
        {"read", "read", "mine", exit_yes, "mine"},     {"read", "theirs", "mine", exit_no, "theirs"},
        {"read", "theirs", nullptr, exit_no, "theirs"}, {nullptr, "theirs", "mine", exit_no, "theirs"},
        {"read", nullptr, "mine", exit_no, nullptr},    {"read", "read", nullptr, exit_yes, nullptr},
    };
    const auto named = [](const char *name) {
        return name ? card({{"index", Json::object()}, {"name", name}}) : nullptr;
    };
    Settings settings;
    settings.store = "mem:edit";
    Session session(settings);
    for (const auto &one : cases) {
        const Message probe = named("");
        tq_mom_del(session.writer(), 1, probe.get());
        if (one.meanwhile) tq_mom_set(session.writer(), 1, named(one.meanwhile).get(), 0, 0);
        std::vector<Edit> edits;
        edits.push_back({1, named(one.before), named(one.after), false});
        Exit code = exit_yes;
        try {
            session.write(std::move(edits));
        } catch (const Failure &failure) {
            code = failure.code;
        }
        EXPECT_EQ(code, one.code);
        int32_t error = 0;
        ProtobufCMessage *found = tq_mom_get_sync(session.writer(), 1, probe.get(), &error);
        EXPECT_EQ(found ? to_json(*found, Fields::set)["name"] : Json(), one.left ? Json(one.left) : Json());
        tq_mom_tq_obj_free(found);
    }
}

// What the store holds, a file may not hold or this schema not know: it is shown, and not lost when another field is set.
TEST(Edit, KeepsWhatItDoesNotName) {
    const auto &chassis = *dm_schema_find_message("p_dev.dp_lib_my_chss_info");
    const std::string bytes("\x28\x07\x4a\x03\x61\xff\x62\xfa\x7f\x01x", 11);  // device_mode 7, dev_desc, field 2047
    const Message object = unpack(chassis, bytes);
    EXPECT_EQ(dump(to_json(*object, Fields::set)), "{\"device_mode\":7,\"dev_desc\":\"a\ufffdb\"}");
    assign(*object, read_words(chassis, {"device_mode=SWITCH_MODE_STANDALONE"}));
    EXPECT_EQ(pack(*object), bytes.substr(2));
    const Message sub = card({{"index", {{"slotid", 3}}}, {"static_info", {{"name", "old"}, {"sub_slot_num", 2}}}});
    const auto words = read_words(card_type, {"static_info.name=new", "mac_addr=0102", "devid=1"});
    assign(*sub, words);
    EXPECT_EQ(
        dump(to_json(*sub, Fields::set)),
        R"({"index":{"t_mod":0,"devid":1,"slotid":3,"sslotid":0},"static_info":{"sub_slot_num":2,"name":"new"},"mac_addr":"0102"})");
}

}  // namespace
}  // namespace dmq
