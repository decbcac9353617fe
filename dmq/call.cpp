// `call`: any public query by its name, its answer with the names and the meaning of what it wrote. Each query takes the cache
// lock as its header says.
#include <memory>

#include "dmq/complete.h"
#include "dmq/names.h"
#include "dmq/question.h"
#include "dmq/things.h"
#include "tq_dm_cache/ndm.h"

namespace dmq {

namespace {

void print_values(const Query &query, int64_t result, const Json &values, const TableOptions &options) {
    Table table{{"name", "value"}, {}};
    const auto add = [&](const std::string &name, const Json &value) {
        const std::string meaning = meaning_of(query, name, !values.empty(), value);
        table.rows.push_back({name, meaning.empty() ? value : Json(dump(value) + " (" + meaning + ")")});
    };
    add("result", result);
    for (const auto &[name, value] : values.items()) {
        const bool one_a_line = value.is_array() && (is_node(name) || (!value.empty() && value[0].is_object()));
        if (one_a_line) {
            for (const Json &element : value) add(name, element);
        } else if (!value.is_null()) {
            add(name, value);
        }
    }
    print_table(table, options);
}

void print_json(const Query &query, int64_t result, const Json &values) {
    Json meaning = {{"result", meaning_of(query, "result", !values.empty(), result)}};
    for (const auto &[name, value] : values.items()) {
        Json &texts = meaning[name] = meaning_of(query, name, true, value);
        if (!value.is_array()) continue;
        texts = Json::array();
        for (const Json &element : value) texts.push_back(meaning_of(query, name, true, element));
    }
    print_line(dump(Json{{"function", query.name},
                         {"answered", answers(query, result, values)},
                         {"result", result},
                         {"out", values},
                         {"meaning", meaning}}));
}

std::string explaining(const std::vector<std::string> &words) {
    std::string line = "explain";
    for (const auto &word : words) line += " " + shown(word);
    return line;
}

Exit list_queries(const std::vector<std::string> &words, const TableOptions &options) {
    Table table{{"function", "header", "prototype", "question", "callable"}, {}};
    std::string lines;
    for (const Query &query : queries) {
        const std::string text = std::string(query.name) + " " + std::string(query.question);
        if (!words.empty() && text.find(words[0]) == std::string::npos) continue;
        const bool callable = query.callable.call;
        table.rows.push_back({query.name, query.header, query.prototype, query.question, callable});
        lines += std::string(query.prototype) + "\n    " + std::string(query.question) + "\n";
        if (!callable) lines += "    Not by call: it takes what only a program has.\n";
    }
    if (options.are_given())
        print_table(table, options);
    else
        print(lines);
    return table.rows.empty() ? exit_no : exit_yes;
}

// The names that stand for its number.
Candidates next_argument(const Asked &asked) {
    const Query &query = find_query(asked.words[0], "call");
    const auto arguments = asked_arguments(query);
    if (asked.words.size() > arguments.size()) return {};
    const std::string_view argument = arguments[asked.words.size() - 1];
    const auto *type = enumeration_of(query, argument);
    if (!type && !is_number_of_thing(argument)) return {};
    std::vector<std::string> names;
    if (type) {
        names = value_names(*type);
    } else {
        asked.context.synchronised({}, asked.settings);
        names = names_for(argument);
    }
    Candidates candidates;
    for (const auto &name : names)
        if (is_plain(name)) candidates.push_back({name, ""});
    return candidates;
}

}  // namespace

Candidates next_query(const Asked &asked) {
    Candidates candidates;
    if (!asked.words.empty()) return next_argument(asked);
    for (const Query &query : queries)
        if (query.callable.call) candidates.push_back({std::string(query.name), std::string(query.question)});
    return candidates;
}

Exit run_call(Context &context, const Command &command) {
    if (command.list) return list_queries(command.words, command.table);
    if (command.words.empty()) throw Failure(exit_usage, "call needs the name of a query; see dmq call --list");
    const Query &query = find_query(command.words[0], "call");
    refuse_write(query, !command.settings.attach.empty(), "call");
    Session *session = nullptr;
    const auto prepare = [&] { session = &context.synchronised({}, command.settings); };
    const auto words = with_numbers(query, command.words, prepare);
    const auto question = std::make_shared<Question>(query, words, "call");
    const auto ask = [question] { return question->ask(); };
    if (!query.pure && !session) prepare();
    const auto [result, lacked_memory] = query.pure ? ask() : session->ask(std::string(query.name) + " to answer", ask);
    const Json values = question->values(result);
    if (command.settings.json)
        print_json(query, result, values);
    else
        print_values(query, result, values, command.table);
    if (lacked_memory) throw Failure(exit_no, std::string(query.name) + ": not enough memory");
    if (failed(result)) note(explaining(words) + " tells why");
    return answers(query, result, values) ? exit_yes : exit_no;
}

}  // namespace dmq
