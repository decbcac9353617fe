// A command as it was asked for, and the commands themselves. Each returns its exit code or throws a Failure.
#pragma once

#include "dmq/gen.h"
#include "dmq/output.h"
#include "dmq/session.h"
#include "dmq/store.h"
#include "dmq/table.h"
#include "dmq/watch.h"

namespace dmq {

class Context;

// Words and options, read and verified; nothing has been asked of a store yet.
struct Command {
    Exit (*run)(Context &, const Command &) = nullptr;
    Settings settings;
    std::vector<std::string> words;   // behind the command's name
    std::optional<double> watch_for;  // seconds; none: until it is ended
    TableOptions table;
    std::string format;  // of the table, as it was typed; empty: not named
    WatchOptions watch;
    bool background = false;
    bool list = false;
    bool raw = false;                     // show: with the columns for those who know the numbers inside
    bool create = false;                  // set: also what is not there yet
    bool dry_run = false;                 // set, delete, edit: only tell
    bool yes = false;                     // edit: do not ask
    bool gone = false;                    // wait: for its absence
    std::vector<std::string> conditions;  // set, delete: field=value that the stored object must have
    std::vector<std::string> program;     // watch: what runs for each change, and its arguments
    bool manual = false;                  // help: the manual page
    bool once = false;                    // panel: the picture as text, once
    GenOptions gen;
};

// What the commands of one process share. The session is opened by the first command that needs it.
class Context {
public:
    explicit Context(const Settings &settings) : settings_(settings) {}

    // Once a command, whose time begins.
    Session &open(const Settings &settings) {
        if (!session_) return session_.emplace(settings_);
        session_->begin(settings.timeout);
        return *session_;
    }

    // The same with the cache equal to the store: for these kinds, or, in a shell, for all.
    Session &live(const std::vector<ObjectKind> &kinds, const Settings &settings) {
        open(settings).synchronise(in_shell ? std::vector<ObjectKind>() : kinds);
        return *session_;
    }

    // The same, and tells on standard error what the cache lacks.
    Session &synchronised(const std::vector<ObjectKind> &kinds, const Settings &settings) {
        live(kinds, settings);
        doubtful = !is_whole(*session_);
        return *session_;
    }

    bool in_shell = false;
    bool doubtful = false;  // the command answers from a cache that lacks what it should have, so the answer is no yes

private:
    Settings settings_;
    std::optional<Session> session_;
};

Exit run_load(Context &context, const Command &command);
Exit run_set(Context &context, const Command &command);
Exit run_delete(Context &context, const Command &command);
Exit run_edit(Context &context, const Command &command);
Exit run_get(Context &context, const Command &command);
Exit run_show(Context &context, const Command &command);
Exit run_call(Context &context, const Command &command);
Exit run_explain(Context &context, const Command &command);
Exit run_sync(Context &context, const Command &command);
Exit run_watch(Context &context, const Command &command);
Exit run_wait(Context &context, const Command &command);
Exit run_store(Context &context, const Command &command);
Exit run_clients(Context &context, const Command &command);
Exit run_verify(Context &context, const Command &command);
Exit run_panel(Context &context, const Command &command);
Exit run_gen(Context &context, const Command &command);
Exit run_kinds(Context &context, const Command &command);
Exit run_shell(Context &context, const Command &command);
Exit run_help(Context &context, const Command &command);

// Nothing: the command line asked for help, which is printed. Throws a Failure for what is not understood.
std::optional<Command> parse(const std::vector<std::string> &words, const Settings &defaults, bool in_shell);

// What the options that every command has say, when there are no others.
Settings parse_settings(const std::vector<std::string> &options, const Settings &defaults, bool in_shell);

inline Exit run(Context &context, const Command &command) {
    context.doubtful = false;
    const Exit answer = command.run(context, command);
    return answer == exit_yes && context.doubtful ? exit_no : answer;
}

// Does the work and says on standard error why it failed, behind the line of a script that asked for it.
template <class Work> Exit reporting(const std::string &line, Work work) {
    try {
        return work();
    } catch (const Failure &failure) {
        note(line + failure.what());
        return failure.code;
    } catch (const std::exception &error) {
        note(line + "failed: " + error.what());
        return exit_no;
    }
}

}  // namespace dmq
