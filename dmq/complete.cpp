// The answers to `dmq complete`. A shell waits for them with a person before it, so they end within a second, or the time
// that DMQ_COMPLETION_SECONDS gives: by a signal, whatever they wait for.
#include "dmq/complete.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <set>

#include "dmq/command_line.h"
#include "dmq/words.h"

namespace dmq {

namespace {

constexpr struct {
    std::string_view option;
    const char *word;
    const char *what;
} option_values[] = {
    {"--store", "mem:", "the embedded store of this process"},
    {"--store", "redis://", "a Redis server, by host and port"},
    {"--store", "redis+unix:///", "a Redis server, by its unix socket"},
    {"--store", "redis-sentinel://", "the master of that name: HOST:PORT,../NAME of the sentinels"},
    {"--store", "redis-sentinel+unix:///", "the same by the sentinels' unix sockets"},
    {"--log", "0", "all"},
    {"--log", "1", "notable events"},
    {"--log", "2", "failures"},
};

// A line in front of the word that is asked for.
struct Line {
    const Verb *verb = nullptr;
    const CLI::Option *open = nullptr;  // its value is to come
    std::vector<std::string> options;   // those of all commands, with their values
    std::vector<std::string> words;
};

const CLI::Option *find_option(const CLI::App &app, const Verb *verb, const std::string &name) {
    const CLI::Option *found = app.get_option_no_throw(name);
    return found || !verb ? found : app.get_subcommand(verb->name)->get_option_no_throw(name);
}

void take(Line &line, const CLI::App &app, const std::string &word) {
    const std::string name = line.open ? line.open->get_name() : word.substr(0, word.find('='));
    const bool is_option = line.open || word.starts_with("-");
    if (is_option && app.get_option_no_throw(name)) line.options.push_back(word);
    if (is_option) {
        const auto *option = line.open || name != word ? nullptr : find_option(app, line.verb, name);
        line.open = option && option->get_items_expected_max() > 0 ? option : nullptr;
    } else if (line.verb) {
        line.words.push_back(word);
    } else if (line.verb = find_verb(word); !line.verb) {
        throw Failure(exit_usage, "no command " + word);
    }
}

void add_options(Candidates &candidates, const CLI::App &app) {
    for (const CLI::Option *option : app.get_options()) {
        for (const auto &name : option->get_lnames()) candidates.push_back({"--" + name, option->get_description()});
    }
}

void add_processes(Candidates &candidates, const Settings &settings) {
    for (const auto &one : inspected_in(settings.inspect))
        candidates.push_back({one.name + "." + std::to_string(one.pid), ""});
}

// Does the line have this field=value, of whatever value, already?
bool is_named(const Line &line, const Candidate &candidate) {
    const size_t equals = candidate.word.find('=');
    return equals != std::string::npos && std::any_of(line.words.begin(), line.words.end(), [&](const auto &word) {
               return word.starts_with(candidate.word.substr(0, equals + 1));
           });
}

Candidates candidates_of(const Line &line, CLI::App &app, const Settings &settings, const std::string &word) {
    Candidates candidates;
    if (line.open) {
        for (const auto &[option, value, what] : option_values) {
            if (option == line.open->get_name()) candidates.push_back({value, what});
        }
        if (line.open->get_name() == "--attach") add_processes(candidates, settings);
    } else if (word.starts_with("-")) {
        if (line.verb) add_options(candidates, *app.get_subcommand(line.verb->name));
        add_options(candidates, app);
    } else if (!line.verb) {
        for (const CLI::App *sub : app.get_subcommands({}))
            candidates.push_back({sub->get_name(), sub->get_description()});
    } else if (line.verb->next) {
        candidates = line.verb->next({settings, line.words});
    }
    std::erase_if(candidates, [&](const Candidate &one) { return !one.word.starts_with(word) || is_named(line, one); });
    return candidates;
}

Candidates answer(std::vector<std::string> words) {
    Command command;
    CLI::App app;
    describe(app, command, /*in_shell=*/false);
    const std::string word = words.empty() ? "" : words.back();
    if (!words.empty()) words.pop_back();
    Line line;
    for (const auto &before : words) take(line, app, before);
    if (line.open && !line.options.empty() && line.options.back() == line.open->get_name()) line.options.pop_back();
    app.parse(std::vector<std::string>(line.options.rbegin(), line.options.rend()));
    return candidates_of(line, app, command.settings, word);
}

void end_in_time() {
    const char *limit = std::getenv("DMQ_COMPLETION_SECONDS");
    const auto seconds = whole_number<unsigned>(limit ? limit : "");
    std::signal(SIGALRM, [](int) { _exit(exit_no); });
    alarm(std::max(seconds.value_or(1), 1U));
}

// A value is offered when no shell takes it apart and no terminal obeys it.
bool is_plain(std::string_view text) {
    constexpr std::string_view marks = "_.:/+-@%,";
    return std::all_of(text.begin(), text.end(), [&](unsigned char c) {
        return std::isalnum(c) || marks.find(static_cast<char>(c)) != std::string_view::npos;
    });
}

// field=value of an object's key.
void add_words(std::set<std::string> &words, const Json &key) {
    for (const auto &[field, value] : key.items()) {
        const std::string text = value.is_string() ? value.get<std::string>() : dump(value);
        if (is_plain(text)) words.insert(field + "=" + text);
    }
}

}  // namespace

Candidates next_kind(const Asked &) {
    Candidates kinds;
    for (const Kind &kind : cached_kinds()) {
        const std::string name = kind.type->name;
        kinds.push_back({name.substr(dm_schema_package_length(kind.type) + 1), "row " + std::to_string(kind.row)});
    }
    return kinds;
}

Candidates next_key(const Asked &asked) {
    if (asked.words.empty()) return next_kind(asked);
    const Kind kind = find_cached_kind(asked.words[0]);
    const auto *key = key_field(*kind.type);
    if (!key) return {};
    const auto named = key_part(*kind.type, read_words(*kind.type, {asked.words.begin() + 1, asked.words.end()}));
    Context context(asked.settings);
    context.synchronised({kind}, asked.settings);
    std::set<std::string> words;
    each_cached(kind.row, [&](const ProtobufCMessage &object) {
        const Json json = to_json(object, Fields::all);
        if (agrees(json, named)) add_words(words, json[key->name]);
    });
    Candidates candidates;
    for (const auto &word : words) candidates.push_back({word, ""});
    return candidates;
}

Candidates next_assignment(const Asked &asked) {
    Candidates candidates = next_key(asked);
    if (asked.words.empty()) return candidates;
    const Kind kind = find_cached_kind(asked.words[0]);
    for (const auto &field : fields_of(*kind.type)) {
        if (&field != key_field(*kind.type)) candidates.push_back({std::string(field.name) + "=", ""});
    }
    return candidates;
}

Exit complete(const std::vector<std::string> &words) {
    end_in_time();
    try {
        const Candidates candidates = answer(words);
        std::string lines;
        for (const Candidate &one : candidates) lines += one.word + (one.what.empty() ? "" : "\t" + one.what) + "\n";
        print(lines);
        return candidates.empty() ? exit_no : exit_yes;
    } catch (const std::exception &) {
        return exit_no;
    }
}

}  // namespace dmq
