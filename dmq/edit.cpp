// What writes the store: load, set, delete. Files are verified whole first. A set or delete of what is there compares: it
// writes nothing over a change that it has not read.
#include <unistd.h>
#include <algorithm>
#include <tuple>

#include "dmq/edit.h"
#include "dmq/words.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace dmq {

namespace {

void warn_of_short_life(Context &context, const Session &session) {
    if (session.embedded() && !context.in_shell)
        note("the store mem: ends with this command; `dmq --load FILE shell` keeps one for many commands");
}

bool names_a_file(const std::vector<std::string> &words) {
    return words.size() == 1 && (words[0] == "-" || words[0].ends_with(".json") || access(words[0].c_str(), F_OK) == 0);
}

// How far apart two keys are: how many fields differ, then by how much.
std::pair<int, double> distance(const Json &one, const Json &other) {
    std::pair<int, double> far{0, 0};
    for (const auto &[field, value] : one.items()) {
        if (value == other[field]) continue;
        ++far.first;
        if (value.is_number()) far.second += std::abs(value.get<double>() - other[field].get<double>());
    }
    return far;
}

// An edit that was asked for under conditions is refused when the stored object is otherwise; that it still is as it was
// read, the store sees to when it is written.
void need(const std::vector<Assignment> &conditions, const Edit &edit) {
    if (conditions.empty()) return;
    const std::string instead = edit.damaged  ? "it is damaged in the store"
                                : edit.before ? unlike(to_json(*edit.before, Fields::all), conditions)
                                              : "there is no such object in the store";
    if (!instead.empty()) throw Failure(exit_no, object_name(edit.object()) + ": " + instead + "; left alone");
}

// What the objects of a file would do. Nothing is written when one of them is not there yet, unless it may be made.
std::vector<Edit> edits_of(Session &session, std::vector<Entry> entries, bool create) {
    std::vector<Edit> edits;
    for (Entry &entry : entries) {
        Edit &edit = edits.emplace_back(read_edit(session, entry.db, *entry.object));
        if (!edit.before && !edit.damaged && !create) refuse_unknown(session, *entry.object, "; --create makes it");
        edit.after = std::move(entry.object);
    }
    return edits;
}

}  // namespace

void refuse_unknown(Session &session, const ProtobufCMessage &object, const char *advice) {
    constexpr size_t most = 3;
    const ObjectKind kind = kind_of(*object.descriptor);
    std::vector<std::tuple<std::pair<int, double>, std::string>> near;
    if (const ProtobufCMessage *wanted = key_of(object)) {
        const Json key = to_json(*wanted, Fields::all);
        for (const auto &[bytes, value] : stored(session, kind).objects) {
            const Message other = unpack(*object.descriptor, value);
            if (other) near.emplace_back(distance(key, to_json(*key_of(*other), Fields::all)), key_words(*other));
        }
    }
    std::sort(near.begin(), near.end());
    std::string names;
    for (size_t i = 0; i < std::min(near.size(), most); ++i)
        names += (i ? "; " : ", the nearest: ") + std::get<std::string>(near[i]);
    if (near.empty()) names = ", and none of this kind";
    throw Failure(exit_no, object_name(object) + ": no such object in the store" + names + advice);
}

Edit read_edit(Session &session, uint32_t db, const ProtobufCMessage &object) {
    const auto probe = std::make_shared<const Message>(copy(object));
    const auto call = [probe, db, client = session.writer()] {
        int32_t error = 0;
        ProtobufCMessage *found = tq_mom_get_sync(client, db, probe->get(), &error);
        Message kept = found ? copy(*found) : Message();
        tq_mom_tq_obj_free(found);
        return std::pair(error, std::move(kept));
    };
    auto [error, found] = session.ask(object_name(object) + " to be read", call);
    if (error && error != TQ_MOM_E_NOT_FOUND && error != TQ_MOM_E_DAMAGED)
        throw Failure(exit_unreachable, "cannot read " + object_name(object) + ", code " + std::to_string(error));
    return {db, std::move(found), nullptr, error == TQ_MOM_E_DAMAGED};
}

Json told_of(const Edit &edit) {
    const ProtobufCMessage *key = key_of(edit.object());
    Json told = {{"kind", edit.object().descriptor->name}, {"key", key ? to_json(*key, Fields::all) : Json::object()}};
    const bool same = edit.before && edit.after && pack(*edit.before) == pack(*edit.after);
    told["event"] = !edit.after ? "deleted" : same ? "unchanged" : !edit.before && !edit.damaged ? "added" : "changed";
    told["changes"] = edit.before && edit.after ? differences(*edit.before, *edit.after) : Json::object();
    return told;
}

std::string told_text(const Edit &edit, const Json &told, bool dry) {
    const auto &event = told["event"].get_ref<const std::string &>();
    std::string text = dry ? "would " : "";
    text += edit.after ? "set " : dry ? "delete " : "deleted ";
    text += object_name(edit.object());
    if (event == "added") text += ": added";
    if (event == "unchanged") text += ": nothing changed";
    for (const auto &[field, change] : told["changes"].items()) text += "\n  " + field + ": " + change_text(change);
    return text + "\n";
}

Exit carry_out(Context &context, Session &session, const Command &command, std::vector<Edit> edits) {
    Json answer = {{edits[0].after ? "set" : "deleted", edits.size()}, {"dry_run", command.dry_run}, {"objects", {}}};
    std::string text;
    std::vector<Edit> changes;
    for (Edit &edit : edits) {
        Json told = told_of(edit);
        text += told_text(edit, told, command.dry_run);
        if (told["event"] != "unchanged") changes.push_back(std::move(edit));
        answer["objects"].push_back(std::move(told));
    }
    if (!command.dry_run) {
        warn_of_short_life(context, session);
        session.write(std::move(changes));
    }
    print(command.settings.json ? dump(answer) + "\n" : text);
    return exit_yes;
}

Exit run_load(Context &context, const Command &command) {
    const std::string &file = command.words[0];
    auto entries = read_topology(file);
    const size_t count = entries.size();
    Session &session = context.open(command.settings);
    warn_of_short_life(context, session);
    session.write(std::move(entries));
    print_line(command.settings.json ? dump({{"loaded", count}})
                                     : "loaded " + counted(count, "object") + " from " + file);
    return exit_yes;
}

Exit run_set(Context &context, const Command &command) {
    if (names_a_file(command.words)) {
        auto entries = read_topology(command.words[0]);
        if (entries.empty()) throw Failure(exit_usage, command.words[0] + ": has no objects");
        if (!command.conditions.empty()) throw Failure(exit_usage, "--if is for fields of one object, not for a file");
        Session &session = context.open(command.settings);
        return carry_out(context, session, command, edits_of(session, std::move(entries), command.create));
    }
    const ObjectKind kind = find_kind(command.words[0]);
    const auto assignments = read_words(*kind.type, {command.words.begin() + 1, command.words.end()});
    refuse_twice(assignments);
    need_whole_key(*kind.type, assignments);
    const auto conditions = read_words(*kind.type, command.conditions);
    Session &session = context.open(command.settings);
    std::vector<Entry> one;
    one.push_back({kind.db, object_with_key(*kind.type, key_part(*kind.type, assignments))});
    auto edits = edits_of(session, std::move(one), command.create);
    Edit &edit = edits[0];
    if (edit.damaged)
        throw Failure(exit_no, object_name(*edit.after) + " is damaged in the store; delete it, or set it from a file");
    if (edit.before) edit.after = copy(*edit.before);
    need(conditions, edit);
    assign(*edit.after, assignments);
    return carry_out(context, session, command, std::move(edits));
}

Exit run_delete(Context &context, const Command &command) {
    const ObjectKind kind = find_kind(command.words[0]);
    Message object = read_key(*kind.type, {command.words.begin() + 1, command.words.end()});
    const auto conditions = read_words(*kind.type, command.conditions);
    Session &session = context.open(command.settings);
    std::vector<Edit> edits;
    Edit &edit = edits.emplace_back(read_edit(session, kind.db, *object));
    if (!edit.before && !edit.damaged) refuse_unknown(session, *object, "");
    if (edit.damaged) edit.before = std::move(object);
    need(conditions, edit);
    return carry_out(context, session, command, std::move(edits));
}

Exit run_gen(Context &, const Command &command) {
    TopologyWriter writer;
    for (const Json &entry : make_topology(command.gen)) writer.add(entry);
    writer.finish();
    return exit_yes;
}

}  // namespace dmq
