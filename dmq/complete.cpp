// The answers to `dmq complete`. A shell waits for them with a person before it, so they end within a second, or the time
// that DMQ_COMPLETION_SECONDS gives: by a signal, whatever they wait for.
#include "dmq/complete.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "dmq/command_line.h"
#include "dmq/words.h"

namespace dmq {

namespace {

void add_options(Candidates &candidates, std::span<const Option> options, bool in_shell) {
    for (const Option &option : options)
        if (*option.what && (option.in_shell || !in_shell)) candidates.push_back({option.name, option.what});
}

// Does the line have this field=value, of whatever value, already?
bool is_named(const Line &line, const Candidate &candidate) {
    const size_t equals = candidate.word.find('=');
    return equals != std::string::npos && std::any_of(line.words.begin(), line.words.end(), [&](const auto &word) {
               return word.starts_with(candidate.word.substr(0, equals + 1));
           });
}

Candidates candidates_of(const Line &line, Context &context, const Settings &settings, const std::string &word) {
    const Asked asked{context, settings, line.words, word};
    const auto next = line.open ? line.open->next : line.verb ? line.verb->next : next_command;
    Candidates candidates;
    if (line.program) return candidates;
    if (!line.open && word.starts_with("-")) {
        if (line.verb) add_options(candidates, line.verb->options, context.in_shell);
        add_options(candidates, common_options(), context.in_shell);
        candidates.push_back({"--help", "What the command does, with examples"});
        if (!line.verb && !context.in_shell) candidates.push_back({"--version", "Which dmq this is"});
    } else if (next) {
        candidates = next(asked);
    }
    std::erase_if(candidates, [&](const Candidate &one) {
        return !one.word.starts_with(word) || (!line.open && is_named(line, one));
    });
    return candidates;
}

// For the last of the words; in a session, or in one of their own.
Candidates answer(std::vector<std::string> words, Context *shell, const Settings &defaults) {
    const std::string word = words.empty() ? "" : words.back();
    if (!words.empty()) words.pop_back();
    Line line;
    for (const auto &before : words)
        if (line.program || !take(line, before, shell != nullptr)) return {};
    if (line.open && !line.options.empty() && line.options.back() == line.open->name) line.options.pop_back();
    const Settings settings = parse_settings(line.options, defaults, shell != nullptr);
    Context own(settings);
    return candidates_of(line, shell ? *shell : own, settings, word);
}

unsigned seconds_to_wait() {
    const char *limit = std::getenv("DMQ_COMPLETION_SECONDS");
    return std::max(whole_number<unsigned>(limit ? limit : "").value_or(1), 1U);
}

Candidates files(const std::string &word) {
    Candidates found;
    const size_t name = word.find_last_of('/') + 1;
    std::error_code error;
    for (std::filesystem::directory_iterator file(name ? word.substr(0, name) : ".", error), end; !error && file != end;
         file.increment(error)) {
        const std::string path = word.substr(0, name) + file->path().filename().string();
        if (path.starts_with(word) && is_plain(path) && path[name] != '.')
            found.push_back({path + (file->is_directory(error) ? "/" : ""), ""});
    }
    std::sort(found.begin(), found.end(), [](const auto &one, const auto &other) { return one.word < other.word; });
    return found;
}

// field=value of an object's key.
void add_words(std::set<std::string> &words, const Json &key) {
    for (const auto &[field, value] : key.items()) {
        const std::string text = value.is_string() ? value.get<std::string>() : dump(value);
        if (is_plain(text)) words.insert(field + "=" + text);
    }
}

}  // namespace

bool is_plain(std::string_view text) {
    constexpr std::string_view marks = "_.:/+-@%,";
    return std::all_of(text.begin(), text.end(), [&](unsigned char c) {
        return std::isalnum(c) || marks.find(static_cast<char>(c)) != std::string_view::npos;
    });
}

Candidates next_command(const Asked &asked) {
    Candidates commands;
    for (const Verb &verb : verbs()) {
        if (asked.words.empty() && find_verb(verb.name, asked.context.in_shell))
            commands.push_back({verb.name, verb.what});
    }
    return commands;
}

Candidates next_store(const Asked &) {
    return {{"mem:", "the embedded store of this process"},
            {"redis://", "a Redis server, by host and port"},
            {"redis+unix:///", "a Redis server, by its unix socket"},
            {"redis-sentinel://", "the master of that name: HOST:PORT,../NAME of the sentinels"},
            {"redis-sentinel+unix:///", "the same by the sentinels' unix sockets"}};
}

Candidates next_process(const Asked &asked) {
    Candidates processes;
    for (const auto &one : inspected_in(asked.settings.inspect))
        processes.push_back({one.name + "." + std::to_string(one.pid), ""});
    return processes;
}

Candidates next_level(const Asked &) {
    return {{"0", "all"}, {"1", "notable events"}, {"2", "failures"}};
}

Candidates next_format(const Asked &) {
    Candidates formats;
    for (const auto &name : format_names()) formats.push_back({name, ""});
    return formats;
}

Candidates next_kind(const Asked &) {
    Candidates kinds;
    for (const ObjectKind &kind : cached_kinds()) {
        const std::string name = kind.type->name;
        kinds.push_back({name.substr(dm_schema_package_length(kind.type) + 1), "row " + std::to_string(kind.row)});
    }
    return kinds;
}

Candidates next_key(const Asked &asked) {
    if (asked.words.empty()) return next_kind(asked);
    const ObjectKind kind = find_cached_kind(asked.words[0]);
    const auto *key = key_field(*kind.type);
    if (!key) return {};
    const auto named = key_part(*kind.type, read_words(*kind.type, {asked.words.begin() + 1, asked.words.end()}));
    asked.context.live({kind}, asked.settings);
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
    const Candidates fields = next_field(asked);
    candidates.insert(candidates.end(), fields.begin(), fields.end());
    return candidates;
}

Candidates next_field(const Asked &asked) {
    Candidates candidates;
    if (asked.words.empty()) return candidates;
    const ObjectKind kind = find_cached_kind(asked.words[0]);
    for (const auto &field : fields_of(*kind.type))
        if (&field != key_field(*kind.type)) candidates.push_back({std::string(field.name) + "=", ""});
    return candidates;
}

Candidates complete_in_shell(const std::vector<std::string> &words, Context &context, Settings settings) {
    settings.timeout = seconds_to_wait();
    Candidates candidates;
    try {
        candidates = answer(words, &context, settings);
    } catch (const std::exception &) {
    }
    return candidates.empty() && words.size() > 1 ? files(words.back()) : candidates;
}

Exit complete(const std::vector<std::string> &words) {
    std::signal(SIGALRM, [](int) { _exit(exit_no); });
    alarm(seconds_to_wait());
    try {
        const Candidates candidates = answer(words, nullptr, {});
        std::string lines;
        for (const Candidate &one : candidates) lines += one.word + (one.what.empty() ? "" : "\t" + one.what) + "\n";
        print(lines);
        return candidates.empty() ? exit_no : exit_yes;
    } catch (const std::exception &) {
        return exit_no;
    }
}

}  // namespace dmq
