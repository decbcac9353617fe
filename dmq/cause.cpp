// Why a query did not answer, told from what it has read and from the cache as it is now. Takes the cache lock to look at it.
#include <algorithm>
#include <map>

#include "dmq/facts.h"
#include "dmq/output.h"
#include "dmq/reads.h"
#include "dmq/session.h"
#include "dmq/table.h"
#include "dmq/topology.h"
#include "tq_dm_cache/dm_port_index.h"
#include "tq_dm_cache/ndm.h"
#include "tq_dm_cache/p_dev.pb-c.h"

namespace dmq {

namespace {

// What ports of two rows have in common: their place, and the numbers by which trees find them.
struct PortNumbers {
    PDev__PortIndex place;
    int32_t vsdid, ifx, dev, physlot, slot;
};

template <class T> PortNumbers numbers_of(const T &port, int32_t vsdid) {
    const PDev__PortIndex place = P_DEV__PORT_INDEX__INIT;
    return {.place = at_place_of(*port.index, place),
            .vsdid = vsdid,
            .ifx = port.ifx,
            .dev = static_cast<int32_t>(port.dev),
            .physlot = port.physlot,
            .slot = static_cast<int32_t>(port.slot)};
}

// Null: the object is no port.
std::optional<PortNumbers> port_numbers(int32_t row, const ProtobufCMessage &object) {
    if (row == DM_ROW_VSD_PORT) {
        const auto &port = reinterpret_cast<const PDev__VsdPort &>(object);
        return numbers_of(port, port.index->t_vsdid);
    }
    if (row == DM_ROW_VSD_PORT_ATTR) return numbers_of(reinterpret_cast<const PDev__VsdPortAttr &>(object), 0);
    return std::nullopt;
}

enum class Match { no, maybe, yes };

Match exactly(bool same) {
    return same ? Match::yes : Match::no;
}
Match perhaps(bool same) {
    return same ? Match::maybe : Match::no;
}

// The key for which a look-up of the library searches a tree.
template <class LookUp, class... Part> int64_t key_searched(LookUp look_up, Part... parts) {
    int64_t key = 0;
    const auto keep = [](const dm_cache_read *read, void *word) { *static_cast<int64_t *>(word) = read->tree_key; };
    dm_cache_trace(keep, &key);
    ProtobufCMessage *found = nullptr;
    look_up(parts..., &found);
    dm_cache_trace(nullptr, nullptr);
    const Message freed(found);
    return key;
}

constexpr int32_t any = 0xFF;  // all bits of a part of a key that is not known

// Is it the key of something in this slot? `others` is what the look-up takes besides; the key may have anything for `any`.
template <class LookUp, class... Part>
bool in_slot(int64_t key, LookUp look_up, int32_t dev, int32_t slot, Part... others) {
    return (key | key_searched(look_up, 0, 0, others...)) == key_searched(look_up, dev, slot, others...);
}

// Would a port that is in no tree be found by this key? Its static port would say a part of most keys, and is not known: then
// the rest decides.
Match port_match(const PortNumbers &port, const Read &read) {
    const int64_t key = read.tree_key;
    const std::string tree = tree_name(read.row, read.tree);
    if (tree == "ifx") return exactly(key == key_searched(ndm_get_static_port_by_ifx, port.vsdid, port.ifx));
    if (tree == "dm_phyid")
        return perhaps(in_slot(key, ndm_get_static_port_by_dm_phyid, port.dev, port.physlot, any, any));
    if (tree == "ss_phyid") return perhaps(in_slot(key, ndm_get_static_port_by_ss_phyid, port.dev, port.physlot, any));
    const auto by_lsm = ndm_get_static_port_by_lsm_key_with_subslot;
    const PDev__PortIndex &place = port.place;
    if (read.row == DM_ROW_VSD_PORT_ATTR)
        return perhaps(in_slot(key, by_lsm, port.dev, port.slot, place.t_sslot, any, any));
    return exactly(key == key_searched(by_lsm, port.dev, port.slot, place.t_sslot, place.t_port, place.t_type));
}

// The same of any object that a tree of its row should find.
Match match_of(const ProtobufCMessage &object, const Read &read) {
    if (const auto port = port_numbers(read.row, object)) return port_match(*port, read);
    if (read.row != DM_ROW_UNIT_CPORT_INFO) return Match::no;
    const PDev__UnitCportIndex &index = *reinterpret_cast<const PDev__UnitCportInfo &>(object).index;
    if (tree_name(read.row, read.tree) == "lport") return Match::maybe;
    return exactly(read.tree_key == key_searched(ndm_get_local_port_by_unit_cport, index.unit, index.cport));
}

std::string place_text(const PortNumbers &port) {
    std::string text = "devid=" + std::to_string(port.place.t_dev) + " slot=" + std::to_string(port.place.t_slot);
    if (port.place.t_sslot) text += " sslot=" + std::to_string(port.place.t_sslot);
    return text + " port=" + std::to_string(port.place.t_port) + " with ifx=" + std::to_string(port.ifx);
}

// What is the matter with a row, so that nothing is found there? Empty: nothing.
std::string trouble_of(int32_t row) {
    const dm_cache_stats stats = stats_of(row);
    if (!stats.enabled) return row_name(row) + " is not followed: nobody has asked for it";
    if (flag_of(row) & DM_CACHE_NO_STORE)
        return row_name(row) + " is registered with DM_CACHE_NO_STORE, so it holds nothing";
    if (stats.held) return "the store refuses " + row_name(row) + " for now";
    const std::string waits = waits_for();
    if (!stats.scanned || !waits.empty())
        return row_name(row) + " is not live yet" + (waits.empty() ? "" : ": " + waits);
    return "";
}

// Why is an object in no tree?
std::string unindexed(int32_t row, const ProtobufCMessage &object) {
    const auto port = port_numbers(row, object);
    if (!port) return "it has no static_info";
    const PDev__PortStatic *found = nullptr;
    dm_cache_get_obj(DM_ROW_PORT_STATIC, &port->place, &found);
    const std::string which = "its static port (row " + std::to_string(DM_ROW_PORT_STATIC) + ", same place) ";
    if (found) {
        return found->static_info ? "its keys got no memory, or the client has taken it out"
                                  : which + "has no static_info";
    }
    const std::string trouble = trouble_of(DM_ROW_PORT_STATIC);
    return which + "is not cached" + (trouble.empty() ? "" : ": " + trouble);
}

std::string told_of(const ProtobufCMessage &object, const Read &read, const std::string &what) {
    const auto port = port_numbers(read.row, object);
    return "row " + std::to_string(read.row) + " has " + (port ? place_text(*port) : key_words(object)) + what;
}

// An object that a tree should have found, and why it is not in it. Empty: there is none.
struct Missing {
    std::string surely{}, perhaps{};
};

constexpr const char *not_found_by_its_key =
    ", which has that key, and is not found by it: another one had it too and took it along when it went, or the "
    "client has "
    "changed the tree";

Missing missing_from_tree(const Read &read) {
    const CacheLock lock;
    const dm_cache_list *list = obj_sub_list[read.row].obj_list;
    const ProtobufCMessage *candidate = nullptr;
    for (const dm_list_head *link = list ? list->head.next : nullptr; list && link != &list->head; link = link->next) {
        const auto &node = *reinterpret_cast<const dm_cache_list_node *>(link);
        if (node.key && node.key->key[read.tree] == read.tree_key)
            return {.surely = told_of(*node.obj, read, not_found_by_its_key)};
        const Match match = node.key ? Match::no : match_of(*node.obj, read);
        if (match == Match::yes)
            return {.surely = told_of(*node.obj, read, ", not indexed: " + unindexed(read.row, *node.obj))};
        if (match == Match::maybe && !candidate) candidate = node.obj;
    }
    if (!candidate) return {};
    return {.perhaps =
                told_of(*candidate, read, ", which may be meant, not indexed: " + unindexed(read.row, *candidate))};
}

// That an object is there, and not found, explains more than any row in which the query looked then.
std::string surely_missing(const std::vector<Read> &reads) {
    for (auto read = reads.rbegin(); read != reads.rend(); ++read) {
        if (read->found || read->of_store() || read->how != DM_CACHE_READ_TREE) continue;
        if (!trouble_of(read->row).empty()) continue;
        if (std::string cause = missing_from_tree(*read).surely; !cause.empty()) return cause;
    }
    return "";
}

// What a read that found nothing says of the row as a whole. Empty: nothing.
std::string specific(const Read &read) {
    if (read.of_store()) {
        if (read.code && !read.is_not_there())
            return "the store answered code " + std::to_string(read.code) + " for " + row_name(read.row);
        return "";
    }
    const std::string trouble = trouble_of(read.row);
    if (!trouble.empty()) return trouble;
    return read.how == DM_CACHE_READ_TREE ? missing_from_tree(read).perhaps : "";
}

std::string general(const Read &read) {
    const std::string row = row_name(read.row);
    const std::string key = read.key.is_object() && !read.key.empty() ? " " + words_of_key(read.key) : "";
    if (read.of_store() && !asks_its_store())
        return "the cache has no " + row + key + ", and no store was asked: --store names one";
    if (read.of_store()) return "neither the cache nor the store has " + row + key;
    const uint32_t objects = stats_of(read.row).objects;
    if (objects == 0) return row + " is empty";
    const std::string among = " (" + counted(objects, "object") + ")";
    const uint32_t refused = stats_of(read.row).refused;
    const std::string besides = refused ? ", and " + refused_text(refused) : "";
    if (read.how == DM_CACHE_READ_TREE) return "no object of " + row + " has that key" + among + besides;
    return row + " has no" + key + among + besides;
}

// A value that an argument might have had instead; empty: none is known.
std::string instead_of(const std::string &name, const std::string &word, int attempt) {
    static const char *const numbers[] = {"1", "0", "2", "30"};
    if (name == "rt") return "";
    const std::string value = is_node(name) || is_port(name) ? "1/0/1" : numbers[attempt];
    return value == word ? "" : value;
}

// The argument without which the query goes on: "slot=77 is refused". Empty: it is not one alone.
std::string refused_argument(const Question &question, const std::vector<std::string> &words) {
    size_t at = 0;
    for (const auto &[name, value] : question.asked().items()) {
        ++at;
        for (int attempt = 0; attempt < 4; ++attempt) {
            const std::string other = instead_of(name, words[at], attempt);
            if (other.empty() || value.is_string()) continue;
            std::vector<std::string> changed = words;
            changed[at] = other;
            Question trial(question.query(), changed, "explain");
            const Road road = walk_road(trial, /*quiet=*/true);
            const Json values = trial.values(road.answer.result);
            if (!road.reads.empty() || answers(trial.query(), road.answer.result, values))
                return name + "=" + cell_text(value) + " is refused: with " + other + " the query goes on";
        }
    }
    return "";
}

std::string said_too(const Road &road) {
    return road.said.empty() ? "" : "; the query says: " + road.said;
}

std::string cause_of_refusal(const Question &question, const Road &road, const std::vector<std::string> &words) {
    const Json &asked = question.asked();
    if (asked.empty()) return "it reads nothing: that is its only answer" + said_too(road);
    std::string refused = refused_argument(question, words);
    if (refused.empty() && asked.size() == 1)
        refused = asked.begin().key() + "=" + cell_text(asked.front()) + " is refused, nothing was read";
    return (refused.empty() ? "an argument is refused, nothing was read" : refused) + said_too(road);
}

}  // namespace

std::string cause_of(const Question &question, const Road &road, const Json &values,
                     const std::vector<std::string> &words) {
    const auto &reads = road.reads;
    if (road.answer.lacked_memory) return "there was not enough memory";
    const auto last_found = std::find_if(reads.rbegin(), reads.rend(), [](const Read &read) { return read.found; });
    if (answers(question.query(), road.answer.result, values)) {
        if (reads.empty()) return "the answer is computed from the arguments";
        if (last_found == reads.rend()) return "the answer is what is said when nothing is found";
        return (last_found->of_store() ? "the answer comes from the store, " : "the answer comes from the cache, ") +
               row_name(last_found->row);
    }
    if (reads.empty()) return cause_of_refusal(question, road, words);
    if (std::string cause = surely_missing(reads); !cause.empty()) return cause;
    for (auto read = reads.rbegin(); read != reads.rend(); ++read) {
        if (read->found) continue;
        if (const std::string cause = specific(*read); !cause.empty()) return cause;
    }
    if (!reads.back().found) return general(reads.back());
    const std::string row = row_name(reads.back().row);
    if (reads.back().how == DM_CACHE_READ_WALK) {
        if (reads.back().code == 1) return "the one object of " + row + " does not fit" + said_too(road);
        return "none of the " + std::to_string(reads.back().code) + " objects of " + row + " fits" + said_too(road);
    }
    if (!failed(road.answer.result)) return "that is what " + row + " says";
    return "all that it read was found, and has no answer: " + row + " is the last" + said_too(road);
}

}  // namespace dmq
