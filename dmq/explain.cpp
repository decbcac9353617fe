// `explain`: a query's answer as `call` gets it, with every read that led there and the cause, in one sentence, of a no.
#include <algorithm>
#include <memory>

#include "dmq/command.h"
#include "dmq/reads.h"

namespace dmq {

namespace {

constexpr size_t read_width = 60;

std::string asked_text(const Read &read) {
    std::string text = (read.of_store() ? "store, " : "") + row_name(read.row);
    if (read.how == DM_CACHE_READ_TREE)
        return text + ", tree " + tree_name(read.row, read.tree) + ", key " + hex(read.tree_key);
    if (read.how == DM_CACHE_READ_WALK || read.how == DM_CACHE_READ_SCAN) return text + ", every object";
    return text + (read.key.is_null() ? "" : ", " + words_of_key(read.key));
}

std::string outcome(const Read &read) {
    if (read.how == DM_CACHE_READ_WALK) return counted(static_cast<size_t>(read.code), "object");
    if (read.of_store() && !asks_its_store()) return "not asked: no store is named";
    if (read.of_store() && read.code && !read.is_not_there()) return "code " + std::to_string(read.code);
    if (read.how == DM_CACHE_READ_SCAN) return "scanned";
    if (read.how == DM_CACHE_READ_TREE) return read.found ? read.found_name : "no such key";
    if (read.found) return "found";
    return read.of_store() ? "no such object" : "not cached";
}

// A query over all ports of a chip, or over a scan, asks the same of each.
bool is_more_of(const Read &read, const Read &before) {
    const bool of_one = read.how == DM_CACHE_READ_TREE || read.how == DM_CACHE_READ_KEY;
    return of_one && before.how == read.how && before.row == read.row && before.tree == read.tree &&
           before.found == read.found;
}

std::string read_line(const Read &read) {
    const std::string asked = "  " + asked_text(read) + " ";
    const size_t dots = asked.size() + 3 < read_width ? read_width - asked.size() : 3;
    return asked + std::string(dots, '.') + " " + outcome(read) + "\n";
}

// The end of the reads that are each more of the one so many places before it.
size_t alike_until(const std::vector<Read> &reads, size_t begin, size_t period) {
    size_t end = std::min(begin + period, reads.size());
    while (end < reads.size() && is_more_of(reads[end], reads[end - period])) ++end;
    return end;
}

std::string read_lines(const std::vector<Read> &reads) {
    constexpr size_t most_alike = 2;
    std::string text;
    for (size_t i = 0; i < reads.size();) {
        const size_t period = alike_until(reads, i, 1) > i + 1 ? 1 : 2;  // two kinds of read may take turns
        const size_t end = alike_until(reads, i, period);
        const bool is_run = end - i > most_alike * period;
        const size_t shown = is_run ? period : 1;
        for (size_t at = i; at < i + shown; ++at) text += read_line(reads[at]);
        if (is_run)
            text += "  and " + std::to_string(end - i - shown) + " more like " + (shown == 1 ? "it" : "them") + "\n";
        i = is_run ? end : i + 1;
    }
    return text;
}

std::string number_text(const Query &query, const std::string &name, bool has_outs, const Json &value) {
    const std::string meaning = name == "result" && failed(value) ? "" : meaning_of(query, name, has_outs, value);
    return cell_text(value) + (meaning.empty() ? "" : " (" + meaning + ")");
}

// An object is told by its key, a list by its length.
std::string value_text(const Query &query, const std::string &name, const Json &value) {
    if (value.is_object() && value.contains("index")) return words_of_key(value["index"]);
    if (value.is_array() && value.size() > 8) return std::to_string(value.size()) + " of them";
    return number_text(query, name, true, value);
}

std::string answer_text(const Question &question, int64_t result, const Json &values) {
    std::string text(question.query().name);
    for (const auto &[name, value] : question.asked().items()) text += " " + name + "=" + cell_text(value);
    text += " -> " + number_text(question.query(), "result", !values.empty(), result);
    for (const auto &[name, value] : values.items())
        if (!value.is_null()) text += ", " + name + ": " + value_text(question.query(), name, value);
    return text;
}

Json read_json_of(const Read &read) {
    static const char *const hows[] = {"key", "tree", "walk", "record", "object", "scan"};
    Json json = {{"row", read.row},
                 {"kind", row_name(read.row).substr(row_name(read.row).rfind(' ') + 1)},
                 {"how", hows[read.how]}};
    if (read.how == DM_CACHE_READ_TREE) json["tree"] = tree_name(read.row, read.tree);
    json["key"] = read.how == DM_CACHE_READ_TREE ? Json(read.tree_key) : read.key;
    json["found"] = read.found;
    if (read.how == DM_CACHE_READ_WALK) json["objects"] = read.code;
    if (read.of_store()) json["code"] = read.code;
    return json;
}

void print_road(const Question &question, const Road &road, const Json &values, const std::string &cause, bool json) {
    const bool answered = answers(question.query(), road.answer.result, values);
    if (!json) {
        return print(answer_text(question, road.answer.result, values) + "\n" + read_lines(road.reads) +
                     (answered ? "  " : "  because: ") + cause + "\n");
    }
    Json reads = Json::array();
    for (const Read &read : road.reads) reads.push_back(read_json_of(read));
    print_line(dump(Json{{"function", question.query().name},
                         {"arguments", question.asked()},
                         {"answered", answered},
                         {"result", road.answer.result},
                         {"out", values},
                         {"reads", reads},
                         {"because", cause}}));
}

// Nothing: it is live. A cache that is not live in time is explained as it is.
std::optional<Failure> wait_until_live(Context &context, const Command &command) {
    try {
        context.synchronised({}, command.settings);
        return std::nullopt;
    } catch (const Failure &failure) {
        if (failure.code != exit_timeout || left_behind) throw;
        if (!command.settings.attach.empty() && !context.open(command.settings).picture()) throw;  // it does not answer
        return failure;
    }
}

}  // namespace

Exit run_explain(Context &context, const Command &command) {
    if (command.words.empty()) throw Failure(exit_usage, "explain needs the name of a query; see dmq call --list");
    const Query &query = find_query(command.words[0], "explain");
    refuse_write(query, !command.settings.attach.empty(), "explain");
    std::optional<Failure> late;
    bool is_prepared = query.pure;
    const auto prepare = [&] {
        late = wait_until_live(context, command);
        is_prepared = true;
    };
    const auto words = with_numbers(query, command.words, prepare);
    const auto question = std::make_shared<Question>(query, words, "explain");
    if (!is_prepared) prepare();
    const auto ask = [question, words, quiet = !command.settings.log] {
        Road road = walk_road(*question, quiet);
        const Json values = question->values(road.answer.result);
        std::string cause = cause_of(*question, road, values, words);
        return std::tuple(std::move(road), values, std::move(cause));
    };
    const auto [road, values, cause] =
        query.pure ? ask() : context.open(command.settings).ask(std::string(query.name) + " to answer", ask);
    print_road(*question, road, values, cause, command.settings.json);
    if (late) throw Failure(*late);
    return answers(query, road.answer.result, values) ? exit_yes : exit_no;
}

}  // namespace dmq
