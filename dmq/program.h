// Other programs that dmq runs: an editor, or what a watch has for each change. They get standard output and error of dmq,
// a text to read, and none of its other descriptors.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace dmq {

// A program by its path or name, and its arguments. `input` is what it reads; null: standard input of dmq. Throws a Failure
// when it cannot be started.
pid_t start_program(const std::vector<std::string> &words, const std::string *input);

// Waits until it has ended; its number stays its own until it is reaped.
void await_program(pid_t pid);

// How it ended: "ended with 3"; empty: well.
std::string reap_program(pid_t pid);

// Runs a program for each text, one at a time and in order, on a thread of its own. What fails is told on standard error.
class ProgramQueue {
public:
    explicit ProgramQueue(std::vector<std::string> words);
    ProgramQueue(const ProgramQueue &) = delete;
    ~ProgramQueue();  // waits until the program has run for all of them

    void add(std::string input);
    // Asks the program that runs to end; for what waits none runs any more.
    void drop();

private:
    void run();
    void run_one(const std::string &input);

    const std::vector<std::string> words_;
    std::mutex guard_;
    std::condition_variable changed_;
    std::deque<std::string> waiting_;
    pid_t running_ = 0;
    bool ended_ = false, dropped_ = false;
    std::thread thread_;
};

}  // namespace dmq
