// Starting and ending other programs. A text is read from a file in memory, so a program that does not read it blocks nobody
// and breaks no pipe.
#include "dmq/program.h"

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "dmq/deadline.h"
#include "dmq/output.h"

namespace dmq {

namespace {

// The text to be read from its beginning; -1: no memory or descriptor.
int file_of(const std::string &text) {
    const int file = memfd_create("input", MFD_CLOEXEC);
    for (size_t done = 0; file >= 0 && done < text.size();) {
        const ssize_t written = write(file, text.data() + done, text.size() - done);
        if (written < 0) {
            close(file);
            return -1;
        }
        done += static_cast<size_t>(written);
    }
    if (file >= 0) lseek(file, 0, SEEK_SET);
    return file;
}

// With the signals that dmq keeps to itself as any program finds them.
int spawn(pid_t &pid, const std::vector<std::string> &words, int input) {
    std::vector<char *> arguments;
    for (const auto &word : words) arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (input >= 0) posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, answers_descriptor(), STDOUT_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int error = posix_spawnp(&pid, arguments[0], &actions, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

}  // namespace

pid_t start_program(const std::vector<std::string> &words, const std::string *input) {
    const int file = input ? file_of(*input) : -1;
    pid_t pid = 0;
    const int error = input && file < 0 ? ENOMEM : spawn(pid, words, file);
    if (file >= 0) close(file);
    if (error) throw Failure(exit_no, "cannot run " + shown(words[0]) + ": " + std::strerror(error));
    return pid;
}

void await_program(pid_t pid) {
    siginfo_t about{};
    while (waitid(P_PID, static_cast<id_t>(pid), &about, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
    }
}

std::string reap_program(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status)) return "was ended by signal " + std::to_string(WTERMSIG(status));
    return WEXITSTATUS(status) ? "ended with " + std::to_string(WEXITSTATUS(status)) : "";
}

ProgramQueue::ProgramQueue(std::vector<std::string> words) : words_(std::move(words)) {
    const SignalsHeld held;
    thread_ = std::thread([this] { run(); });
}

ProgramQueue::~ProgramQueue() {
    {
        const std::lock_guard lock(guard_);
        ended_ = true;
        changed_.notify_all();
    }
    thread_.join();
}

void ProgramQueue::drop() {
    const std::lock_guard lock(guard_);
    dropped_ = true;
    waiting_.clear();
    if (running_) kill(running_, SIGTERM);
}

void ProgramQueue::add(std::string input) {
    const std::lock_guard lock(guard_);
    if (!dropped_) waiting_.push_back(std::move(input));
    changed_.notify_all();
}

void ProgramQueue::run() {
    std::unique_lock lock(guard_);
    while (true) {
        changed_.wait(lock, [this] { return ended_ || !waiting_.empty(); });
        if (waiting_.empty()) return;
        const std::string input = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        run_one(input);
        lock.lock();
    }
}

// Whoever drops what waits finds the number of a program that is not reaped yet.
void ProgramQueue::run_one(const std::string &input) {
    std::string how;
    try {
        const pid_t pid = start_program(words_, &input);
        {
            const std::lock_guard lock(guard_);
            running_ = pid;
            if (dropped_) kill(pid, SIGTERM);
        }
        await_program(pid);
        const std::lock_guard lock(guard_);
        running_ = 0;
        how = reap_program(pid);
        if (how.empty() || dropped_) return;
        how = shown(words_[0]) + " " + how;
    } catch (const Failure &failure) {
        how = failure.what();
    }
    note(how + "; it was to read " + shown(input.substr(0, input.find('\n'))));
}

}  // namespace dmq
