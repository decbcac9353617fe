// The trees against their rules, played by a model that knows no short cut: a port that is set leaves all its trees and
// enters them again; when a static port changes, all ports at its place leave, and enter in the order of their list. Ports
// that share keys are many here: which of them a key finds depends on every step.
#include "tests/support/live_cache.h"

#include <random>

namespace {

struct Port {
    Message object;
    int32_t place;
    bool indexed = false;
    std::array<int64_t, NDM_CACHE_TREES> keys = {};
};

struct Row {
    int32_t row;
    std::vector<Port> ports = {};  // in the order of the list
    // A key finds the port with this key message.
    std::map<int64_t, const ProtobufCMessage *> trees[NDM_CACHE_TREES] = {};
};

struct Model {
    Row rows[2] = {{30}, {31}};
    std::map<int32_t, Message> statics;

    void set_port(Row &row, Message object, int32_t place) {
        auto at = find(row, object);
        if (at == row.ports.end()) at = row.ports.insert(at, {Message(), place});
        leave(row, *at);
        at->object = std::move(object);
        enter(row, *at);
    }
    void remove_port(Row &row, const Message &object) {
        const auto at = find(row, object);
        if (at == row.ports.end()) return;
        leave(row, *at);
        row.ports.erase(at);
    }
    void set_static(Message object, int32_t place) {
        const auto at = statics.find(place);
        if (at != statics.end() && equal(at->second.get(), object.get())) return;
        remove_static(place);
        statics.emplace(place, std::move(object));
        for_ports_at(place, &Model::enter);
    }
    void remove_static(int32_t place) {
        if (statics.erase(place) > 0) for_ports_at(place, &Model::leave);
    }

private:
    static std::vector<Port>::iterator find(Row &row, const Message &object) {
        return std::find_if(row.ports.begin(), row.ports.end(), [&](const Port &port) {
            return equal(key_message(port.object.get()), key_message(object.get()));
        });
    }
    void for_ports_at(int32_t place, void (Model::*act)(Row &, Port &)) {
        for (Row &row : rows)
            for (Port &port : row.ports)
                if (port.place == place) (this->*act)(row, port);
    }
    void leave(Row &row, Port &port) {
        if (!std::exchange(port.indexed, false)) return;
        for (size_t i = 0; i < NDM_CACHE_TREES; ++i) row.trees[i].erase(port.keys[i]);
    }
    void enter(Row &row, Port &port) {
        const auto at = statics.find(port.place);
        if (at == statics.end() || !at->second.as<PDev__PortStatic>()->static_info) return;
        const PDev__DmPortAttrT &attr = *at->second.as<PDev__PortStatic>()->static_info;
        const auto *global = row.row == 30 ? port.object.as<PDev__VsdPort>() : nullptr;
        const int32_t ifx =
            global ? global->index->t_vsdid << 24 | global->ifx : port.object.as<PDev__VsdPortAttr>()->ifx;
        const int32_t kind = global ? 7 : attr.type, last = global ? port.place : attr.user_port;
        port.indexed = true;
        port.keys = {ifx, 1 << 24 | 2 << 16 | attr.unit << 8 | attr.port, 0x06010200 | attr.lport,
                     kind << 24 | 1 << 16 | 2 << 8 | last};
        for (size_t i = 0; i < NDM_CACHE_TREES; ++i) row.trees[i].try_emplace(port.keys[i], port.object.get());
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
        Row &row = model.rows[below(2) ? 0 : 1];
        // The second thousands have a key for each port, as a real box has.
        const bool shared = step / 1000 % 2 == 0;
        const int32_t vsdid = shared ? 1 + below(3) : 1;
        Message object = is_static ? static_port(1, 2, place, 7)
                                         .set("static_info.lport", shared ? below(6) : place)
                                         .set("static_info.port", shared ? below(6) : place)
                         : row.row == 30 ? global_port(vsdid, 1, 2, place, 7, shared ? below(8) : place)
                                         : vsd_port(1, 2, place, 7, shared ? below(8) : place);
        if (is_static && below(8) == 0) object = key_only(object.get());
        if (below(4) == 0) {
            platform.push_delete(object);
            if (is_static)
                model.remove_static(place);
            else
                model.remove_port(row, object);
        } else {
            platform.push(object);
            if (is_static)
                model.set_static(std::move(object), place);
            else
                model.set_port(row, std::move(object), place);
        }
        for (const Row &each : model.rows) expect_same(each);
    }
}
