// One object changed in a person's editor. What is saved becomes a change of the fields that differ, so what this schema
// does not know, and what JSON cannot carry, stays as it is.
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "dmq/edit.h"
#include "dmq/program.h"
#include "dmq/words.h"

namespace dmq {

namespace {

// A field a line.
std::string pretty(const Json &value, const std::string &indent) {
    const bool objects = value.is_array() && !value.empty() && value[0].is_object();
    if (value.empty() || !(value.is_object() || objects)) return dump(value);
    const std::string inner = "\n  " + indent;
    std::string text;
    for (const auto &[name, field] : value.items()) {
        text += (text.empty() ? "" : ",") + inner;
        text += objects ? dump(field) : dump(Json(name)) + ": " + pretty(field, indent + "  ");
    }
    return (objects ? "[" : "{") + text + "\n" + indent + (objects ? "]" : "}");
}

// A file that only its user can read, until it is forgotten.
class PrivateFile {
public:
    explicit PrivateFile(const std::string &text) {
        std::error_code error;
        path_ = std::filesystem::temp_directory_path(error) / "dmq-XXXXXX.json";
        if (error) throw Failure(exit_no, "TMPDIR names no folder for the file that is edited: " + error.message());
        const int fd = mkstemps(path_.data(), 5);
        if (fd < 0) throw Failure(exit_no, "cannot make " + path_ + ": " + std::strerror(errno));
        close(fd);
        std::ofstream(path_) << text;
    }
    PrivateFile(const PrivateFile &) = delete;
    ~PrivateFile() { unlink(path_.c_str()); }
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

std::string editor() {
    for (const char *name : {"VISUAL", "EDITOR"})
        if (const char *value = std::getenv(name); value && *value) return value;
    return "vi";
}

// An interrupt is the editor's while it runs: one that it does not end by does not end dmq either. What ends both comes
// behind the removal of the file.
std::string saved_by_editor(const std::string &text) {
    sigset_t ends = ending_signals(), interrupt;
    sigaddset(&ends, SIGHUP);
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    const SignalsHeld held(ends);
    const PrivateFile file(text);
    const pid_t pid = start_program({"sh", "-c", editor() + " \"$1\"", "sh", file.path()}, nullptr);
    await_program(pid);
    const std::string how = reap_program(pid);
    if (!how.empty()) throw Failure(exit_no, "the editor " + how + "; left alone");
    const timespec now{};
    sigtimedwait(&interrupt, nullptr, &now);
    return read_file(file.path());
}

// Lines for the person only.
std::string without_remarks(const std::string &text) {
    std::string kept;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
        if (text[std::min(text.find_first_not_of(" \t", begin), end)] != '#') kept.append(text, begin, end - begin);
        begin = end;
    }
    return kept;
}

Json parsed(const std::string &text) {
    Json value = read_json(text, "");
    if (!value.is_discarded()) return value;
    try {
        return Json::parse(text);
    } catch (const Json::exception &error) {
        const std::string what = error.what();
        throw Failure(exit_usage, "not JSON: " + what.substr(what.find(']') + 2));
    }
}

// Gives the object, whose JSON is `before`, the fields of `after`; what is left out or null gets its default.
void revise(ProtobufCMessage &object, const Json &before, const Json &after, std::vector<std::string> path) {
    if (!after.is_object()) throw Failure(exit_usage, "needs an object, not " + dump(after));
    path.emplace_back();
    for (const auto &[name, value] : after.items()) {
        path.back() = name;
        const Json old = before.value(name, Json());
        if (value == old) continue;
        if (value.is_object() && old.is_object())
            revise(object, old, value, path);
        else if (!value.is_null())
            assign(object, {{path, value}});
    }
    for (const auto &[name, old] : before.items()) {
        path.back() = name;
        if (!old.is_null() && after.value(name, Json()).is_null()) reset(object, path);
    }
}

// The object as the person wants it. What is refused is offered to a person again, unless it is saved as it was.
Message revised(const ProtobufCMessage &object, bool to_person) {
    const Json before = to_json(object, Fields::all);
    const std::string title = "# " + object_name(object) + ": lines with # are left out, nothing in the file is a no\n";
    std::string offered = pretty(before, "") + "\n", problem;
    while (true) {
        const std::string saved = without_remarks(saved_by_editor(title + problem + offered));
        if (saved.find_first_not_of(" \t\n") == std::string::npos)
            throw Failure(exit_no, "the file is empty; left alone");
        try {
            Message wanted = copy(object);
            revise(*wanted, before, parsed(saved), {});
            if (packed_key(*wanted) != packed_key(object)) throw Failure(exit_usage, "the key may not change");
            return wanted;
        } catch (const Failure &failure) {
            if (!to_person || saved == offered) throw;
            problem = std::string("# ") + failure.what() + "\n";
            offered = saved;
        }
    }
}

bool agreed() {
    std::cerr << "write it? [y/n] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "yes";
}

}  // namespace

Exit run_edit(Context &context, const Command &command) {
    const ObjectKind kind = find_kind(command.words[0]);
    const Message object = read_key(*kind.type, {command.words.begin() + 1, command.words.end()});
    const bool asks = !command.yes && !command.dry_run;
    const bool to_person = isatty(STDIN_FILENO) && isatty(STDERR_FILENO);
    if (asks && !to_person)
        throw Failure(exit_usage, "edit asks on a terminal before it writes; elsewhere it needs --yes");
    Session &session = context.open(command.settings);
    std::vector<Edit> edits;
    Edit &edit = edits.emplace_back(read_edit(session, kind.db, *object));
    if (edit.damaged) throw Failure(exit_no, object_name(*object) + " is damaged in the store; delete it");
    if (!edit.before) refuse_unknown(session, *object, "");
    edit.after = revised(*edit.before, to_person);
    const Json told = told_of(edit);
    if (asks && told["event"] != "unchanged") {
        print(told_text(edit, told, /*dry=*/true));
        if (!agreed()) throw Failure(exit_no, "left alone");
    }
    session.begin(command.settings.timeout);  // the person's time is no wait
    return carry_out(context, session, command, std::move(edits));
}

}  // namespace dmq
