// A stream of changes while somebody reads the row over the process's socket again and again, beside the same stream with nobody
// there. Only in a process that lets itself be inspected: DM_CACHE_INSPECT names the folder.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

#include "bench/cache.h"
#include "tq_dm_cache/dm_cache_inspect.h"

namespace bench {

namespace {

// Reads the global ports without a pause, on a thread of its own, until it goes.
class Reader {
public:
    Reader() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = std::string(std::getenv("DM_CACHE_INSPECT")) + "/bench." + std::to_string(getpid());
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        check(connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address), "connect to the process");
        next();
        thread_ = std::thread([this] { read_on(); });
    }
    Reader(const Reader &) = delete;
    ~Reader() {
        over_ = true;
        thread_.join();
        close(fd_);
    }
    int64_t objects() const { return objects_; }

private:
    uint32_t next() {
        dm_inspect_record record{};
        check(recv(fd_, &record, sizeof record, MSG_WAITALL) == sizeof record ? 0 : -1, "an answer");
        std::string bytes(record.length, '\0');
        if (record.length > 0) recv(fd_, bytes.data(), bytes.size(), MSG_WAITALL);
        return record.what;
    }
    void read_on() {
        const std::string line = "objects " + std::to_string(static_cast<int>(DM_ROW_VSD_PORT)) + "\n";
        while (!over_) {
            check(send(fd_, line.data(), line.size(), 0) < 0, "a question");
            for (uint32_t what = next(); what != DM_INSPECT_END; what = next()) objects_ += what == DM_INSPECT_OBJECT;
        }
    }

    const int fd_;
    std::atomic<bool> over_ = false;
    std::atomic<int64_t> objects_ = 0;
    std::thread thread_;
};

}  // namespace

void add_inspected() {
    if (!std::getenv("DM_CACHE_INSPECT")) return;
    benchmark::RegisterBenchmark("inspected/stream",
                                 [](benchmark::State &state) {
                                     const Reader reader;
                                     stream_changes(state);
                                     state.counters["read"] = benchmark::Counter(static_cast<double>(reader.objects()),
                                                                                 benchmark::Counter::kIsRate);
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("inspected/stream/rival", stream_changes)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
}

}  // namespace bench
