// The store command: what an embedded store can be made to do to its clients, and the comparison of cache and store.
#include <functional>
#include <map>
#include <utility>

#include "dmq/complete.h"
#include "dmq/words.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace dmq {

namespace {

// Bytes that were packed from an object need not be one again.
std::string name_of(const ObjectKind &kind, const std::string &bytes) {
    const Message object = unpack(*kind.type, bytes);
    return object ? object_name(*object) : std::string(kind.type->name) + " with bytes that mean nothing";
}

void take(Content &content, const ProtobufCMessage &object) {
    content.objects[packed_key(object)] = pack(object);
}

int32_t take_scanned(tq_mom_handle *, store_msg *msg, void *privdata) {
    auto &content = *static_cast<Content *>(privdata);
    const auto *record = static_cast<const result_rec *>(msg->value);
    if (!record || !record->obj) return 0;
    if (record->error == TQ_MOM_E_MEMORY) out_of_memory();
    if (msg->result || record->error)
        content.damaged[packed_key(*record->obj)] = copy(*record->obj);
    else
        take(content, *record->obj);
    return 0;
}

Content cached(int32_t row) {
    Content content;
    each_cached(row, [&](const ProtobufCMessage &object) { take(content, object); });
    return content;
}

// The store's objects that the cache has not, or that are not in `other`.
std::vector<std::string> missing(const ObjectKind &kind, const Content &content, const Content &other) {
    std::vector<std::string> names;
    for (const auto &[key, bytes] : content.objects)
        if (!other.objects.contains(key)) names.push_back(name_of(kind, bytes));
    return names;
}

// One line for each object that is damaged, on one side only, or not the same on both.
std::vector<std::string> unequal(const ObjectKind &kind, const Content &store, const Content &cache) {
    std::vector<std::string> lines;
    for (const auto &[key, bytes] : store.objects) {
        const auto other = cache.objects.find(key);
        if (other != cache.objects.end() && other->second != bytes)
            lines.push_back(name_of(kind, bytes) + ": not the same in the cache");
    }
    for (const auto &name : missing(kind, store, cache)) lines.push_back(name + ": only in the store");
    for (const auto &name : missing(kind, cache, store)) lines.push_back(name + ": only in the cache");
    for (const auto &[key, left] : store.damaged) lines.push_back(object_name(*left) + ": damaged in the store");
    return lines;
}

// Is every cached row equal to what the store holds now? A damaged object is nowhere: it does not count.
Exit compare(Session &session, const Command &command) {
    Table table{{"row", "kind", "store", "cache", "damaged", "equal"}, {}};
    if (command.settings.json) table.columns.push_back("differences");
    std::string told;
    bool equal = true;
    for (const ObjectKind &kind : cached_kinds()) {
        if (!stats_of(kind.row).enabled) continue;
        const Content store = stored(session, kind);
        const Content cache = cached(kind.row);
        const auto lines = unequal(kind, store, cache);
        const bool same = lines.size() == store.damaged.size();
        equal = equal && same;
        auto &row = table.rows.emplace_back(std::vector<Json>{kind.row, kind.type->name, store.objects.size(),
                                                              cache.objects.size(), store.damaged.size(), same});
        if (command.settings.json) row.push_back(lines);
        for (const auto &line : lines) told += line + "\n";
    }
    print_table(table, command.table);
    if (command.table.format == Format::table) print(told);
    return equal ? exit_yes : exit_no;
}

void check(int32_t code) {
    if (code == TQ_MOM_E_ARGUMENT) throw Failure(exit_usage, "only an embedded store (mem:) can be told to do this");
    if (code) throw Failure(exit_unreachable, "the store answered code " + std::to_string(code));
}

// The answer comes last, behind what a watch has to tell.
Exit done(const char *what, const Command &command) {
    print_line(command.settings.json ? dump({{"store", what}}) : std::string("store: ") + what);
    return exit_yes;
}

// Cut off, the cache hears nothing.
Exit disconnect(Session &session, const Command &command) {
    check(tq_mem_disconnect(session.reader()));
    session.cut_off(true);
    session.settle();
    return done("the cache is cut off", command);
}

Exit reconnect(Session &session, const Command &command) {
    if (!session.is_cut_off()) throw Failure(exit_usage, "the cache is not cut off");
    const uint32_t applied = dm_cache_applied();
    check(tq_mem_reconnect(session.reader()));
    session.cut_off(false);
    session.settle(applied);
    return done("the cache is let in again", command);
}

// Every client is cut off by it; dmq's own writer comes back at once.
Exit restart(Session &session, const Command &command) {
    const bool empty = command.words.size() > 1;
    if (empty && command.words[1] != "empty") throw Failure(exit_usage, "store restart knows only the word empty");
    check(tq_mem_restart(session.writer(), empty ? 0 : 1));
    session.cut_off(true);
    check(tq_mem_reconnect(session.writer()));
    session.settle();
    return done(empty ? "restarted empty, the cache is cut off" : "restarted with its content, the cache is cut off",
                command);
}

Exit damage(Session &session, const Command &command) {
    if (command.words.size() < 2) throw Failure(exit_usage, "store damage needs KIND key=value..");
    const ObjectKind kind = find_kind(command.words[1]);
    const Message object = read_key(*kind.type, {command.words.begin() + 2, command.words.end()});
    const uint8_t bytes[] = {0xff, 0xff, 0xff};
    check(tq_mem_put_bytes(session.writer(), kind.db, object.get(), bytes, sizeof bytes));
    if (session.follows()) session.settle();
    return done("the object's bytes are damaged", command);
}

Exit lose(Session &session, const Command &command) {
    const auto count = whole_number<int32_t>(command.words.size() > 1 ? command.words[1] : "");
    if (!count || *count < 1) throw Failure(exit_usage, "store lose needs a number of confirmations");
    check(tq_mem_lose_confirmations(session.reader(), *count));
    return done("confirmations will be lost", command);
}

// The row's objects that the cache should have. Cut off, it need not have them.
bool row_is_whole(Session &session, const ObjectKind &kind, bool damaged) {
    const dm_cache_stats stats = stats_of(kind.row);
    const uint32_t refused = stats.refused;
    const std::string row = "row " + std::to_string(kind.row) + " " + kind.type->name;
    if (stats.held) {
        note(row + " is held: the store refuses to give it for now");
        return false;
    }
    if (!refused && !damaged) return true;
    const Content store = stored(session, kind);
    session.settle();
    const auto names = missing(kind, store, cached(kind.row));
    if (damaged) {
        for (const auto &[key, left] : store.damaged)
            note(object_name(*left) + ": damaged in the store, so its value is not in the cache");
    }
    const std::string lacks = names.empty()
                                  ? "no object of the store now"
                                  : std::to_string(names.size()) + " of the store's objects; the first is " + names[0];
    if (refused || !names.empty()) note(row + " has refused " + std::to_string(refused) + " and lacks " + lacks);
    return !refused && names.empty();
}

bool is_empty(Session &session) {
    for (const ObjectKind &kind : cached_kinds())
        if (stats_of(kind.row).objects) return false;
    for (const ObjectKind &kind : cached_kinds()) {
        const Content content = stored(session, kind);
        if (!content.objects.empty() || !content.damaged.empty()) return false;
    }
    return true;
}

constexpr struct Action {
    const char *name;
    Exit (*run)(Session &, const Command &);
    size_t most_words;
} actions[] = {{"compare", compare, 1}, {"damage", damage, SIZE_MAX}, {"disconnect", disconnect, 1},
               {"lose", lose, 2},       {"reconnect", reconnect, 1},  {"restart", restart, 2}};

const Action &find_action(const std::string &name) {
    std::vector<std::string> names;
    for (const Action &action : actions) {
        if (name == action.name) return action;
        names.emplace_back(action.name);
    }
    throw Failure(exit_usage, no_such("store cannot", name, names));
}

}  // namespace

Candidates next_action(const Asked &asked) {
    Candidates candidates;
    if (asked.words.empty()) {
        for (const Action &action : actions) candidates.push_back({action.name, ""});
    } else if (asked.words[0] == "damage") {
        return next_key({asked.context, asked.settings, {asked.words.begin() + 1, asked.words.end()}});
    }
    return candidates;
}

Content stored(Session &session, const ObjectKind &kind) {
    const auto call = [client = session.writer(), kind] {
        Content content;
        const Message any = new_message(*kind.type);
        const int32_t code = tq_mom_scan_sync(client, kind.db, any.get(), 0, take_scanned, &content);
        return std::pair(code, std::move(content));
    };
    auto [code, content] = session.ask("all objects of " + std::string(kind.type->name), call);
    if (code == TQ_MOM_E_REFUSED) throw Failure(exit_no, "the store refuses to give " + std::string(kind.type->name));
    if (code) throw Failure(exit_unreachable, "cannot scan the store, code " + std::to_string(code));
    return std::move(content);
}

bool is_whole(Session &session) {
    if (const Picture *picture = session.picture()) {
        if (picture->live()) return true;
        note(picture->shown_name() + " is not live: " + picture->reason);
        return false;
    }
    static uint64_t told = 0;
    const uint64_t met = tq_mom_client_damaged(session.reader());
    const bool damaged = met != std::exchange(told, met);
    bool whole = true;
    for (const ObjectKind &kind : cached_kinds())
        if (!session.is_cut_off() && stats_of(kind.row).enabled) whole &= row_is_whole(session, kind, damaged);
    if (!is_empty(session)) return whole;
    note(session.store_name() + " is empty");
    return false;
}

Exit run_store(Context &context, const Command &command) {
    const std::string &action = command.words[0];
    const auto &[name, run, most] = find_action(action);
    if (command.words.size() > most) throw Failure(exit_usage, command.words[most] + " is one word too many");
    Session &session = context.open(command.settings);
    // Confirmations are lost before the cache starts; a comparison waits for a cache that is not cut off.
    if (action == "lose") session.open_reader();
    if (action == "disconnect" || action == "reconnect") session.start({});
    if (action == "compare" && !session.is_cut_off()) session.synchronise({});
    if (action == "compare") context.doubtful = !is_whole(session);
    return run(session, command);
}

}  // namespace dmq
