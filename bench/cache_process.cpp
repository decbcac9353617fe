// A process that does nothing but hold the whole cache: bench_cache_process URL. It writes a line when the cache is in step,
// and one for every line that it reads: `next` waits for the next application of the cache, `contents` sums up what is
// cached.
#include <malloc.h>
#include <unistd.h>
#include <iostream>

#include "bench/unit.h"
#include "dmq/names.h"
#include "tq_dm_cache/dm_cache_status.h"

namespace {

std::atomic<long long> back = 0, scan = 0;

// All processes' times are of one clock.
long long now_ns() {
    return std::chrono::nanoseconds(bench::Clock::now().time_since_epoch()).count();
}

long long resident() {
    long long all = 0, pages = 0;
    const std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen("/proc/self/statm", "r"), std::fclose);
    if (!file || std::fscanf(file.get(), "%lld %lld", &all, &pages) != 2) throw std::runtime_error("no statm");
    return pages * sysconf(_SC_PAGESIZE);
}

void on_connection(tq_mom_handle *handle, int32_t connected, int32_t reason, void *) {
    if (!connected || reason == 0) return;
    back = now_ns();
    scan = back + 1'000'000LL * tq_mom_get_reconnect_scan_time(handle, 1);
}

int32_t add_object(ProtobufCMessage *object, uintptr_t *sum) {
    *reinterpret_cast<size_t *>(*sum) += std::hash<std::string>()(dmq::pack(*object));
    return 0;
}

size_t contents() {
    size_t sum = 0;
    dm_cache_lock();
    for (const dmq::ObjectKind &kind : dmq::cached_kinds()) {
        dm_cache_foreach_obj(kind.row, add_object, reinterpret_cast<uintptr_t>(&sum));
    }
    dm_cache_unlock();
    return sum;
}

void run(const std::string &url) {
    if (url.starts_with("mem:")) bench::load(url);
    malloc_trim(0);
    const long long before = resident();
    const bench::Client client = bench::open_client(url);
    tq_mom_client_set_connection_cb(client.get(), on_connection, nullptr);
    dm_cache_multi_thread_init();
    for (const dmq::ObjectKind &kind : dmq::cached_kinds()) dm_cache_sub_obj(kind.row, nullptr, 0);

    const long long begun = now_ns();
    bench::check(dm_cache_init(client.get(), "bench"), "dm_cache_init");
    bench::check(dm_cache_wait_synced(600'000), "the first application");
    std::cout << begun << ' ' << now_ns() << ' ' << before << ' ' << resident() << std::endl;
    uint32_t applied = dm_cache_applied();
    for (std::string command; std::getline(std::cin, command);) {
        if (command == "contents") {
            std::cout << contents() << std::endl;
            continue;
        }
        bench::check(dm_cache_wait_applied(applied, 600'000), "the next application");
        std::cout << back << ' ' << scan << ' ' << now_ns() << std::endl;
        applied = dm_cache_applied();
    }
}

}  // namespace

int main(int argc, char **argv) {
    try {
        if (argc == 2) run(argv[1]);
    } catch (const std::exception &error) {
        std::cerr << "bench_cache: " << error.what() << std::endl;
    }
    _exit(argc == 2 ? 0 : 2);
}
