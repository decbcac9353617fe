// `show`: a table of the cache, or all that is known of one port, card or device.
#include <algorithm>

#include "dmq/complete.h"
#include "dmq/facts.h"
#include "dmq/names.h"
#include "dmq/reads.h"
#include "dmq/things.h"

namespace dmq {

namespace {

// Without what is of no use to an operator, unless columns are named.
TableOptions plain_options(const View &view, const Command &command) {
    TableOptions options = command.table;
    if (command.raw || !options.columns.empty()) return options;
    for (const auto &column : columns_of(view))
        if (!is_raw(column)) options.columns += (options.columns.empty() ? "" : ",") + column;
    return options;
}

Exit show_table(Context &context, const View &view, const Command &command) {
    const auto conditions = read_conditions(view, std::span(command.words).subspan(command.words.empty() ? 0 : 1));
    context.synchronised({}, command.settings);
    Table table = make_table(view);
    std::erase_if(table.rows, [&](const auto &record) {
        const bool is_hidden = view.row < 0 && !command.raw && record[0].is_string() && is_raw(record[0]);
        return is_hidden || !fits(record, conditions);
    });
    print_table(table, plain_options(view, command));
    if (table.rows.empty() && view.row >= 0 && !stats_of(view.row).enabled)
        note(row_name(view.row) + " is not followed by the process, so nothing of it is known");
    return table.rows.empty() ? exit_no : exit_yes;
}

// What is told of a thing, outside of the lock.
struct Told {
    std::vector<Json> record;
    std::vector<Fact> facts;
};

Json told_json(const View &view, const Told &thing) {
    Json json = Json::object();
    const auto columns = columns_of(view);
    for (size_t i = 0; i < columns.size(); ++i) json[columns[i]] = thing.record[i];
    Json &told = json["facts"] = Json::array();
    for (const auto &[name, value, shown, from] : thing.facts)
        told.push_back({{"fact", name}, {"value", value}, {"shown", shown}, {"from", from}});
    return json;
}

void print_facts(const View &view, const Told &thing, const TableOptions &options) {
    Table table{{"fact", "value", "from"}, {}};
    for (const auto &[name, value, shown, from] : thing.facts) {
        std::string rows;
        for (const auto &row : from) rows += (rows.empty() ? "" : ", ") + row;
        table.rows.push_back({name, value.is_null() ? Json() : Json(shown), from.empty() ? Json() : Json(rows)});
    }
    if (!options.are_given()) {
        print_table({columns_of(view), {thing.record}}, {});
        print("\n");
    }
    print_table(table, options);
}

// One with its facts; of several a table, in JSON their facts too.
void print_things(const View &view, const std::vector<Told> &things, const TableOptions &options) {
    if (options.format == Format::json) {
        Json all = Json::array();
        for (const Told &thing : things) all.push_back(told_json(view, thing));
        return print_line(dump(all));
    }
    if (things.size() == 1) return print_facts(view, things[0], options);
    Table table{columns_of(view), {}};
    for (const Told &thing : things) table.rows.push_back(thing.record);
    print_table(table, options);
    note(std::to_string(things.size()) + " " + std::string(view.name) + " are meant; name one of them");
}

std::vector<Told> tell(const View &view, const std::string &name, const std::vector<Condition> &conditions, bool all) {
    const CacheLock lock;
    const auto things = find_things(view, name, conditions);
    std::vector<Told> told;
    for (const auto &[record, object] : things) {
        const bool is_whole = all || things.size() == 1;
        told.push_back({record, is_whole ? facts_of(view, record, *object) : std::vector<Fact>()});
    }
    return told;
}

// Words with a condition narrow the choice, the others together are a name.
Exit show_things(Context &context, const View &view, const Command &command) {
    const std::string one(view.one);
    std::string name;
    std::vector<std::string> narrow;
    for (const auto &word : std::span(command.words).subspan(1)) {
        if (is_condition(word))
            narrow.push_back(word);
        else
            name += (name.empty() ? "" : " ") + word;
    }
    if (name.empty() && narrow.empty()) {
        throw Failure(exit_usage, "which " + one + "? By a name or number of it, or column=value; see show " +
                                      std::string(view.name) + " --raw");
    }
    const auto conditions = read_conditions(view, narrow);
    context.synchronised({}, command.settings);
    const auto things = tell(view, name, conditions, command.table.format == Format::json);
    if (things.empty()) {
        std::string wanted = name;
        for (const auto &word : narrow) wanted += (wanted.empty() ? "" : " ") + word;
        throw Failure(exit_no, "there is no " + one + " " + shown(wanted) + what_is_near(view, name));
    }
    print_things(view, things, command.table);
    return exit_yes;
}

}  // namespace

Candidates next_table(const Asked &asked) {
    Candidates candidates;
    if (asked.words.empty()) {
        for (const auto &name : view_names()) candidates.push_back({name, ""});
        return candidates;
    }
    const View &view = find_view(asked.words[0]);
    for (const auto &column : columns_of(view)) {
        candidates.push_back({column + "=", ""});
        if (const auto *type = names_in(view, column))
            for (const auto &name : value_names(*type)) candidates.push_back({column + "=" + name, ""});
    }
    if (asked.words[0] == view.name) return candidates;
    asked.context.synchronised({}, asked.settings);
    for (const auto &name : names_of_things(view))
        if (is_plain(name)) candidates.push_back({name, ""});
    return candidates;
}

// Behind the last comma of a list of columns.
Candidates next_column(const Asked &asked) {
    Candidates candidates;
    const std::string front = asked.begun.substr(0, asked.begun.rfind(',') + 1);
    for (const auto &column : columns_of(find_view(asked.words.empty() ? "system" : asked.words[0])))
        candidates.push_back({front + column, ""});
    return candidates;
}

Exit run_show(Context &context, const Command &command) {
    const std::string wanted = command.words.empty() ? "system" : command.words[0];
    const View &view = find_view(wanted);
    return wanted == view.name ? show_table(context, view, command) : show_things(context, view, command);
}

}  // namespace dmq
