// Another process's cache, read from the socket at which it answers (dm_cache_inspect.h): its picture, and the cache of this
// process made equal to that. Blocks until the deadline at most; takes the cache lock while it fills the cache.
#pragma once

#include <array>
#include <map>
#include <string>
#include <vector>

#include "dmq/deadline.h"
#include "dmq/message.h"
#include "tq_dm_cache/dm_cache_inspect.h"

namespace dmq {

// An object as a process has it.
struct Seen {
    dm_inspect_object about;
    Message object;
};

struct Picture {
    std::string name, reason, store;
    int32_t pid = 0;
    dm_inspect_process process{};
    std::array<dm_inspect_row, DM_ROW_COUNT> rows{};
    bool store_is_named = false;                   // dmq has been told which store it follows
    std::map<int32_t, std::vector<Seen>> objects;  // by row, in the order of its list

    bool live() const { return process.started && process.live; }
    std::string shown_name() const;  // "cards.1712"
    int64_t age_ms() const;          // at most so long ago every followed row was equal to the store; -1: nobody knows
};

// A socket of a process, by the words of its file's name.
struct Inspected {
    std::string path, name;
    int32_t pid;
};

// Those in a folder, dead ones included, by name and number. Throws a Failure when it cannot be read.
std::vector<Inspected> inspected_in(const std::string &folder);

// The socket that is meant: a path, NAME, NAME.PID or PID in the folder. Throws a Failure when there is none, or more than one.
std::string find_inspected(const std::string &wanted, const std::string &folder);

// How the message of a Failure ends when the socket of a dead process is meant.
constexpr const char *process_has_ended = "its process has ended";

// One connection to such a process.
class Inspection {
public:
    // Throws a Failure when nobody answers, or somebody else. Waits while others are served.
    Inspection(const std::string &path, const Deadline &deadline);
    Inspection(const Inspection &) = delete;
    ~Inspection();

    // Asks for the process and its rows; what the picture had of them is replaced.
    void read_process(Picture &picture);
    void read_objects(Picture &picture, int32_t row);

private:
    struct Record {
        uint32_t what = 0;
        std::string bytes;
    };
    bool connect();
    bool wait(short events);
    void receive(void *to, size_t size);
    Record next();
    void ask(const std::string &line);
    [[noreturn]] void fail(const std::string &why);

    const std::string path_;
    const Deadline &deadline_;
    int fd_ = -1;
    bool is_full_ = false;  // as many clients as may be were there when it was last asked
    std::string name_;
    int32_t pid_ = 0;
};

// Fills the rows of this process's cache, which are empty and followed by nobody, with the picture's objects; their trees find
// what the process's trees find.
void fill_cache(const Picture &picture);

}  // namespace dmq
