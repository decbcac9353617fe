// The store command: what an embedded store can be made to do to its clients, and the comparison of cache and store.
#include <charconv>
#include <functional>
#include <map>

#include "dmq/complete.h"
#include "dmq/words.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace dmq {

namespace {

// What one row holds on one side: packed objects by their packed key.
struct Content {
    std::map<std::string, std::string> objects;
    std::vector<std::string> damaged;  // their names
};

void take(Content &content, const ProtobufCMessage &object) {
    const ProtobufCMessage *key = key_of(object);
    content.objects[key ? pack(*key) : ""] = pack(object);
}

int32_t take_scanned(tq_mom_handle *, store_msg *msg, void *privdata) {
    auto &content = *static_cast<Content *>(privdata);
    const auto *record = static_cast<const result_rec *>(msg->value);
    if (!record || !record->obj) return 0;
    if (msg->result || record->error) {
        content.damaged.push_back(object_name(*record->obj));
    } else {
        take(content, *record->obj);
    }
    return 0;
}

Content stored(Session &session, const Kind &kind) {
    Content content;
    const int32_t code =
        tq_mom_scan_sync(session.writer(), kind.db, obj_sub_list[kind.row].obj_tmpl, 0, take_scanned, &content);
    if (code) throw Failure(exit_unreachable, "cannot scan the store, code " + std::to_string(code));
    return content;
}

// One line for each object that is damaged, on one side only, or not the same on both.
std::vector<std::string> differences(const Kind &kind, const Content &store, const Content &cache) {
    std::vector<std::string> lines;
    const auto tell = [&](const std::string &bytes, const char *what) {
        const Message object = unpack(*kind.type, bytes);
        lines.push_back(object_name(*object) + what);
    };
    for (const auto &[key, bytes] : store.objects) {
        const auto other = cache.objects.find(key);
        if (other == cache.objects.end()) tell(bytes, ": only in the store");
        if (other != cache.objects.end() && other->second != bytes) tell(bytes, ": not the same in the cache");
    }
    for (const auto &[key, bytes] : cache.objects) {
        if (!store.objects.contains(key)) tell(bytes, ": only in the cache");
    }
    for (const auto &name : store.damaged) lines.push_back(name + ": damaged in the store");
    return lines;
}

// Is every cached row equal to what the store holds now? A damaged object is nowhere: it does not count.
Exit compare(Session &session, const Command &command) {
    Table table{{"row", "kind", "store", "cache", "damaged", "equal"}, {}};
    if (command.settings.json) table.columns.push_back("differences");
    std::string told;
    bool equal = true;
    for (const Kind &kind : cached_kinds()) {
        if (!stats_of(kind.row).enabled) continue;
        const Content store = stored(session, kind);
        Content cache;
        each_cached(kind.row, [&](const ProtobufCMessage &object) { take(cache, object); });
        const auto lines = differences(kind, store, cache);
        const bool same = lines.size() == store.damaged.size();
        equal = equal && same;
        auto &row = table.rows.emplace_back(std::vector<Json>{kind.row, kind.type->name, store.objects.size(),
                                                              cache.objects.size(), store.damaged.size(), same});
        if (command.settings.json) row.push_back(lines);
        for (const auto &line : lines) told += line + "\n";
    }
    print_table(table, command.settings.json);
    if (!command.settings.json) print(told);
    return equal ? exit_yes : exit_no;
}

void check(int32_t code) {
    if (code == TQ_MOM_E_ARGUMENT) throw Failure(exit_usage, "only an embedded store (mem:) can be told to do this");
    if (code) throw Failure(exit_unreachable, "the store answered code " + std::to_string(code));
}

// The answer comes last, behind what a watch has to tell.
Exit done(const char *what, const Command &command) {
    command.settings.json ? print_line(dump({{"store", what}})) : print_line(std::string("store: ") + what);
    return exit_yes;
}

// Cut off, the cache hears nothing.
Exit disconnect(Session &session, const Command &command) {
    check(tq_mem_disconnect(session.reader()));
    session.cut_off(true);
    session.settle(command.settings.timeout);
    return done("the cache is cut off", command);
}

Exit reconnect(Session &session, const Command &command) {
    if (!session.is_cut_off()) throw Failure(exit_usage, "the cache is not cut off");
    const uint32_t applied = dm_cache_applied();
    check(tq_mem_reconnect(session.reader()));
    session.cut_off(false);
    applied ? session.settle_applied(applied, command.settings.timeout) : session.settle(command.settings.timeout);
    return done("the cache is let in again", command);
}

// Every client is cut off by it; dmq's own writer comes back at once.
Exit restart(Session &session, const Command &command) {
    const bool empty = command.words.size() > 1;
    if (empty && command.words[1] != "empty") throw Failure(exit_usage, "store restart knows only the word empty");
    check(tq_mem_restart(session.writer(), empty ? 0 : 1));
    session.cut_off(true);
    check(tq_mem_reconnect(session.writer()));
    session.settle(command.settings.timeout);
    return done(empty ? "restarted empty, the cache is cut off" : "restarted with its content, the cache is cut off",
                command);
}

Exit damage(Session &session, const Command &command) {
    if (command.words.size() < 2) throw Failure(exit_usage, "store damage needs KIND key=value..");
    const Kind kind = find_kind(command.words[1]);
    const Message object = object_with_key(*kind.type, {command.words.begin() + 2, command.words.end()});
    const uint8_t bytes[] = {0xff, 0xff, 0xff};
    check(tq_mem_put_bytes(session.writer(), kind.db, object.get(), bytes, sizeof bytes));
    if (session.follows()) session.settle(command.settings.timeout);
    return done("the object's bytes are damaged", command);
}

Exit lose(Session &session, const Command &command) {
    const std::string text = command.words.size() > 1 ? command.words[1] : "";
    int32_t count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc() || end != text.data() + text.size() || count < 1)
        throw Failure(exit_usage, "store lose needs a number of confirmations");
    check(tq_mem_lose_confirmations(session.reader(), count));
    return done("confirmations will be lost", command);
}

struct Action {
    Exit (*run)(Session &, const Command &);
    size_t most_words;
};
const std::map<std::string, Action> actions = {
    {"disconnect", {disconnect, 1}}, {"reconnect", {reconnect, 1}}, {"restart", {restart, 2}},
    {"damage", {damage, SIZE_MAX}},  {"lose", {lose, 2}},           {"compare", {compare, 1}}};

}  // namespace

Candidates next_action(const Asked &asked) {
    Candidates candidates;
    if (asked.words.empty()) {
        for (const auto &[name, action] : actions) candidates.push_back({name, ""});
    } else if (asked.words[0] == "damage") {
        return next_key({asked.settings, {asked.words.begin() + 1, asked.words.end()}});
    }
    return candidates;
}

void tell_damage(Session &session) {
    static uint64_t told = 0;
    const uint64_t met = tq_mom_client_damaged(session.reader());
    if (met == told) return;
    told = met;
    for (const Kind &kind : cached_kinds()) {
        if (!stats_of(kind.row).enabled) continue;
        for (const auto &name : stored(session, kind).damaged)
            note(name + ": damaged in the store, so its value is not in the cache");
    }
}

Exit run_store(Context &context, const Command &command) {
    const auto found = actions.find(command.words[0]);
    if (found == actions.end()) {
        std::vector<std::string> names;
        for (const auto &[name, action] : actions) names.push_back(name);
        throw Failure(exit_usage, "store cannot " + command.words[0] + did_you_mean(command.words[0], names));
    }
    if (const size_t most = found->second.most_words; command.words.size() > most)
        throw Failure(exit_usage, command.words[most] + " is one word too many");
    Session &session = context.open();
    // Confirmations are lost before the cache starts; a comparison waits for a cache that is not cut off.
    const std::string &action = found->first;
    if (action == "lose") session.open_reader();
    if (action == "disconnect" || action == "reconnect") session.start({});
    if (action == "compare" && !session.is_cut_off()) session.synchronise({}, command.settings);
    return found->second.run(session, command);
}

}  // namespace dmq
