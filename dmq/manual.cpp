// The manual page, made of the records of the commands; what they do not say stands here.
#include <algorithm>
#include <cctype>

#include "dmq/command_line.h"

namespace dmq {

namespace {

constexpr const char *head = R"(.SH NAME
dmq \- look at, follow and change the device objects of a network switch
.SH SYNOPSIS
.B dmq
.RI [ option ]...
.I command
.RI [ word ...]
.SH DESCRIPTION
A modular switch keeps what it knows about its chassis, cards, ports and roles as objects in a central store.
.B dmq
shows what a client of the device cache,
.BR tq_dm_cache (3),
sees of them, follows their changes, and writes the store.
Answers go to standard output, messages and the library's own log to standard error.
.PP
.I Kinds
of objects are named in full
.RB ( p_dev.card_info ),
without the package
.RB ( card_info ),
or by row number
.RB ( 17 ).
A
.I field
is one of the object's key, else one of the object; a dot leads into a sub-message.
Numbers may be hexadecimal, enumerations are named, bytes are hex digits.
)";

constexpr const char *tail = R"(.SH EXIT STATUS
.TP
.B 0
Yes; done.
.TP
.B 1
No, or not found; also an answer from a store that is empty, or from a cache that lacks objects of the store.
.TP
.B 2
Usage, or bad input.
.TP
.B 3
The store, or the process that is to be shown, is not reachable.
.TP
.B 4
Time-out.
.PP
Of
.B shell
it is that of the first command that failed (2 to 4), else of the last answer.
.SH ENVIRONMENT
.TP
.B DMQ_STORE
The URL of the store when
.B \-\-store
is not given.
.TP
.B DM_CACHE_INSPECT
The folder of
.BR \-\-inspect .
A
.B dmq
that is not attached to a process lets itself be inspected there.
.TP
.B NO_COLOR
No colour, on a terminal too.
.TP
.B DMQ_COMPLETION_SECONDS
How long the completion of a shell may wait for the store; 1 unless given.
.SH EXAMPLES
.EX
dmq gen > chassis.json
dmq \-\-load chassis.json show cards
dmq \-\-load chassis.json get card_info slotid=30
dmq \-\-load chassis.json call ndm_get_role_by_node 1/30/0
dmq \-\-load chassis.json explain ndm_card_is_online 1 9 0
echo 'show ports slot=1/2' | dmq \-\-load chassis.json shell
.EE
.SH SEE ALSO
.BR tq_dm_cache (3)
)";

bool is_letter(char c) {
    return std::isalpha(static_cast<unsigned char>(c)) || c == '_';
}

// What is typed, bold; a word in capitals stands for something, unless it is a variable's name.
std::string typed(std::string_view text) {
    std::string page = "\\fB";
    while (!text.empty()) {
        const auto end = std::find_if_not(text.begin(), text.end(), is_letter);
        const auto length = static_cast<size_t>(end - text.begin());
        const std::string_view word = text.substr(0, length);
        const bool stands_for = length && std::none_of(word.begin(), word.end(), [](char c) {
                                    return c == '_' || std::islower(static_cast<unsigned char>(c));
                                });
        if (stands_for)
            page += "\\fI" + std::string(word) + "\\fB";
        else if (length)
            page += word;
        else
            page += text[0] == '-' ? "\\-" : std::string(1, text[0]);
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return page + "\\fR";
}

// Every sentence on a line of its own.
std::string paragraph(std::string_view text) {
    std::string page;
    bool within = false;
    while (!text.empty()) {
        const size_t quote = std::min(text.find('`'), text.size());
        page += within ? typed(text.substr(0, quote)) : std::string(text.substr(0, quote));
        within = !within;
        text.remove_prefix(std::min(quote + 1, text.size()));
    }
    for (size_t end = page.find(". "); end != std::string::npos; end = page.find(". ", end)) {
        if (end && page[end - 1] != '.')
            page[++end] = '\n';
        else
            ++end;
    }
    return page + "\n";
}

void add_options(std::string &page, std::span<const Option> options) {
    for (const Option &option : options) {
        if (!*option.what) continue;
        page += ".TP\n" + typed(option.value ? std::string(option.name) + " " + option.value : option.name) + "\n";
        page += paragraph(option.more ? option.more : std::string(option.what) + ".");
    }
}

void add_verb(std::string &page, const Verb &verb) {
    std::string_view usage = verb.usage;
    const char *mark = ".TP\n";
    do {
        const size_t end = std::min(usage.find('\n'), usage.size());
        page += mark + typed(std::string(verb.name) + " " + std::string(usage.substr(0, end))) + "\n";
        usage.remove_prefix(std::min(end + 1, usage.size()));
        mark = ".TQ\n";
    } while (!usage.empty());
    page += paragraph(verb.about ? verb.about : std::string(verb.what) + ".");
    if (verb.options.empty()) return;
    page += ".RS\n";
    add_options(page, verb.options);
    page += ".RE\n";
}

}  // namespace

std::string manual() {
    std::string page =
        ".\\\" Made by `dmq help --man` of what dmq/commands.cpp says: make docs.\n"
        ".TH DMQ 1 \"\" \"tq_dm_cache " DMQ_VERSION "\" \"User Commands\"\n";
    page += head;
    page += ".SH OPTIONS\n";
    add_options(page, common_options());
    page +=
        ".TP\n\\fB\\-h\\fR, \\fB\\-\\-help\\fR\nHelp with examples, of a command behind its name.\n"
        ".TP\n\\fB\\-\\-version\\fR\nVersions of dmq and of the library's interface, and the build.\n";
    page += ".SH COMMANDS\n";
    for (const Verb &verb : verbs()) add_verb(page, verb);
    return page + tail;
}

}  // namespace dmq
