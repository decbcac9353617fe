// What reads the cache as it is: get, sync, watch. (Tables stand in show.cpp.)
#include "dmq/command.h"
#include "dmq/watch.h"
#include "dmq/words.h"

namespace dmq {

namespace {

std::vector<ObjectKind> kinds_of(const std::vector<std::string> &names) {
    std::vector<ObjectKind> kinds;
    for (const auto &name : names) kinds.push_back(find_cached_kind(name));
    return kinds;
}

Table sync_table(const std::vector<ObjectKind> &kinds) {
    Table table{{"row", "kind", "db", "subscribed", "scanned", "objects", "sets", "deletes", "swept", "refused", "ms"},
                {}};
    for (const ObjectKind &kind : kinds.empty() ? cached_kinds() : kinds) {
        const dm_cache_stats stats = stats_of(kind.row);
        if (!stats.enabled) continue;
        table.rows.push_back({kind.row, kind.type->name, kind.db, stats.subscribed != 0, stats.scanned != 0,
                              stats.objects, stats.sets, stats.deletes, stats.swept, stats.refused,
                              stats.last_scan_ms});
    }
    return table;
}

}  // namespace

// All kinds, or one kind's objects that agree with the words. No such object: 1.
Exit run_get(Context &context, const Command &command) {
    std::vector<ObjectKind> kinds;
    std::vector<Assignment> wanted;
    if (!command.words.empty()) {
        kinds.push_back(find_cached_kind(command.words[0]));
        wanted = read_words(*kinds[0].type, {command.words.begin() + 1, command.words.end()});
    }
    context.synchronised(kinds, command.settings);
    TopologyWriter writer;
    size_t count = 0;
    for (const ObjectKind &kind : kinds.empty() ? cached_kinds() : kinds) {
        each_cached(kind.row, [&](const ProtobufCMessage &object) {
            if (!wanted.empty() && !agrees(to_json(object, Fields::all), wanted)) return;
            writer.add(entry_json(kind.db, object));
            ++count;
        });
    }
    writer.finish();
    return count ? exit_yes : exit_no;
}

// The rows are shown also when they are not synchronised: that is when one wants to see them.
Exit run_sync(Context &context, const Command &command) {
    const auto kinds = kinds_of(command.words);
    std::optional<Failure> late;
    try {
        context.synchronised(kinds, command.settings);
    } catch (const Failure &failure) {
        if (failure.code != exit_timeout) throw;
        late = failure;
    }
    print_table(sync_table(kinds), command.table);
    if (late) throw Failure(*late);
    return exit_yes;
}

Exit run_watch(Context &context, const Command &command) {
    const auto kinds = kinds_of(command.words);
    Session &session = context.synchronised(kinds, command.settings);
    if (command.background && !context.in_shell) throw Failure(exit_usage, "watch & is for a shell of dmq");
    WatchOptions options = command.watch;
    options.json = command.settings.json;
    options.program = command.program;
    start_watch(kinds, options);
    if (command.background) return exit_yes;
    const bool asked = wait_for_end(command.watch_for.value_or(-1));
    if (is_watch_blocked()) std::_Exit(exit_yes);  // nor can the clients be closed, whose thread waits
    if (asked) drop_programs();
    stop_watch();
    session.begin(command.settings.timeout);
    context.doubtful = context.doubtful && !is_whole(session);
    return exit_yes;
}

}  // namespace dmq
