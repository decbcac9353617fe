// verify: is a live cache equal to its store, while both of them change? What differs once may be a change on its way. A difference is
// told when it is found twice with the same content on both sides, and the store has told of no change of that object since before
// it was first read: not until a mark, asked for after the second reading, had come back through the store's feed.
#include <algorithm>
#include <cstdlib>
#include <set>

#include "dmq/command.h"
#include "dmq/reads.h"
#include "dmq/verify_feed.h"
#include "tq_dm_cache/dm_port_index.h"

namespace dmq {

namespace {

constexpr auto between_looks = std::chrono::milliseconds(250);  // at another process
constexpr int64_t unknown_age_ms =
    1000;  // in which another process, that does not tell how old its rows are, has heard everything
constexpr int most_rounds = 20;

// A row as the cache has it.
using Cached = std::map<std::string, Seen>;

// What is the matter with one object, and the bytes of both sides, null where it is not.
struct Difference {
    Message store, cache;  // of one that is damaged in the store, its key is left
    std::string store_bytes, cache_bytes, index, why;
    std::vector<uint64_t> changes;  // heard of, of all that it depends on, before it was read
    int64_t first_ms = 0;           // when that was
    bool is_behind = false;         // another process may not have heard of it yet
    bool is_damaged = false;        // in the store

    // Whose keys are wrong; null: nobody's.
    const ProtobufCMessage *indexed() const { return index.empty() ? nullptr : cache.get(); }

    bool same_as(const Difference &other) const {
        return store_bytes == other.store_bytes && cache_bytes == other.cache_bytes && index == other.index;
    }
};
using Differences = std::map<ObjectId, Difference>;

Message copy_of(const Message &object) {
    return object ? copy(*object) : nullptr;
}

// Of dmq's own cache, where nobody but the store puts objects.
dm_inspect_object about_node(const obj_sub_entry &row, const dm_cache_list_node &node) {
    dm_inspect_object about{};
    if (!row.port_tree) return about;
    about.trees = static_cast<uint8_t>(row.port_tree->tree_num);
    about.indexed = node.key != nullptr;
    for (int32_t i = 0; node.key && i < row.port_tree->tree_num; ++i) {
        about.key[i] = node.key->key[i];
        const void *found = dm_rbtree_find_node(&row.port_tree->root[i], about.key[i]);
        about.found[i] = found == &node ? DM_INSPECT_FINDS_OBJECT
                         : found        ? DM_INSPECT_FINDS_ANOTHER
                                        : DM_INSPECT_FINDS_NOTHING;
    }
    return about;
}

Cached cached(const Session &session, int32_t row) {
    Cached found;
    if (const Picture *picture = session.picture()) {
        for (const auto &[about, object] : picture->objects.at(row))
            found.emplace(packed_key(*object), Seen{about, copy(*object)});
        return found;
    }
    const CacheLock lock;
    const obj_sub_entry &entry = obj_sub_list[row];
    for (auto *link = entry.obj_list->head.next; link != &entry.obj_list->head; link = link->next) {
        const auto &node = *reinterpret_cast<const dm_cache_list_node *>(link);
        found.emplace(packed_key(*node.obj), Seen{about_node(entry, node), copy(*node.obj)});
    }
    return found;
}

// Indexes

using TreeKey = std::pair<int32_t, int64_t>;

// The keys by which a tree finds an object that has them.
std::set<TreeKey> keys_that_lead(const Cached &cache) {
    std::set<TreeKey> keys;
    for (const auto &entry : cache) {
        const dm_inspect_object &about = entry.second.about;
        for (int32_t tree = 0; about.indexed && tree < about.trees; ++tree)
            if (about.found[tree] == DM_INSPECT_FINDS_OBJECT) keys.emplace(tree, about.key[tree]);
    }
    return keys;
}

// What is wrong with an object's keys, by the static ports that are cached; empty: nothing. That another object which has the
// same key is found by it is nothing wrong.
std::string index_fault(int32_t row, const Seen &seen, const std::set<TreeKey> &leading) {
    const CacheLock lock;
    ndm_cache_tree *const set = obj_sub_list[row].port_tree;
    if (!set || seen.about.trees == 0) return "";
    dm_cache_list_node probe{};
    probe.obj = seen.object.get();
    const bool has_keys = set->gen_key(&probe) == 0 && probe.key;
    const std::unique_ptr<ndm_cache_key, void (*)(void *)> key(probe.key, std::free);
    if (!has_keys) return seen.about.indexed ? "indexed, though its keys cannot be known" : "";
    if (!seen.about.indexed) return "not indexed, though its keys are known";
    for (int32_t tree = 0; tree < std::min<int32_t>(set->tree_num, seen.about.trees); ++tree) {
        if (seen.about.key[tree] != key->key[tree]) {
            return "indexed wrongly, by " + tree_name(row, tree) + " " + hex(seen.about.key[tree]) + " instead of " +
                   hex(key->key[tree]);
        }
        if (seen.about.found[tree] == DM_INSPECT_FINDS_NOTHING)
            return "not found by " + tree_name(row, tree) + " " + hex(key->key[tree]);
        if (seen.about.found[tree] == DM_INSPECT_FINDS_ANOTHER && !leading.contains({tree, key->key[tree]}))
            return "taken for another one by " + tree_name(row, tree) + " " + hex(key->key[tree]);
    }
    return "";
}

// Comparison

std::string why(int32_t row, const Difference &difference, const Seen *seen) {
    const dm_cache_stats stats = stats_of(row);
    if (difference.is_damaged) return "its bytes in the store mean nothing, so no cache takes them";
    if (!difference.index.empty()) {
        return difference.index.starts_with("not found")
                   ? "another object with the same key took it along when it went, memory was short, or the client has "
                     "changed the tree"
                   : "";
    }
    if (stats.held) return "the store refuses the row to the cache";
    if (!stats.subscribed) return "the row is not subscribed";
    if (!stats.scanned) return "the row's scan has not ended";
    if (stats.queued)
        return counted(stats.queued, "change of the row waits in the queue", "changes of the row wait in the queue");
    if (seen && seen->about.by_client == DM_INSPECT_BY_SET_OBJ)
        return "last set by the client itself, with dm_cache_set_obj()";
    if (seen && seen->about.by_client) return "put into the list by the client itself";
    if (!difference.cache && stats.objects >= DM_CACHE_LIST_LIMIT) return "the row is full";
    if (!difference.cache && stats.refused) return refused_text(stats.refused) + ", perhaps this one";
    if (!difference.store) return "deleted past the library";
    return difference.cache ? "written past the library, or changed in place by the client"
                            : "written past the library, or taken out by the client itself";
}

struct Reading {
    size_t objects = 0;
    Differences differences;
};

void compare_row(Session &session, const ObjectKind &kind, const Changes &changes, int64_t now, Reading &read) {
    const Content store = stored(session, kind);
    const Cached cache = cached(session, kind.row);
    const std::set<TreeKey> leading = keys_that_lead(cache);
    std::set<std::string> keys;
    for (const auto &entry : store.objects) keys.insert(entry.first);
    for (const auto &entry : store.damaged) keys.insert(entry.first);
    for (const auto &entry : cache) keys.insert(entry.first);
    read.objects += keys.size();
    for (const std::string &key : keys) {
        const auto there = store.objects.find(key);
        const auto here = cache.find(key);
        const Seen *const seen = here == cache.end() ? nullptr : &here->second;
        Difference found;
        const auto left = store.damaged.find(key);
        found.is_damaged = left != store.damaged.end();
        if (found.is_damaged) found.store_bytes = "damaged";
        if (there != store.objects.end()) found.store_bytes = "x" + there->second;
        if (seen) found.cache_bytes = "x" + pack(*seen->object);
        if (seen && found.store_bytes == found.cache_bytes) found.index = index_fault(kind.row, *seen, leading);
        if (found.store_bytes == found.cache_bytes && found.index.empty()) continue;
        if (found.is_damaged) found.store = copy(*left->second);
        if (there != store.objects.end()) found.store = unpack(*kind.type, there->second);
        if (seen) found.cache = copy_of(seen->object);
        found.why = why(kind.row, found, seen);
        const ObjectId id(kind.row, key);
        found.changes = changes_of(changes, id, found.indexed());
        found.first_ms = now;
        read.differences.emplace(id, std::move(found));
    }
}

// What had changed until then is in the row, by the last look at it.
bool has_heard_since(const Session &session, int32_t row, int64_t first_ms) {
    if (!session.picture()) return true;
    const int64_t age = session.picture()->rows[static_cast<size_t>(row)].age_ms;
    return session.picture_ms() - first_ms >= (age < 0 ? unknown_age_ms : age);
}

// Differs as it did, and the store has told of no change of it since.
bool is_still(const ObjectId &id, const Difference &now, const Differences &open, const Changes &after) {
    const auto first = open.find(id);
    return first != open.end() && first->second.same_as(now) &&
           changes_of(after, id, now.indexed()) == first->second.changes;
}

// Told

Json side(const Message &object, const Message &other, bool json) {
    if (!object) return nullptr;
    if (json) return to_json(*object, Fields::set);
    if (!other) return "there";
    std::string text;
    const Json changes = differences(*object, *other);
    for (const auto &[field, change] : changes.items())
        text += (text.empty() ? "" : ", ") + field + "=" + dump(change["old"]);
    return text.empty() ? "other fields, that dmq does not know" : text;
}

Json store_side(const Difference &found, bool json) {
    if (found.is_damaged) return "damaged";
    if (!found.index.empty() && !json) return "there";
    return side(found.store, found.cache, json);
}

Json cache_side(const Difference &found, bool json) {
    if (found.is_damaged && found.cache && !json) return "there";
    if (!found.index.empty() && !json) return found.index;
    return side(found.cache, found.store, json);
}

void add(Table &table, int32_t row, const Difference &found, bool json) {
    const Message &any = found.store ? found.store : found.cache;
    if (!any) return;
    const bool is_index = !found.index.empty();
    table.rows.push_back({row, any->descriptor->name, key_words(*any), store_side(found, json), cache_side(found, json),
                          is_index && json ? Json(found.index) : Json(found.why.empty() ? Json() : Json(found.why))});
}

// Rows that the cache is to have.
std::vector<ObjectKind> rows_of(const std::vector<std::string> &names, const Session &session) {
    std::vector<ObjectKind> wanted, kinds;
    for (const auto &name : names) wanted.push_back(find_cached_kind(name));
    for (const ObjectKind &kind : names.empty() ? cached_kinds() : wanted) {
        const Picture *picture = session.picture();
        const bool is_stored = !picture || !(picture->rows[static_cast<size_t>(kind.row)].flag & DM_CACHE_NO_STORE);
        if (stats_of(kind.row).enabled && is_stored)
            kinds.push_back(kind);
        else if (!names.empty())
            note("row " + std::to_string(kind.row) + " " + kind.type->name + " is not kept by the process");
    }
    return kinds;
}

bool is_live(const Session &session) {
    return session.picture() ? session.picture()->live() : waits_for().empty();
}

// One comparison, look by look.
struct Verification {
    Session &session;
    std::vector<ObjectKind> kinds;
    Feed feed;
    Differences open, told;  // that differ so far, and that do
    size_t objects = 0;
    bool is_first = true;
    std::set<int32_t> unread = {};  // rows that the store did not give
};

// Reads the rows in which something is open, at first all of them.
Reading read_rows(Verification &v, const Changes &changes, int64_t now) {
    Reading read;
    for (const ObjectKind &kind : v.kinds) {
        const bool is_open =
            std::any_of(v.open.begin(), v.open.end(), [&](const auto &one) { return one.first.first == kind.row; });
        if ((!v.is_first && !is_open) || v.unread.contains(kind.row)) continue;
        try {
            compare_row(v.session, kind, changes, now, read);
        } catch (const Failure &failure) {
            if (failure.code != exit_no) throw;
            note("row " + std::to_string(kind.row) + " is not compared: " + failure.what());
            v.unread.insert(kind.row);
        }
    }
    return read;
}

// What differs as it did at the look before is told, unless it may still be on its way.
void look(Verification &v) {
    v.feed.mark();
    const auto before = v.feed.changes();
    const int64_t before_ms = now_ms();
    if (!v.is_first && v.session.picture()) v.session.synchronise({});
    if (!is_live(v.session)) {
        if (v.is_first) throw Failure(exit_no, "the cache is not live, so it need not be equal: " + waits_for());
        return;
    }
    Reading read = read_rows(v, before, before_ms);
    v.feed.mark();
    const auto after = v.feed.changes();
    if (v.is_first)
        v.objects = read.objects;
    else
        std::erase_if(read.differences, [&](const auto &one) { return !v.open.contains(one.first); });
    v.is_first = false;
    for (auto &[id, now] : read.differences) {
        if (!is_still(id, now, v.open, after)) continue;
        now.first_ms = v.open.at(id).first_ms;
        now.is_behind = !has_heard_since(v.session, id.first, now.first_ms);
        if (!now.is_behind) v.told.emplace(id, std::move(now));
    }
    for (const auto &entry : v.told) read.differences.erase(entry.first);
    v.open = std::move(read.differences);
}

// One that does not hear, or does not get on, stays as it is.
void tell_what_is_behind(Verification &v) {
    for (auto at = v.open.begin(); at != v.open.end();) {
        const auto one = at++;
        if (!one->second.is_behind) continue;
        one->second.why = "the process has not heard of the store, or not got on, for a while";
        v.told.insert(v.open.extract(one));
    }
}

void print_verdict(const Verification &v, const Command &command) {
    Table table{{"row", "kind", "key", "store", "cache", "why"}, {}};
    for (const auto &[id, found] : v.told) add(table, id.first, found, command.settings.json);
    const bool is_plain = command.table.format == Format::table;
    if (!is_plain || !table.rows.empty()) print_table(table, command.table);
    const size_t rows = v.kinds.size() - v.unread.size(), differ = v.told.size();
    if (is_plain) {
        print_line(counted(v.objects, "object") + " of " + counted(rows, "row") + " compared, " +
                   (differ == 0 ? "none differs" : counted(differ, "differs", "differ")));
    }
    if (v.open.empty()) return;
    const Difference &first = v.open.begin()->second;
    note(counted(v.open.size(), "object") +
         " changed all the while, so that they could not be compared; the first is " +
         object_name(first.store ? *first.store : *first.cache));
}

// The same server may have two URLs.
void note_other_store(const Session &session, const std::string &store) {
    if (!session.picture() || session.picture()->store.empty() || session.picture()->store == store) return;
    note(session.picture()->shown_name() + " follows " + shown(session.picture()->store) + ", and is compared with " +
         store);
}

}  // namespace

Exit run_verify(Context &context, const Command &command) {
    const bool attached = !command.settings.attach.empty();
    if (attached && command.settings.store.empty())
        throw Failure(exit_usage, "verify compares with the store that --store or DMQ_STORE names");
    Session &session = context.open(command.settings);
    session.synchronise({});
    if (session.is_cut_off()) throw Failure(exit_no, "the cache is cut off from the store");
    const std::vector<ObjectKind> kinds = rows_of(command.words, session);
    if (kinds.empty()) throw Failure(exit_no, "there is no row to be compared");
    note_other_store(session, shown_url(command.settings.store));
    std::vector<ObjectKind> heard = kinds;
    const ObjectKind ports = find_cached_kind(std::to_string(DM_ROW_PORT_STATIC));
    if (std::none_of(kinds.begin(), kinds.end(), [&](const ObjectKind &kind) { return kind.row == ports.row; }))
        heard.push_back(ports);

    Verification v{session, kinds, Feed(session, heard), {}, {}};
    for (int round = 0; round < most_rounds && (v.is_first || !v.open.empty()); ++round) {
        if (round > 0 && attached) {
            const auto left = std::chrono::milliseconds(session.time_left());
            std::this_thread::sleep_for(std::min(left, between_looks));
        }
        if (round > 0 && !session.time_left()) break;
        look(v);
    }
    tell_what_is_behind(v);
    print_verdict(v, command);
    if (!v.told.empty() || !v.unread.empty()) return exit_no;
    return v.open.empty() ? exit_yes : exit_timeout;
}

}  // namespace dmq
