// Reading a command line, and the help that it asks for: the records of the commands handed to the library that knows how
// command lines are written. No other file knows that library.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>

#include "dmq/command_line.h"

namespace dmq {

namespace {

// Seconds that a wait may take; CLI::Range takes nan for a number within.
std::string check_seconds(const std::string &text) {
    double seconds = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error == std::errc() && end == text.data() + text.size() && seconds >= 0 && seconds <= 1e6) return "";
    return "needs seconds from 0 to 1000000, not " + text;
}

template <class T> void add_option(CLI::App &app, const Option &option, T &value) {
    CLI::Option *added = nullptr;
    if constexpr (std::is_same_v<T, bool>) {
        added = app.add_flag(option.name, value, option.what);
    } else {
        added = app.add_option(option.name, value, option.what)->type_name(option.value);
        if constexpr (std::is_arithmetic_v<T>) added->capture_default_str();
        if constexpr (std::is_same_v<T, double> || std::is_same_v<T, std::optional<double>>)
            added->check(check_seconds);
        if constexpr (std::is_same_v<T, std::vector<std::string>>) added->take_all()->expected(1);
    }
    if (option.variable) added->envname(option.variable);
    if (!*option.what) added->group("");
}

void add_options(CLI::App &app, std::span<const Option> options, Command &command, bool in_shell) {
    for (const Option &option : options) {
        if (in_shell && !option.in_shell) continue;
        std::visit([&](auto *target) { add_option(app, option, target(command)); }, option.target);
    }
}

void add_words(CLI::App &app, const Words &words, Command &command) {
    if (!words.name) return;
    CLI::Option *added = app.add_option(words.name, command.words, words.what)->required(words.least > 0);
    added->type_name("");
    if (words.most) added->expected(words.least, words.most);
}

class Help : public CLI::Formatter {
public:
    std::string make_usage(const CLI::App *app, std::string) const override {
        const Verb *verb = find_verb(app->get_name(), /*in_shell=*/false);
        std::string text;
        for (std::string_view rest = verb ? verb->usage : ""; !rest.empty();) {
            const size_t end = std::min(rest.find('\n'), rest.size());
            text += "\n  " + app->get_name() + " " + std::string(rest.substr(0, end));
            rest.remove_prefix(std::min(end + 1, rest.size()));
        }
        return text.empty() ? "" : "Usage:" + text + "\n";
    }
};

// What it parses goes into the command.
void describe(CLI::App &app, Command &command, bool in_shell) {
    app.formatter(std::make_shared<Help>());
    for (const Verb &verb : verbs()) {
        if (in_shell && verb.use & not_in_shell) continue;
        CLI::App *sub = app.add_subcommand(verb.name, verb.what)->fallthrough();
        add_words(*sub, verb.words, command);
        add_options(*sub, verb.options, command, in_shell);
        sub->callback([&command, &verb] { command.run = verb.run; });
        sub->footer("Options of every command: dmq --help");
    }
    app.require_subcommand(0, 1);  // a word that is also a command's name is a word
    add_options(app, common_options(), command, in_shell);
}

[[noreturn]] void refuse_verb(const std::string &word, bool in_shell) {
    std::vector<std::string> names;
    for (const Verb &known : verbs()) names.emplace_back(known.name);
    if (in_shell && word == "shell") throw Failure(exit_usage, "a shell runs no shell");
    throw Failure(exit_usage, "there is no command " + shown(word) + did_you_mean(word, names) + "; see dmq --help");
}

// The words in front of a program's.
std::vector<std::string> split_program(const std::vector<std::string> &words, bool in_shell,
                                       std::vector<std::string> &program) {
    Line line;
    auto next = words.begin();
    while (next != words.end() && !line.program && take(line, *next, in_shell)) ++next;
    if (!line.program) return words;
    program.assign(next, words.end());
    if (program.empty()) throw Failure(exit_usage, "say which program is to run behind --");
    return {words.begin(), next - 1};
}

void print_help(CLI::App &app, bool in_shell) {
    const auto asked = app.get_subcommands();
    const auto rest = app.remaining();
    if (asked.empty() && !rest.empty()) refuse_verb(rest[0], in_shell);
    if (asked.empty()) return print(app.help());
    const Verb &verb = *find_verb(asked[0]->get_name(), in_shell);
    print(std::string("Examples:\n") + verb.examples + "\n" + asked[0]->help());
}

// What is seen of another process is its cache; it is not followed, and its store is written by its own client.
void refuse_attached(const Command &command, const Verb &verb) {
    if (command.settings.attach.empty()) return;
    if (verb.use & not_attached)
        throw Failure(exit_usage, std::string(verb.name) + " is not for a process that dmq is attached to");
    if (!command.settings.load.empty())
        throw Failure(exit_usage, "--load fills a store, and --attach shows the cache of a process");
}

// --json is --format json; of the two --format says more.
void settle_format(Command &command) {
    if (command.format.empty() && command.settings.json) command.format = "json";
    if (command.format.empty()) return;
    const auto format = format_of(command.format);
    if (!format) throw Failure(exit_usage, no_such("there is no format", command.format, format_names()));
    command.table.format = *format;
    command.settings.json = format == Format::json;
}

}  // namespace

std::optional<Command> parse(const std::vector<std::string> &words, const Settings &defaults, bool in_shell) {
    Command command;
    command.settings = defaults;
    const auto before = split_program(words, in_shell, command.program);
    CLI::App app(overview, "dmq");
    describe(app, command, in_shell);
    app.allow_extras();
    if (!in_shell)
        app.set_version_flag("--version", version(), "Versions of dmq and of the library's interface, and the build");
    try {
        app.parse(std::vector<std::string>(before.rbegin(), before.rend()));
    } catch (const CLI::CallForHelp &) {
        print_help(app, in_shell);
        return std::nullopt;
    } catch (const CLI::CallForVersion &) {
        print(version());
        return std::nullopt;
    } catch (const CLI::ParseError &error) {
        throw Failure(exit_usage, error.what());
    }
    const auto asked = app.get_subcommands();
    const auto rest = app.remaining();
    if (!rest.empty() && asked.empty()) refuse_verb(rest[0], in_shell);
    if (!rest.empty())
        throw Failure(exit_usage, rest[0] + " is one word too many; see dmq " + asked[0]->get_name() + " --help");
    if (!command.run) throw Failure(exit_usage, "say what to do; see dmq --help");
    refuse_attached(command, *find_verb(asked[0]->get_name(), in_shell));
    settle_format(command);
    if (command.settings.log) g_dm_cache_level = g_ndm_lib_dbg_lvl = *command.settings.log;
    return command;
}

Settings parse_settings(const std::vector<std::string> &options, const Settings &defaults, bool in_shell) {
    Command command;
    command.settings = defaults;
    CLI::App app;
    add_options(app, common_options(), command, in_shell);
    try {
        app.parse(std::vector<std::string>(options.rbegin(), options.rend()));
    } catch (const CLI::ParseError &error) {
        throw Failure(exit_usage, error.what());
    }
    return command.settings;
}

Exit run_help(Context &context, const Command &command) {
    if (command.manual) {
        print(manual());
        return exit_yes;
    }
    std::vector<std::string> words = command.words;
    words.emplace_back("--help");
    parse(words, command.settings, context.in_shell);
    return exit_yes;
}

}  // namespace dmq
