// What a listener is told of a query's reads. Whoever looks for the cause of a wrong answer goes where these lead.
#include "tests/query/topology.h"

#include "tq_dm_cache/dm_cache_trace.h"

#include <thread>

namespace {

std::string values_of(const ProtobufCMessage *key) {
    std::string values;
    for (const auto &field : dmq::fields_of(*key->descriptor))
        if (!dmq::is_never_compared(field.name)) values += ' ' + std::to_string(dmq::at<int32_t>(*key, field.offset));
    return values;
}

// "17 key 1 9 0: none", "30 tree 2 0x6010309: found", "16 walk: 4", "16 record 9: -1 none".
void note(const dm_cache_read *read, void *word) {
    static const char *const hows[] = {"key", "tree", "walk", "record", "object", "scan"};
    const bool counted = read->how == DM_CACHE_READ_WALK || read->how == DM_CACHE_READ_SCAN;
    std::string line = std::to_string(read->type) + ' ' + hows[read->how];
    if (read->key) line += values_of(read->key);
    if (read->how == DM_CACHE_READ_TREE)
        line += ' ' + std::to_string(read->tree) + text(" %#x", int32_t(read->tree_key));
    line += ':';
    if (counted || read->how == DM_CACHE_READ_RECORD) line += ' ' + std::to_string(read->code);
    if (!counted) line += read->found ? " found" : " none";
    static_cast<Strings *>(word)->push_back(line);
    ndm_get_my_node();  // the listener's own query is told to nobody
}

}  // namespace

class Trace : public Topology {};

TEST_F(Trace, TellsEachReadOfThisThreadsQueries) {
    Strings told;
    const auto reads = [&](auto query, auto... given) {
        dm_cache_trace(note, &told);
        std::thread([] { ndm_is_vsu(); }).join();
        ask(query, given...);
        dm_cache_trace(nullptr, nullptr);
        ask(query, given...);
        return drained(&told);
    };
    const auto copy_of_type = +[](int32_t type) {
        ProtobufCMessage *card = nullptr;
        const int32_t answer = ndm_get_card_static_by_type(type, &card);
        ndm_port_obj_free(card);
        return answer;
    };
    platform.put(object(16, "index{devid:7} devid:7"));
    platform.put(static_port(1, 3, 9, 7));
    platform.put(global_port(0, 1, 3, 9, 7, 5));
    const uint32_t objid = 0x14040309;
    for (const auto &[read, expected] : std::initializer_list<std::pair<Strings, Strings>>{
             {reads(ndm_is_vsu), {"13 key: found"}},
             {reads(ndm_card_is_online, 1, 9, 0), {"17 key 1 9 0: none"}},
             {reads(ndm_get_global_ifx_by_objid, objid), {"30 tree 2 0x6010309: none"}},
             {reads(copy_of_type, 645), {"11 tree 0 0x285: found"}},
             {reads(ndm_get_device_num), {"16 walk: 4"}},
             {reads(ndm_get_sslot_by_lport, 1, 3, 40), {"17 key 1 3 0: found", "11 tree 0 0x285: found"}},
             {reads(ndm_get_fe_slot_range_by_dev_id, 9, out, out),
              {"13 key: found", "13 key: found", "3 key 100: found"}},
             {reads(ndm_get_slot_num_rt, 7), {"16 key 7: none", "16 record 7: 0 found"}},
             {reads(_ndm_get_chip_family, 3, 1), {"20 tree 0 0x3: none", "20 object 3: none"}},
             {reads(ndm_get_objid_by_slot_lport, 1, 3, 9, out), {}},
             {reads(ndm_get_vsdid_by_objid_rt, objid, out),
              {"30 tree 2 0x6010309: none", "7 key 1 3 9 7 0: none", "7 object 1 3 9 7 0: found", "30 scan: 0",
               "30 tree 2 0x6010309: found"}},
         })
        EXPECT_EQ(read, expected);

    platform.answers["hgetall"] = -7;
    EXPECT_EQ(reads(ndm_get_slot_num_rt, 8), (Strings{"16 key 8: none", "16 record 8: -7 none"}));
    dm_cache_stop();  // there is no store to be asked
    EXPECT_EQ(reads(ndm_get_slot_num_rt, 7), (Strings{"16 key 7: none", "16 record 7: -1 none"}));
}
