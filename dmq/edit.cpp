// What writes the store: load, set, delete. Files are verified whole first.
#include <filesystem>

#include "dmq/command.h"
#include "dmq/words.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace dmq {

namespace {

void warn_of_short_life(Context &context, const Session &session) {
    if (session.embedded() && !context.in_shell)
        note("the store mem: ends with this command; `dmq --load FILE shell` keeps one for many commands");
}

Exit report(const Command &command, const char *did, const std::string &what, size_t count) {
    if (command.settings.json) {
        print_line(dump({{did, count}}));
    } else {
        print_line(std::string(did) + " " + what);
    }
    return exit_yes;
}

Exit write_file(Context &context, const Command &command, const char *did) {
    const std::string &file = command.words[0];
    const auto entries = read_topology(file);
    Session &session = context.open();
    warn_of_short_life(context, session);
    session.write(entries, command.settings.timeout);
    return report(command, did, std::to_string(entries.size()) + " objects from " + file, entries.size());
}

// The stored object with the same key, else one with nothing but the key.
Json stored_or_new(Session &session, const Kind &kind, const Json &key) {
    const Message probe = from_json(key, *kind.type, kind.type->name);
    int32_t error = 0;
    ProtobufCMessage *stored = tq_mom_get_sync(session.writer(), kind.db, probe.get(), &error);
    if (error == TQ_MOM_E_DAMAGED)
        throw Failure(exit_no, object_name(*probe) + " is damaged in the store; delete it, or set it from a file");
    if (!stored && error && error != TQ_MOM_E_NOT_FOUND)
        throw Failure(exit_unreachable, "cannot read " + object_name(*probe) + ", code " + std::to_string(error));
    const Json object = to_json(stored ? *stored : *probe, Fields::set);
    tq_mom_tq_obj_free(stored);
    return object;
}

bool names_a_file(const std::vector<std::string> &words) {
    return words.size() == 1 && (words[0] == "-" || words[0].ends_with(".json") || std::filesystem::exists(words[0]));
}

}  // namespace

Exit run_load(Context &context, const Command &command) {
    return write_file(context, command, "loaded");
}

Exit run_set(Context &context, const Command &command) {
    if (names_a_file(command.words)) return write_file(context, command, "set");

    const Kind kind = find_kind(command.words[0]);
    const auto assignments = read_words(*kind.type, {command.words.begin() + 1, command.words.end()});
    const auto *key = key_field(*kind.type);
    const auto of_key = key_part(*kind.type, assignments);
    if (key && of_key.empty())
        throw Failure(exit_usage, std::string(kind.type->name) + ": name the object by its key; a file is FILE.json");
    Session &session = context.open();
    Json probe = Json::object();
    assign(probe, of_key);
    Json object = stored_or_new(session, kind, probe);
    assign(object, assignments);
    std::vector<Entry> entries;
    entries.push_back({kind.db, from_json(object, *kind.type, kind.type->name)});
    warn_of_short_life(context, session);
    session.write(entries, command.settings.timeout);
    return report(command, "set", object_name(*entries[0].object), 1);
}

Exit run_delete(Context &context, const Command &command) {
    const Kind kind = find_kind(command.words[0]);
    const Message object = object_with_key(*kind.type, {command.words.begin() + 1, command.words.end()});
    Session &session = context.open();
    warn_of_short_life(context, session);
    session.erase(kind.db, *object, command.settings.timeout);
    return report(command, "deleted", object_name(*object), 1);
}

Exit run_gen(Context &, const Command &command) {
    TopologyWriter writer;
    for (const Json &entry : make_topology(command.gen)) writer.add(entry);
    writer.finish();
    return exit_yes;
}

}  // namespace dmq
