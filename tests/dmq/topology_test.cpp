// Topologies and messages, both ways: what dmq prints it takes, and what it refuses it refuses whole, with a reason.
#include "dmq/topology.h"

#include <gtest/gtest.h>

#include <climits>

namespace dmq {
namespace {

Json sample(const ProtobufCMessageDescriptor &type);

// A value that is unlike any default and reaches the edges of its type.
Json sample_value(const ProtobufCFieldDescriptor &field) {
    const bool odd = field.id % 2;
    switch (field.type) {
        case PROTOBUF_C_TYPE_UINT32:
            return odd ? UINT32_MAX : field.id;
        case PROTOBUF_C_TYPE_INT64:
            return odd ? INT64_MIN : INT64_MAX;
        case PROTOBUF_C_TYPE_UINT64:
            return UINT64_MAX - field.id;
        case PROTOBUF_C_TYPE_BOOL:
            return true;
        case PROTOBUF_C_TYPE_ENUM: {
            const auto &values = *static_cast<const ProtobufCEnumDescriptor *>(field.descriptor);
            return values.values[values.n_values - 1].name;
        }
        case PROTOBUF_C_TYPE_STRING:
            return "\u00e9 \"quoted\" \\ " + std::string(field.name);
        case PROTOBUF_C_TYPE_BYTES:
            return odd ? "00:1a:2b:3c:4d:ff" : "00ff7f";
        case PROTOBUF_C_TYPE_MESSAGE:
            return sample(*static_cast<const ProtobufCMessageDescriptor *>(field.descriptor));
        default:
            return odd ? INT32_MIN : INT32_MAX - static_cast<int32_t>(field.id);
    }
}

Json sample(const ProtobufCMessageDescriptor &type) {
    Json object = Json::object();
    for (const auto &field : fields_of(type)) {
        const Json value = sample_value(field);
        object[field.name] = field.label == PROTOBUF_C_LABEL_REPEATED ? Json{value, value} : value;
    }
    return object;
}

// A field that changes its value between a file and the store is a device that is not the one described. The bytes go
// through protobuf-c's own reader, so that a mistake made in both directions shows too.
TEST(Topology, EveryMessageOfTheSchemaSurvivesTheRoundTrip) {
    uint32_t count = 0;
    const auto *types = dm_schema_messages(&count);
    ASSERT_GT(count, 200u);
    for (const auto *type : std::span(types, count)) {
        const Json object = sample(*type);
        const Message message = from_json(object, *type, type->name);
        const Message read = unpack(*type, pack(*message));
        ASSERT_TRUE(read) << type->name;
        EXPECT_EQ(to_json(*read, Fields::set), object) << type->name;
        const Message empty = new_message(*type);
        EXPECT_EQ(to_json(*empty, Fields::set), Json::object()) << type->name;
    }
}

std::string entry(const std::string &object, const std::string &kind = "p_dev.card_info") {
    return R"({"db": 1, "kind": ")" + kind + R"(", "object": )" + object + "}";
}

std::string refusal(const std::string &text) {
    try {
        parse_topology("lab.json", text);
    } catch (const Failure &failure) {
        return failure.code == exit_usage ? failure.what() : "wrong code";
    }
    return "not refused";
}

// A refusal that does not say where and why sends a person through a file of ten thousand lines; one that is missing puts
// half a truth into the store. The first entry is good, the second is not.
TEST(Topology, RefusesWithFileEntryAndReason) {
    const std::string good = "[" + entry(R"({"index": {"devid": 1, "slotid": 1, "sslotid": 0}})") + ",";
    const struct {
        std::string entry;
        const char *reason;
    } bad[] = {
        {"{}", "has no db"},
        {"7", "an entry is an object with db, kind and object"},
        {R"({"db": -1, "kind": "p_dev.card_info", "object": {}})", "db needs the number of a database, not -1"},
        {R"({"db": 1, "kind": 17, "object": {}})", "kind needs a name, not 17"},
        {entry(R"({})", "p_dev.card_infos"), "there is no kind p_dev.card_infos (did you mean p_dev.card_info?)"},
        {R"({"db": 1, "kind": "p_dev.card_info", "objects": {}})", "an entry has db, kind and object, not \"objects\""},
        {entry(R"({"index": {"slotid": 1}})"), "it lacks devid, sslotid"},
        {entry(R"({"index": {"devid": 1, "slotid": 1, "sslotid": 0}})"),
         "p_dev.card_info: the same db, kind and index as entry 1"},
        {entry(R"({"name": "x"})"), "p_dev.card_info: has no index, the key of its kind"},
        {entry(R"({"index": {"slotid": 1, "devid": 2, "slotid": 1}})"),
         "the key \"slotid\" is given twice in one object"},
        {entry(R"({"index": {"slot": 1}})"), "p_dev.card_info.index: p_dev.card_info_index has no field \"slot\""},
        {entry(R"({"index": {"slotid": 2147483648}})"),
         "p_dev.card_info.index.slotid: needs a whole number from -2147483648 to 2147483647, not 2147483648"},
        {entry(R"({"index": {"slotid": 1e400}})"), "not JSON: number overflow parsing '1e400'"},
        {entry(R"({"index": {"slotid": 1.0}})"), "not 1.0"},
        {entry(R"({"index": {"slotid": "1"}})"), "not \"1\""},
        {entry(R"({"index": null})"), "needs an object of"},
        {entry(R"({"is_online": 1})"), "needs true or false, not 1"},
        {entry(R"({"name": ["x"]})"), "needs a text, not [\"x\"]"},
        {entry(R"({"name": "a\u0000b"})"), "without a zero character"},
        {entry(R"({"mac_addr": "00:1a:2b:3c:4d:5e6"})"),
         "p_dev.card_info.mac_addr: needs bytes as pairs of hex digits"},
        {entry(R"({"mac_addr": "00:1a:2b-3c:4d:5e"})"), "needs bytes"},
        {entry(R"({"mac_addr": "00:1a:"})"), "needs bytes"},
        {entry(R"({"mac_addr": "0x1a"})"), "needs bytes"},
        {entry(R"({"status": "STA_GONE"})", "p_dev.vsd_info"),
         "(STA_NONE, STA_WAIT_START, STA_STARTED, STA_RESETTING, STA_STOP), not \"STA_GONE\""},
        {entry(R"({"start_time": -1})", "p_dev.vsd_info"), "from 0 to 18446744073709551615"},
        {entry(R"({"intf_attr": 9223372036854775808})", "p_dev.vsd_port"),
         "to 9223372036854775807, not 9223372036854775808"},
        {entry(R"({"online_lport": [1, true]})", "p_dev.local_port_info"),
         "p_dev.local_port_info.online_lport[1]: needs a whole number"},
        {entry(R"({"online_lport": 1})", "p_dev.local_port_info"), "needs an array, not 1"},
        {R"({"db": 1, "kind": "p_dev.card_info", "object": {"name": "a)", "not JSON: parse error at line 1"},
        {"{\"db\": 1, \"kind\": \"p_dev.card_info\", \"object\": {\"name\": \"a\xff\"}}", "ill-formed UTF-8"},
    };
    for (const auto &one : bad) {
        const std::string reason = refusal(good + one.entry + "]");
        EXPECT_TRUE(reason.starts_with("lab.json: entry 2: ")) << reason;
        EXPECT_NE(reason.find(one.reason), std::string::npos) << one.entry << "\n" << reason;
    }
    EXPECT_EQ(refusal("{}"), "lab.json: a topology is an array of entries");
    EXPECT_NE(refusal("").find("lab.json: not JSON"), std::string::npos);
}

}  // namespace
}  // namespace dmq
