// The command line: which commands there are, their options and their help. One table; the shell reads its lines with it,
// and completion asks it.
#include <algorithm>
#include <charconv>

#include "dmq/command_line.h"

namespace dmq {

namespace {

constexpr const char *overview =
    R"(dmq shows what a client of the device cache sees, follows its changes, and writes the store behind it.

Examples:
  dmq --load examples/chassis.json show cards          what sits in the slots
  dmq --load examples/chassis.json sync                row by row: subscribed, scanned, objects, time
  dmq --load examples/chassis.json get card_info slotid=30
  dmq --load examples/chassis.json call ndm_get_master_slotid
  dmq --load examples/chassis.json explain ndm_card_is_online 1 9 0    why is it a no?
  dmq --load examples/chassis.json shell               many commands on one store
  dmq --load examples/chassis.json shell examples/tour.dmq
  dmq --attach cards show ports                        what a running process has
  dmq gen --devices 4 --cards 8 > big.json             a topology of any size

The store is that of --store, else of DMQ_STORE, else mem:, which lives as long as the process: fill it with --load.
Exit codes: 0 yes, 1 no or not found, 2 usage or bad input, 3 store not reachable, 4 time-out.
)";

void file(CLI::App &app, Command &command) {
    app.add_option("FILE", command.words, "A topology file; - is standard input")->required()->expected(1);
}

void kind_and_words(CLI::App &app, Command &command) {
    app.add_option("WORDS", command.words, "A kind by name or row number, then field=value..")->required();
}

void deletion(CLI::App &app, Command &command) {
    kind_and_words(app, command);
    app.add_flag("--dry-run", command.dry_run, "Only tell what would be done");
}

void change(CLI::App &app, Command &command) {
    deletion(app, command);
    app.add_flag("--create", command.create, "Also make objects that are not there yet");
}

void nothing(CLI::App &, Command &) {}

void optional_words(CLI::App &app, Command &command) {
    app.add_option("WORDS", command.words, "A kind by name or row number, then field=value..");
}

void kinds(CLI::App &app, Command &command) {
    app.add_option("KINDS", command.words, "Kinds by name or row number; none: all");
}

// Seconds that a wait may take; CLI::Range takes nan for a number within.
std::string check_seconds(const std::string &text) {
    double seconds = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error == std::errc() && end == text.data() + text.size() && seconds >= 0 && seconds <= 1e6) return "";
    return "needs seconds from 0 to 1000000, not " + text;
}

void watching(CLI::App &app, Command &command) {
    kinds(app, command);
    app.add_option("--for", command.watch_for, "End after so many seconds")->check(check_seconds);
    app.add_flag("--initial", command.watch.initial, "Begin with the objects that are there");
    app.add_flag("--unchanged", command.watch.unchanged, "Also objects that are written again as they were");
    app.add_flag("--date", command.watch.date, "Times with date and zone");
}

void table(CLI::App &app, Command &command) {
    app.add_option("TABLE", command.words, "system, devices, slots, cards, ports, roles or chips; then column=value..");
    app.add_flag("--raw", command.raw, "Also the numbers inside: physical slots, nodes, identifiers, chip ports");
}

void query(CLI::App &app, Command &command) {
    app.add_option("WORDS", command.words, "A query by its name, then its arguments");
    app.add_flag("--list", command.list, "Which queries there are, or those with a word in name or question");
}

void question(CLI::App &app, Command &command) {
    app.add_option("WORDS", command.words, "A query by its name, then its arguments");
}

void script(CLI::App &app, Command &command) {
    app.add_option("FILE", command.words, "A file of commands; none: standard input")->expected(0, 1);
}

void generator(CLI::App &app, Command &command) {
    GenOptions &gen = command.gen;
    app.add_option("--devices", gen.devices, "Devices; more than one make a virtual unit")->capture_default_str();
    app.add_option("--boards", gen.boards, "Main boards of a chassis")->capture_default_str();
    app.add_option("--cards", gen.cards, "Line cards of a chassis")->capture_default_str();
    app.add_option("--ports", gen.ports, "Ports of a line card, or of a box")->capture_default_str();
    app.add_option("--subcards", gen.subcards, "Sub-cards of the first line card, 4 ports each")->capture_default_str();
    app.add_option("--fabrics", gen.fabrics, "Fabric cards of a chassis")->capture_default_str();
    app.add_flag("--box", gen.box, "Boxes instead of chassis");
    app.add_option("--layout", gen.layout, "A box with the ports of this file: lanes, panel port, speed in Mb/s");
}

constexpr Verb verbs[] = {
    {"load", "Put a topology into the store", "  dmq --store mem:lab load examples/box.json\n", file, run_load,
     nullptr},
    {"show", "A table: system, devices, slots, cards, ports, roles or chips",
     "  dmq --load examples/chassis.json show ports slot=1/2\n  dmq --load examples/box.json show system --json\n"
     "  dmq --load examples/chassis.json show slots --raw\n",
     table, run_show, next_table},
    {"get", "Cached objects as JSON, as `load` takes it",
     "  dmq --load examples/chassis.json get card_info slotid=30\n"
     "  dmq --load examples/chassis.json get 17 is_online=true\n"
     "  dmq --load examples/chassis.json get > copy.json\n",
     optional_words, run_get, next_key},
    {"call", "Ask any query of ndm.h by its name",
     "  dmq --load examples/chassis.json call ndm_get_master_slotid\n"
     "  dmq --load examples/chassis.json call ndm_card_is_online 1 30 0\n"
     "  dmq --load examples/chassis.json call ndm_get_role_by_node 1/30/0   a node: device/slot/sub-slot\n"
     "  dmq call --list master\n",
     query, run_call, next_query},
    {"explain", "What a query reads, what it finds, and why it does not answer",
     "  dmq --load examples/chassis.json explain ndm_get_global_port_by_ifx 0 63\n"
     "  dmq --load examples/chassis.json explain ndm_card_is_online 1 9 0\n",
     question, run_explain, next_query},
    {"watch", "Follow changes, one line each",
     "  dmq watch card_info device_info\n  dmq watch --for 5 --json\n"
     "  watch &                      in a shell: go on with other commands\n",
     watching, run_watch, next_kind},
    {"sync", "Row by row: subscribed, scanned, objects, time", "  dmq --load examples/chassis.json sync --timeout 2\n",
     kinds, run_sync, next_kind},
    {"set", "Write objects: a file, or fields of one object",
     "  set card_info devid=1 slotid=30 sslotid=0 is_online=false\n  set changes.json --dry-run\n"
     "  set device_info devid=3 devname=switch-3 --create    an object that is not there yet\n",
     change, run_set, next_assignment},
    {"delete", "Delete one object by its whole key", "  delete card_info devid=1 slotid=3 sslotid=0\n", deletion,
     run_delete, next_key},
    {"gen", "Make a topology of any size",
     "  dmq gen > examples/chassis.json\n  dmq gen --devices 5 --cards 20 --ports 100 --subcards 0 > 10000-ports.json\n"
     "  dmq gen --devices 1 --layout examples/layouts/box-32x100g.tsv > examples/box.json\n",
     generator, run_gen, nullptr},
    {"shell", "Many commands in one process; also: echo TEXT, trace on|off, help, exit",
     "  dmq --load examples/chassis.json shell\n  echo 'get card_info' | dmq --load examples/box.json shell\n"
     "  dmq --load examples/chassis.json shell examples/tour.dmq\n",
     script, run_shell, nullptr},
    {"clients", "Who is there: processes that let themselves be inspected, and clients of the store's server",
     "  dmq --inspect /run/dm clients\n  DM_CACHE_INSPECT=/run/dm DMQ_STORE=redis://db dmq clients --json\n", nothing,
     run_clients, nullptr},
    {"verify", "Is a live cache equal to its store? Tells what differs, and stays so",
     "  dmq --store redis://db verify\n  dmq --store redis://db --attach cards verify vsd_port port_static\n", kinds,
     run_verify, next_kind},
    {"store", "Compare cache and store; make an embedded store misbehave",
     "  store compare                is every row equal to the store?\n"
     "  store disconnect             cut the cache off; store reconnect lets it in again\n"
     "  store restart [empty]        another instance of the store, with or without its content\n"
     "  store damage KIND key=value..  bytes that no longer are an object\n"
     "  store lose N                 the next N confirmations to a cache that is not started yet\n",
     kind_and_words, run_store, next_action},
};

// The usage line names words that the examples show better.
class Help : public CLI::Formatter {
public:
    std::string make_usage(const CLI::App *, std::string) const override { return ""; }
};

void common_options(CLI::App &app, Settings &settings, bool in_shell) {
    if (!in_shell) {
        app.add_option("--store", settings.store,
                       "The store's URL: mem:, mem:NAME, redis://HOST:PORT, redis+unix:///PATH, "
                       "redis-sentinel://HOST:PORT,../NAME")
            ->envname("DMQ_STORE");
        app.add_option(
            "--attach", settings.attach,
            "Show the cache of a running process: NAME, NAME.PID or PID in the folder, or its socket's path");
        app.add_option("--inspect", settings.inspect, "The folder where processes let themselves be inspected")
            ->envname("DM_CACHE_INSPECT");
        app.add_option("--load", settings.load, "Fill the store from this file first; may be repeated")
            ->take_all()
            ->expected(1);
    }
    app.add_flag("--json", settings.json, "Answers as JSON");
    app.add_option("--timeout", settings.timeout, "Seconds that all waits of a command may take together")
        ->capture_default_str()
        ->check(check_seconds);
    app.add_option("--log", settings.log, "Show the library's own log from this level: 0 all, 2 failures");
}

[[noreturn]] void refuse_rest(const std::vector<std::string> &rest, const CLI::App *verb, bool in_shell) {
    if (verb) throw Failure(exit_usage, rest[0] + " is one word too many; see dmq " + verb->get_name() + " --help");
    std::vector<std::string> names;
    for (const Verb &known : verbs) names.emplace_back(known.name);
    if (in_shell && rest[0] == "shell") throw Failure(exit_usage, "a shell runs no shell");
    throw Failure(exit_usage,
                  "there is no command " + shown(rest[0]) + did_you_mean(rest[0], names) + "; see dmq --help");
}

// What is seen of another process is its cache; it is not followed, and its store is written by its own client.
void refuse_attached(const Command &command) {
    const auto verb =
        std::find_if(std::begin(verbs), std::end(verbs), [&](const Verb &v) { return v.run == command.run; });
    constexpr Exit (*own[])(Context &, const Command &) = {run_load, run_set, run_delete, run_watch, run_store};
    if (command.settings.attach.empty()) return;
    if (std::find(std::begin(own), std::end(own), command.run) != std::end(own))
        throw Failure(exit_usage, std::string(verb->name) + " is not for a process that dmq is attached to");
    if (!command.settings.load.empty())
        throw Failure(exit_usage, "--load fills a store, and --attach shows the cache of a process");
}

}  // namespace

const Verb *find_verb(const std::string &name) {
    const auto *found = std::find_if(std::begin(verbs), std::end(verbs), [&](const Verb &v) { return name == v.name; });
    return found == std::end(verbs) ? nullptr : found;
}

void describe(CLI::App &app, Command &command, bool in_shell) {
    app.formatter(std::make_shared<Help>());
    for (const Verb &verb : verbs) {
        if (in_shell && verb.run == run_shell) continue;
        CLI::App *sub = app.add_subcommand(verb.name, verb.what)->fallthrough();
        verb.options(*sub, command);
        sub->callback([&command, &verb] { command.run = verb.run; });
        sub->footer(std::string("Examples:\n") + verb.examples);
    }
    common_options(app, command.settings, in_shell);
}

std::optional<Command> parse(const std::vector<std::string> &words, const Settings &defaults, bool in_shell) {
    Command command;
    command.settings = defaults;
    CLI::App app(overview, "dmq");
    describe(app, command, in_shell);
    app.allow_extras();
    try {
        app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
    } catch (const CLI::CallForHelp &) {
        const auto asked = app.get_subcommands();
        print(asked.empty() ? app.help() : asked[0]->get_footer() + "\n" + asked[0]->help());
        return std::nullopt;
    } catch (const CLI::ParseError &error) {
        throw Failure(exit_usage, error.what());
    }
    const auto asked = app.get_subcommands();
    if (const auto rest = app.remaining(); !rest.empty())
        refuse_rest(rest, asked.empty() ? nullptr : asked[0], in_shell);
    if (!command.run) throw Failure(exit_usage, "say what to do; see dmq --help");
    refuse_attached(command);
    if (command.settings.log) g_dm_cache_level = g_ndm_lib_dbg_lvl = *command.settings.log;
    return command;
}

}  // namespace dmq
