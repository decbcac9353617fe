// Whole caches, each in a process of its own: one alone, and forty whose server restarts. And what they keep in memory.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <future>
#include <list>
#include <sstream>

#include "bench/stores.h"
#include "dmq/names.h"
#include "tq_dm_cache/p_dev.pb-c.h"

namespace bench {

namespace {

constexpr int fleet_size = 40, lost_changes = 100;

// bench_cache_process, whose side is cache_process.cpp.
class CacheProcess {
public:
    explicit CacheProcess(const std::string &url);
    ~CacheProcess();
    CacheProcess(const CacheProcess &) = delete;

    void say(const char *command) { dprintf(fileno(pipe_), "%s\n", command); }
    std::string line();
    std::vector<double> numbers();  // of one line

private:
    pid_t pid_;
    FILE *pipe_;
};

CacheProcess::CacheProcess(const std::string &url) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) throw std::runtime_error("socketpair");
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(ends[1], STDIN_FILENO);
        dup2(ends[1], STDOUT_FILENO);
        execl(BENCH_CACHE, BENCH_CACHE, url.c_str(), nullptr);
        _exit(127);
    }
    ::close(ends[1]);
    pipe_ = fdopen(ends[0], "r");
}

CacheProcess::~CacheProcess() {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    std::fclose(pipe_);
}

std::string CacheProcess::line() {
    char text[256];
    if (!std::fgets(text, sizeof text, pipe_)) throw std::runtime_error("a process with a cache has ended");
    return text;
}

std::vector<double> CacheProcess::numbers() {
    std::istringstream words(line());
    std::vector<double> found;
    for (double number = 0; words >> number;) found.push_back(number);
    return found;
}

void measure_cache(Counters &counters, const std::string &url) {
    CacheProcess process(url);
    const auto told = process.numbers();  // begun, in step; resident before and now
    counters["ms, init until in step"] = 1e-6 * (told.at(1) - told.at(0));
    counters["MB resident"] = 1e-6 * told.at(3);
    counters["MB since before the open"] = 1e-6 * (told.at(3) - told.at(2));
}

double info(const RedisServer &redis, const std::string &field) {
    const std::string text = redis.command({"INFO", "memory"});
    const size_t at = text.find("\n" + field + ":");
    if (at == std::string::npos) throw std::runtime_error("the server does not tell its " + field);
    return std::stod(text.substr(at + field.size() + 2));
}

void measure_server(Counters &counters) {
    const RedisServer empty;
    size_t packed = 0;
    for (const dmq::Entry &entry : objects()) packed += dmq::pack(*entry.object).size();
    server().restart(/*keep=*/true);
    counters["MB used_memory"] = 1e-6 * info(server(), "used_memory");
    counters["MB used_memory, empty"] = 1e-6 * info(empty, "used_memory");
    counters["MB of packed objects"] = 1e-6 * static_cast<double>(packed);
}

std::string saved_contents() {
    size_t sum = 0;
    for (const dmq::Entry &entry : objects()) sum += std::hash<std::string>()(dmq::pack(*entry.object));
    return std::to_string(sum) + "\n";
}

// The fleet hears of them; the server, killed before it has saved them, comes back without.
void make_changes_to_lose() {
    const Client writer = open_client(server().url());
    const auto ports = global_ports();
    for (size_t i = 0; i < lost_changes; ++i) {
        const dmq::Message changed = dmq::unpack(*ports[i]->descriptor, dmq::pack(*ports[i]));
        reinterpret_cast<PDev__VsdPort *>(changed.get())->def_mtu = 9000;
        set(writer, *changed);
    }
}

// Of the whole fleet: each one's numbers, one column of them.
void count_spread(Counters &counters, const std::string &what, Clock::time_point since,
                  const std::vector<std::vector<double>> &told, size_t column) {
    std::vector<double> ms;
    for (const auto &numbers : told) {
        ms.push_back(1e-6 * (numbers.at(column) - static_cast<double>(since.time_since_epoch().count())));
    }
    std::sort(ms.begin(), ms.end());
    counters["ms, first " + what] = ms.front();
    counters["ms, half " + what] = ms[ms.size() / 2];
    counters["ms, last " + what] = ms.back();
}

std::vector<std::vector<double>> told_by(std::list<CacheProcess> &fleet) {
    std::vector<std::vector<double>> told;
    for (CacheProcess &process : fleet) told.push_back(process.numbers());
    return told;
}

void measure_fleet(Counters &counters) {
    server().restart(/*keep=*/true);
    const auto begun = Clock::now();
    std::list<CacheProcess> fleet;
    for (int i = 0; i < fleet_size; ++i) fleet.emplace_back(server().url());
    count_spread(counters, "live at first", begun, told_by(fleet), 1);

    make_changes_to_lose();
    for (CacheProcess &process : fleet) {
        process.say("contents");
        if (process.line() == saved_contents()) throw std::runtime_error("a change was not heard of");
        process.say("next");
    }
    server().kill();
    auto answer = std::async(std::launch::async, first_answer);
    server().start();
    const auto told = told_by(fleet);  // back, scan due, applied
    const auto first = answer.get();
    for (CacheProcess &process : fleet) process.say("contents");
    for (CacheProcess &process : fleet) {
        if (process.line() != saved_contents()) throw std::runtime_error("a cache is not equal to the store");
    }
    count_spread(counters, "reconnected", first, told, 0);
    count_spread(counters, "scan due", first, told, 1);
    count_spread(counters, "equal again", first, told, 2);
    counters["MB used_memory_peak"] = 1e-6 * info(server(), "used_memory_peak");
}

}  // namespace

void add_caches() {
    add("cache/redis", 7, [](Counters &counters) { measure_cache(counters, server().url()); });
    add("cache/mem", 7, [](Counters &counters) { measure_cache(counters, "mem:"); });
    add("memory/redis", 3, measure_server);
    add("fleet/redis", 3, measure_fleet);
}

}  // namespace bench
