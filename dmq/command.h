// A command as it was asked for, and the commands themselves. Each returns its exit code or throws a Failure.
#pragma once

#include "dmq/gen.h"
#include "dmq/output.h"
#include "dmq/session.h"

namespace dmq {

struct Command {
    Settings settings;
    std::vector<std::string> words;  // behind the command's name
    double watch_for = -1;           // seconds; negative: until it is ended
    bool background = false;
    bool list = false;
    bool raw = false;  // show: with the columns for those who know the numbers inside
    GenOptions gen;
};

// Names on standard error, once, the objects that the store could not hand to the cache.
void tell_damage(Session &session);

// What the commands of one process share. The session is opened by the first command that needs it.
class Context {
public:
    explicit Context(const Settings &settings) : settings_(settings) {}
    Session &open() { return session_ ? *session_ : session_.emplace(settings_); }

    // With the cache equal to the store: for these kinds, or, in a shell, for all.
    Session &synchronised(const std::vector<Kind> &kinds, const Settings &settings) {
        open().synchronise(in_shell ? std::vector<Kind>() : kinds, settings);
        tell_damage(*session_);
        return *session_;
    }

    bool in_shell = false;

private:
    Settings settings_;
    std::optional<Session> session_;
};

Exit run_load(Context &context, const Command &command);
Exit run_set(Context &context, const Command &command);
Exit run_delete(Context &context, const Command &command);
Exit run_get(Context &context, const Command &command);
Exit run_show(Context &context, const Command &command);
Exit run_call(Context &context, const Command &command);
Exit run_sync(Context &context, const Command &command);
Exit run_watch(Context &context, const Command &command);
Exit run_store(Context &context, const Command &command);
Exit run_gen(Context &context, const Command &command);
Exit run_shell(Context &context, const Command &command);

// What a command line asks for. Nothing: it asked for help, which is printed. Throws a Failure for what is not understood.
struct Request {
    Exit (*run)(Context &, const Command &);
    Command command;
};
std::optional<Request> parse(const std::vector<std::string> &words, const Settings &defaults, bool in_shell);

// Runs it and says on standard error, behind `place`, why it failed.
template <class Run> Exit reporting(const std::string &place, Run run) {
    try {
        return run();
    } catch (const Failure &failure) {
        note(place + failure.what());
        return failure.code;
    } catch (const std::exception &error) {
        note(place + "failed: " + error.what());
        return exit_no;
    }
}

}  // namespace dmq
