// The trees against their rules, played by a model that knows no short cut: a port that is set leaves all its trees and
// enters them again; when a static port changes, all ports at its place leave, and enter in the order of their list. Ports
// that share keys are many here: which of them a key finds depends on every step.
#include "tests/support/live_cache.h"

#include "tq_dm_cache/dm_port_index.h"
#include "tq_dm_cache/p_dev.pb-c.h"

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <random>

namespace {

using Keys = std::array<int64_t, NDM_CACHE_TREES>;

struct Port {
    Message object;
    int32_t place;
    bool indexed;
    Keys keys;
};

int32_t number(int32_t row, const Port &port) {
    return row == 30 ? port.object.as<PDev__VsdPort>()->ifx : port.object.as<PDev__VsdPortAttr>()->ifx;
}

struct Row {
    int32_t row;
    std::vector<Port> ports;  // in the order of the list
    std::map<int64_t, const ProtobufCMessage *> trees[NDM_CACHE_TREES] =
        {};  // a key finds the port with this key message

    void leave(Port &port) {
        if (!port.indexed) return;
        for (size_t i = 0; i < NDM_CACHE_TREES; ++i) trees[i].erase(port.keys[i]);
        port.indexed = false;
    }
    void enter(Port &port, const Message *attributes) {
        for (size_t i = 0; i < NDM_CACHE_TREES && port.indexed; ++i) {
            const auto at = trees[i].find(port.keys[i]);
            if (at != trees[i].end() && at->second == port.object.get()) trees[i].erase(at);
        }
        port.indexed = attributes != nullptr;
        if (!attributes) return;
        const PDev__DmPortAttrT &attr = *attributes->as<PDev__PortStatic>()->static_info;
        const int32_t vsdid = row == 30 ? port.object.as<PDev__VsdPort>()->index->t_vsdid : 0;
        const int32_t kind = row == 30 ? 7 : attr.type, last = row == 30 ? port.place : attr.user_port;
        port.keys = {vsdid << 24 | number(row, port), 1 << 24 | 2 << 16 | attr.unit << 8 | attr.port,
                     0x06010200 | attr.lport, kind << 24 | 1 << 16 | 2 << 8 | last};
        for (size_t i = 0; i < NDM_CACHE_TREES; ++i) trees[i].try_emplace(port.keys[i], port.object.get());
    }
};

class Model {
public:
    void set_port(Row &row, Message object, int32_t place) {
        const auto at = find(row, object);
        if (at == row.ports.end()) {
            row.ports.push_back({std::move(object), place, false, {}});
            return row.enter(row.ports.back(), attributes(place));
        }
        row.leave(*at);
        at->object = std::move(object);
        row.enter(*at, attributes(place));
    }
    void remove_port(Row &row, const Message &object) {
        const auto at = find(row, object);
        if (at == row.ports.end()) return;
        row.leave(*at);
        row.ports.erase(at);
    }
    void set_static(Message object, int32_t place) {
        const auto at = statics.find(place);
        if (at != statics.end() && equal(at->second.get(), object.get())) return;
        if (at != statics.end()) all_leave(place);
        statics.insert_or_assign(place, std::move(object));
        for (Row *row : {&global, &vsd})
            for (Port &port : row->ports)
                if (port.place == place) row->enter(port, attributes(place));
    }
    void remove_static(int32_t place) {
        if (statics.erase(place) > 0) all_leave(place);
    }

    Row global{30, {}}, vsd{31, {}};
    std::map<int32_t, Message> statics;

private:
    static std::vector<Port>::iterator find(Row &row, const Message &object) {
        return std::find_if(row.ports.begin(), row.ports.end(),
                            [&](const Port &port) { return equal(key_of(port.object.get()), key_of(object.get())); });
    }
    const Message *attributes(int32_t place) const {
        const auto at = statics.find(place);
        return at != statics.end() && at->second.as<PDev__PortStatic>()->static_info ? &at->second : nullptr;
    }
    void all_leave(int32_t place) {
        for (Row *row : {&global, &vsd})
            for (Port &port : row->ports)
                if (port.place == place) row->leave(port);
    }
};

int32_t count(const rbtree_node *node) {
    return node ? 1 + count(node->left) + count(node->right) : 0;
}

void expect_same(const Row &row) {
    for (const Port &port : row.ports) {
        const dm_cache_list_node *node = element(row.row, port.object);
        ASSERT_TRUE(node);
        ASSERT_EQ(node->key != nullptr, port.indexed);
        const auto *base = port.indexed ? element(7, static_port(1, 2, port.place, 7)) : nullptr;
        ASSERT_TRUE(!base || node->key->static_port == base->obj);
    }
    for (size_t i = 0; i < NDM_CACHE_TREES; ++i) {
        rbtree_root **root = &obj_sub_list[row.row].port_tree->root[i];
        ASSERT_EQ(count((*root)->node), static_cast<int32_t>(row.trees[i].size())) << "tree " << i;
        for (const auto &[key, object] : row.trees[i]) {
            const auto *node = static_cast<const dm_cache_list_node *>(dm_rbtree_find_node(root, key));
            ASSERT_TRUE(node) << "tree " << i << " key " << key;
            ASSERT_TRUE(equal(node->obj, object)) << "tree " << i << " key " << key;
        }
    }
}

}  // namespace

TEST(RandomPorts, TheTreesFollowTheirRules) {
    start({7, 30, 31});
    platform.synchronise();
    std::mt19937 random(5);
    const auto below = [&](unsigned n) { return static_cast<int32_t>(random() % n); };
    Model model;
    for (int step = 0; step < 12000 && !testing::Test::HasFailure(); ++step) {
        const int32_t place = below(12);
        const bool is_static = below(3) == 0;
        Row &row = below(2) ? model.global : model.vsd;
        // The second thousands have a key for each port, as a real box has.
        const bool shared = step / 1000 % 2 == 0;
        const int32_t vsdid = shared ? 1 + below(3) : 1;
        Message object = is_static ? static_port(1, 2, place, 7)
                                         .set("static_info.lport", shared ? below(6) : place)
                                         .set("static_info.port", shared ? below(6) : place)
                                         .set("static_info.user_port", place)
                                         .set("static_info.type", 7)
                         : &row == &model.global ? global_port(vsdid, 1, 2, place, 7, shared ? below(8) : place)
                                                 : vsd_port(1, 2, place, 7, shared ? below(8) : place);
        if (!is_static)
            object = std::move(object).set("dev", 1).set("slot", 2).set("physlot", 2);
        else if (below(8) == 0)
            object = key_only(object.get());
        if (below(4) == 0) {
            platform.push_delete(object);
            is_static ? model.remove_static(place) : model.remove_port(row, object);
        } else {
            platform.push(object);
            is_static ? model.set_static(std::move(object), place) : model.set_port(row, std::move(object), place);
        }
        expect_same(model.global);
        expect_same(model.vsd);
    }
}
