// Every command and option of dmq, with its help: a new one is a row here.
#include <algorithm>

#include "dmq/command_line.h"

namespace dmq {

const char *const overview =
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
  dmq help watch                                       a command in detail

The store is that of --store, else of DMQ_STORE, else mem:, which lives as long as the process: fill it with --load.
Exit codes: 0 yes, 1 no or not found, 2 usage or bad input, 3 store not reachable, 4 time-out.
)";

namespace {

constexpr Option common[] = {
    {.name = "--store",
     .value = "URL",
     .what = "The store's URL: mem:, mem:NAME, redis://HOST:PORT, redis+unix:///PATH, "
             "redis-sentinel://HOST:PORT,../NAME",
     .target = in<&Command::settings, &Settings::store>,
     .next = next_store,
     .more =
         "The store; else that of `DMQ_STORE`, else `mem:`. `mem:` and `mem:NAME` are stores of this process and end "
         "with it: fill them with `--load` and keep them with `dmq shell`. `redis://HOST:PORT` and "
         "`redis+unix:///PATH` are a Redis server that many processes share; `redis-sentinel://HOST:PORT,../NAME` is "
         "whichever server these sentinels name the master. A user and password that the URL does not give are those "
         "of `TQ_STORE_USER` and `TQ_STORE_PASSWORD`. A password in the URL is taken out of the list of processes as "
         "soon as it is read, and is in no message.",
     .variable = "DMQ_STORE",
     .in_shell = false},
    {.name = "--load",
     .value = "FILE",
     .what = "Fill the store from this file first; may be repeated",
     .target = in<&Command::settings, &Settings::load>,
     .more = "Fill the store from this topology first; `-` is standard input. May be repeated.",
     .in_shell = false},
    {.name = "--attach",
     .value = "PROCESS",
     .what = "Show the cache of a running process: NAME, NAME.PID or PID in the folder, or its socket's path",
     .target = in<&Command::settings, &Settings::attach>,
     .next = next_process,
     .more =
         "Show the cache of a running process instead of one that follows the store: by its name, name and number "
         "(`cards.1712`), or number, in the folder of `--inspect`, or by the path of its socket. The process was "
         "started with `DM_CACHE_INSPECT`. What a query reads of the store is read of `--store`, when that is given; "
         "else it is not found.",
     .in_shell = false},
    {.name = "--inspect",
     .value = "FOLDER",
     .what = "The folder where processes let themselves be inspected",
     .target = in<&Command::settings, &Settings::inspect>,
     .more = "Where processes let themselves be inspected; else that of `DM_CACHE_INSPECT`.",
     .variable = "DM_CACHE_INSPECT",
     .in_shell = false},
    {.name = "--json",
     .what = "Answers as JSON",
     .target = in<&Command::settings, &Settings::json>,
     .more = "Answers as JSON, of one shape for each command; `watch` writes one object a line."},
    {.name = "--timeout",
     .value = "SECONDS",
     .what = "Seconds that all waits of a command may take together",
     .target = in<&Command::settings, &Settings::timeout>,
     .more = "How long all waits of a command may take together, the opening of the store included; 10 unless given. "
             "Reading a file is no wait."},
    {.name = "--log",
     .value = "LEVEL",
     .what = "Show the library's own log from this level: 0 all, 2 failures",
     .target = in<&Command::settings, &Settings::log>,
     .next = next_level,
     .more = "Show the library's own log from this level: 0 all, 1 notable events, 2 failures."},
};

// Of every command that prints a table.
constexpr Option no_headings = {
    .name = "--no-headings", .what = "Records only", .target = in<&Command::table, &TableOptions::no_headings>};
constexpr Option format = {.name = "--format",
                           .value = "FORMAT",
                           .what = "table, json or csv",
                           .target = in<&Command::format>,
                           .next = next_format,
                           .more = "`table`, `json` (the same as `--json`) or `csv` (RFC 4180)."};
constexpr Option columns_of_table = {.name = "--columns",
                                     .value = "COLUMN,..",
                                     .what = "Only these columns, in this order",
                                     .target = in<&Command::table, &TableOptions::columns>};
constexpr Option sort = {
    .name = "--sort",
    .value = "COLUMN,..",
    .what = "By these columns; -COLUMN: the greatest first",
    .target = in<&Command::table, &TableOptions::sort>,
    .more = "By these columns; `-COLUMN`: the greatest first. Numbers within texts count as numbers."};

constexpr Option table_options[] = {columns_of_table, sort, no_headings, format};

// Those that `show` knows are offered.
constexpr Option with_columns(Option option) {
    option.next = next_column;
    return option;
}

constexpr Option show_options[] = {
    with_columns(columns_of_table),
    with_columns(sort),
    no_headings,
    format,
    {.name = "--raw",
     .what = "Also the numbers inside: physical slots, nodes, identifiers, chip ports",
     .target = in<&Command::raw>},
};

constexpr Option call_options[] = {
    columns_of_table,
    sort,
    no_headings,
    format,
    {.name = "--list",
     .what = "Which queries there are, or those with a word in name or question",
     .target = in<&Command::list>},
};

constexpr Option watch_options[] = {
    {.name = "--for", .value = "SECONDS", .what = "End after so many seconds", .target = in<&Command::watch_for>},
    {.name = "--initial",
     .what = "Begin with the objects that are there",
     .target = in<&Command::watch, &WatchOptions::initial>},
    {.name = "--unchanged",
     .what = "Also objects that are written again as they were",
     .target = in<&Command::watch, &WatchOptions::unchanged>},
    {.name = "--date", .what = "Times with date and zone", .target = in<&Command::watch, &WatchOptions::date>},
};

constexpr Option panel_options[] = {
    {.name = "--once", .what = "Print the picture as text, once", .target = in<&Command::once>},
};

constexpr Option dry_run = {
    .name = "--dry-run", .what = "Only tell what would be done", .target = in<&Command::dry_run>};

constexpr Option condition = {
    .name = "--if",
    .value = "FIELD=VALUE",
    .what = "Only if the stored object has this value; may be repeated",
    .target = in<&Command::conditions>,
    .next = next_field,
    .more =
        "Only if the stored object has this value, also at the moment when it is written; else say what it has and end "
        "with 1. May be repeated."};

constexpr Option set_options[] = {
    dry_run,
    {.name = "--create", .what = "Also make objects that are not there yet", .target = in<&Command::create>},
    condition,
};

constexpr Option delete_options[] = {dry_run, condition};

constexpr Option edit_options[] = {
    dry_run,
    {.name = "--yes", .what = "Write without asking", .target = in<&Command::yes>},
};

constexpr Option wait_options[] = {
    {.name = "--gone", .what = "Wait until there is no such object", .target = in<&Command::gone>},
};

constexpr Option gen_options[] = {
    {.name = "--devices",
     .value = "N",
     .what = "Devices; more than one make a virtual unit",
     .target = in<&Command::gen, &GenOptions::devices>},
    {.name = "--boards",
     .value = "N",
     .what = "Main boards of a chassis",
     .target = in<&Command::gen, &GenOptions::boards>},
    {.name = "--cards",
     .value = "N",
     .what = "Line cards of a chassis",
     .target = in<&Command::gen, &GenOptions::cards>},
    {.name = "--ports",
     .value = "N",
     .what = "Ports of a line card, or of a box",
     .target = in<&Command::gen, &GenOptions::ports>},
    {.name = "--subcards",
     .value = "N",
     .what = "Sub-cards of the first line card, 4 ports each",
     .target = in<&Command::gen, &GenOptions::subcards>},
    {.name = "--fabrics",
     .value = "N",
     .what = "Fabric cards of a chassis",
     .target = in<&Command::gen, &GenOptions::fabrics>},
    {.name = "--box", .what = "Boxes instead of chassis", .target = in<&Command::gen, &GenOptions::box>},
    {.name = "--layout",
     .value = "FILE",
     .what = "A box with the ports of this file: lanes, panel port, speed in Mb/s",
     .target = in<&Command::gen, &GenOptions::layout>},
};

constexpr Option help_options[] = {
    {.name = "--man", .what = "", .target = in<&Command::manual>},
};

constexpr Words one_file = {.name = "FILE", .what = "A topology file; - is standard input", .least = 1, .most = 1};
constexpr Words kind_and_words = {
    .name = "WORDS", .what = "A kind by name or row number, then field=value..", .least = 1};
constexpr Words kinds = {.name = "KINDS", .what = "Kinds by name or row number; none: all"};
constexpr Words query = {.name = "WORDS", .what = "A query by its name, then its arguments"};

// A row a command, in the order of the overview.
constexpr Verb table[] = {
    {.name = "load",
     .what = "Put a topology into the store",
     .usage = "FILE",
     .examples = "  dmq --store mem:lab load examples/box.json\n",
     .words = one_file,
     .options = {},
     .run = run_load,
     .use = not_attached,
     .about = "Put a topology into the store. It is read and verified whole before anything is written."},
    {.name = "show",
     .what = "A table: system, devices, slots, cards, ports, roles or chips; or one device, card or port",
     .usage = "[TABLE] [COLUMN=VALUE,..]...\ndevice|card|port NAME",
     .examples =
         "  dmq --load examples/chassis.json show ports slot=1/2,1/3 link=down\n"
         "  dmq --load examples/chassis.json show ports 'speed>=10G' --sort -mbps,name --columns slot,name,mbps\n"
         "  dmq --load examples/chassis.json show cards role=master,slave\n"
         "  dmq --load examples/chassis.json show port 2/3/7     all that is known of it\n"
         "  dmq --load examples/chassis.json show port ifx=257\n"
         "  dmq --load examples/chassis.json show card 1/M1\n"
         "  dmq --load examples/box.json show system --json\n"
         "  dmq --load examples/chassis.json show slots --raw --format csv\n",
     .words = {.name = "TABLE",
               .what = "system, devices, slots, cards, ports, roles or chips, then column=value..; or device, card or "
                       "port, then its name"},
     .options = show_options,
     .run = run_show,
     .next = next_table,
     .about =
         "A table: `system`, `devices`, `slots`, `cards`, `ports`, `roles` or `chips`. Places are told as they are "
         "printed on the chassis. `COLUMN=A,B` keeps the records with one of these values; there are also `!=`, `<`, "
         "`<=`, `>` and `>=`. All that is known of one `device`, `card` or `port` is shown behind its name, number or "
         "place."},
    {.name = "get",
     .what = "Cached objects as JSON, as `load` takes it",
     .usage = "[KIND [FIELD=VALUE]...]",
     .examples = "  dmq --load examples/chassis.json get card_info slotid=30\n"
                 "  dmq --load examples/chassis.json get 17 is_online=true\n"
                 "  dmq --load examples/chassis.json get > copy.json\n",
     .words = {.name = "WORDS", .what = kind_and_words.what},
     .options = {},
     .run = run_get,
     .next = next_key,
     .about = "Cached objects as a topology, as `load` takes it; all kinds when none is named."},
    {.name = "call",
     .what = "Ask any query of ndm.h by its name",
     .usage = "QUERY [ARGUMENT]...\n--list [WORD]",
     .examples = "  dmq --load examples/chassis.json call ndm_get_master_slotid\n"
                 "  dmq --load examples/chassis.json call ndm_card_is_online 1 30 0\n"
                 "  dmq --load examples/chassis.json call ndm_get_role_by_node 1/30/0   a node: device/slot/sub-slot\n"
                 "  dmq --load examples/chassis.json call ndm_get_role_by_node 1/M1     the same, as show prints it\n"
                 "  dmq call --list master\n",
     .words = query,
     .options = call_options,
     .run = run_call,
     .next = next_query,
     .about =
         "Ask any query of the library by its name. A node can be written as device/slot/sub-slot, the identifier of a "
         "port as device/slot/logical-port; both, devices and slots also as `show` prints them."},
    {.name = "explain",
     .what = "What a query reads, what it finds, and why it does not answer",
     .usage = "QUERY [ARGUMENT]...",
     .examples = "  dmq --load examples/chassis.json explain ndm_get_global_port_by_ifx 0 63\n"
                 "  dmq --load examples/chassis.json explain ndm_card_is_online 1 9 0\n",
     .words = query,
     .options = {},
     .run = run_explain,
     .next = next_query,
     .about =
         "What `call` asks, with every read of the query and what it found, then where the answer comes from, or why "
         "there is none."},
    {.name = "watch",
     .what = "Follow changes, one line each",
     .usage = "[KIND]... [-- PROGRAM [ARGUMENT]...]",
     .examples = "  dmq watch card_info device_info\n  dmq watch --for 5 --json\n"
                 "  dmq watch card_info -- jq .key\n"
                 "  watch &                      in a shell: go on with other commands\n",
     .words = kinds,
     .options = watch_options,
     .run = run_watch,
     .next = next_kind,
     .use = not_attached | runs_program,
     .about =
         "A line for each change, until the time is up or SIGINT or SIGTERM comes. With a program: it runs for each "
         "change of an object, in order and one at a time, with the change on its standard input as `--json` prints "
         "it. One that fails is told, and the watch goes on."},
    {.name = "wait",
     .what = "Wait until an object has these values, or is there, or is gone",
     .usage = "KIND KEY=VALUE... [FIELD=VALUE]...\nKIND KEY=VALUE... --gone",
     .examples = "  wait card_info devid=1 slotid=30 sslotid=0 is_online=true --timeout 60\n"
                 "  wait card_info devid=1 slotid=30 sslotid=0 --gone\n",
     .words = kind_and_words,
     .options = wait_options,
     .run = run_wait,
     .next = next_assignment,
     .use = not_attached,
     .about =
         "Return as soon as the cached object has these values, or is there when none are named; 4 when the time of "
         "`--timeout` is over, with what it is instead."},
    {.name = "panel",
     .what = "The picture of the switch: slots, cards and ports, as they change",
     .usage = "",
     .examples = "  dmq --store redis://db panel\n  dmq --attach cards panel\n"
                 "  dmq --load examples/box.json panel --once\n",
     .words = {},
     .options = panel_options,
     .run = run_panel,
     .about =
         "The picture of the switch on a terminal: slots, cards and ports as they sit, and the latest changes. Arrows "
         "and Enter lead into a card and a port, `/` finds a port by any of its names, `q` leaves."},
    {.name = "sync",
     .what = "Row by row: subscribed, scanned, objects, time",
     .usage = "[KIND]...",
     .examples = "  dmq --load examples/chassis.json sync --timeout 2\n",
     .words = kinds,
     .options = table_options,
     .run = run_sync,
     .next = next_kind,
     .about = "Row by row: subscribed, scanned, objects, changes, milliseconds of the scan."},
    {.name = "set",
     .what = "Write objects: a file, or fields of one object",
     .usage = "FILE\nKIND KEY=VALUE... FIELD=VALUE...",
     .examples = "  set card_info devid=1 slotid=30 sslotid=0 is_online=false\n  set changes.json --dry-run\n"
                 "  set device_info devid=3 devname=switch-3 --create    an object that is not there yet\n"
                 "  set card_info devid=1 slotid=30 sslotid=0 is_online=false --if is_online=true\n",
     .words = kind_and_words,
     .options = set_options,
     .run = run_set,
     .next = next_assignment,
     .use = not_attached,
     .about =
         "Write the objects of a topology, or fields of one object, and tell what that changes. The whole key must be "
         "named, and be there already. What somebody else has changed since it was read is left alone."},
    {.name = "delete",
     .what = "Delete one object by its whole key",
     .usage = "KIND KEY=VALUE...",
     .examples = "  delete card_info devid=1 slotid=3 sslotid=0\n",
     .words = kind_and_words,
     .options = delete_options,
     .run = run_delete,
     .next = next_key,
     .use = not_attached},
    {.name = "edit",
     .what = "Change one object in an editor",
     .usage = "KIND KEY=VALUE...",
     .examples = "  edit card_info devid=1 slotid=3 sslotid=0\n  EDITOR=nano dmq edit dp_lib_grole\n",
     .words = kind_and_words,
     .options = edit_options,
     .run = run_edit,
     .next = next_key,
     .use = not_attached,
     .about = "Open one object as JSON in the editor of `$VISUAL` or `$EDITOR`, else `vi`, show what would change, "
              "ask, and write it as `set` "
              "does. Without a terminal it needs `--yes`. What is refused is offered again, with the reason; the key "
              "may not "
              "change."},
    {.name = "gen",
     .what = "Make a topology of any size",
     .usage = "",
     .examples = "  dmq gen > examples/chassis.json\n"
                 "  dmq gen --devices 5 --cards 20 --ports 100 --subcards 0 > 10000-ports.json\n"
                 "  dmq gen --devices 1 --layout examples/layouts/box-32x100g.tsv > examples/box.json\n",
     .words = {},
     .options = gen_options,
     .run = run_gen,
     .about = "Make a topology on standard output."},
    {.name = "shell",
     .what = "Many commands in one process; also: echo TEXT, trace on|off, help, exit",
     .usage = "[FILE]",
     .examples =
         "  dmq --load examples/chassis.json shell\n  echo 'get card_info' | dmq --load examples/box.json shell\n"
         "  dmq --load examples/chassis.json shell examples/tour.dmq\n",
     .words = {.name = "FILE", .what = "A file of commands; none: standard input", .most = 1},
     .options = {},
     .run = run_shell,
     .use = not_in_shell,
     .about = "Many commands in one process, one a line, from a file, a pipe or a terminal. Beside the commands: "
              "`watch` ... "
              "`&` goes on while others run, `echo TEXT`, `trace on`|`off`, `help`, `exit`."},
    {.name = "clients",
     .what = "Who is there: processes that let themselves be inspected, and clients of the store's server",
     .usage = "",
     .examples =
         "  dmq --inspect /run/dm clients\n  DM_CACHE_INSPECT=/run/dm DMQ_STORE=redis://db dmq clients --json\n",
     .words = {},
     .options = table_options,
     .run = run_clients,
     .about = "Who is there: the processes in the folder of `--inspect`, live or why not, and the clients of the "
              "server that "
              "`--store` names."},
    {.name = "verify",
     .what = "Is a live cache equal to its store? Tells what differs, and stays so",
     .usage = "[KIND]...",
     .examples = "  dmq --store redis://db verify\n"
                 "  dmq --store redis://db --attach cards verify vsd_port port_static\n",
     .words = kinds,
     .options = table_options,
     .run = run_verify,
     .next = next_kind,
     .about =
         "Is the live cache, or that of `--attach`, equal to the store, row by row and key by key? Both may change "
         "meanwhile: what is told differs, and goes on differing."},
    {.name = "kinds",
     .what = "Which kinds of objects there are, or the fields of one",
     .usage = "[KIND]",
     .examples = "  dmq kinds\n  dmq kinds card_info          fields, types, enumerations with their values\n"
                 "  dmq kinds dm_role_e          the names and numbers of an enumeration\n",
     .words = {.name = "KIND", .what = "A kind or an enumeration by its name; none: all kinds", .most = 1},
     .options = table_options,
     .run = run_kinds,
     .next = next_kind,
     .about = "Which kinds of objects there are, with row, database and key; or the fields of one, or the values of an "
              "enumeration."},
    {.name = "store",
     .what = "Compare cache and store; make an embedded store misbehave",
     .usage = "ACTION",
     .examples = "  store compare                is every row equal to the store?\n"
                 "  store disconnect             cut the cache off; store reconnect lets it in again\n"
                 "  store restart [empty]        another instance of the store, with or without its content\n"
                 "  store damage KIND key=value..  bytes that no longer are an object\n"
                 "  store lose N                 the next N confirmations to a cache that is not started yet\n",
     .words = {.name = "WORDS", .what = "An action, then its words", .least = 1},
     .options = table_options,
     .run = run_store,
     .next = next_action,
     .use = not_attached,
     .about = "`compare` compares cache and store row by row. `disconnect` cuts the cache off from an embedded store, "
              "`reconnect` lets it in again, `restart` [`empty`] starts another instance of the store. `damage KIND` "
              "`KEY=VALUE`... puts unreadable bytes in an object's place; `lose N` loses the next confirmations."},
    {.name = "help",
     .what = "These lines, or a command in detail",
     .usage = "[COMMAND]",
     .examples = "  dmq help watch\n",
     .words = {.name = "COMMAND", .what = "One of the commands", .most = 1},
     .options = help_options,
     .run = run_help,
     .next = next_command},
};

template <class Row> const Row *find_row(std::span<const Row> rows, const std::string &name) {
    const auto found = std::find_if(rows.begin(), rows.end(), [&](const Row &row) { return name == row.name; });
    return found == rows.end() ? nullptr : &*found;
}

}  // namespace

std::span<const Verb> verbs() {
    return table;
}

std::span<const Option> common_options() {
    return common;
}

const Verb *find_verb(const std::string &name, bool in_shell) {
    const Verb *verb = find_row(verbs(), name);
    return verb && in_shell && verb->use & not_in_shell ? nullptr : verb;
}

bool take(Line &line, const std::string &word, bool in_shell) {
    const std::string name = line.open ? line.open->name : word.substr(0, word.find('='));
    const bool is_option = line.open || word.starts_with("-");
    if (!line.open && word == "--" && line.verb && line.verb->use & runs_program) {
        line.program = true;
    } else if (is_option) {
        if (find_option(nullptr, name, in_shell)) line.options.push_back(word);
        const Option *option = line.open || name != word ? nullptr : find_option(line.verb, name, in_shell);
        line.open = option && option->value ? option : nullptr;
    } else if (line.verb) {
        line.words.push_back(word);
    } else {
        line.verb = find_verb(word, in_shell);
    }
    return line.verb || is_option;
}

const Option *find_option(const Verb *verb, const std::string &name, bool in_shell) {
    if (const Option *option = verb ? find_row(verb->options, name) : nullptr) return option;
    const Option *option = find_row(common_options(), name);
    return option && in_shell && !option->in_shell ? nullptr : option;
}

}  // namespace dmq
