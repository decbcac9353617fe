// Several threads: readers beside each other and beside the same copies without a lock, readers beside a writer, and how
// long a push takes to its callback while eight threads read without a pause.
#include <algorithm>
#include <thread>

#include "bench/cache.h"
#include "tq_dm_cache/ndm.h"

namespace bench {

namespace {

using namespace std::chrono_literals;

void look_up(const Port &port) {
    PDev__VsdPort *copy = nullptr;
    ndm_get_global_port_by_ifx(port.global->index->t_vsdid, port.global->ifx, &copy);
    ndm_port_obj_free(copy);
}

void copy_alone(const Port &port) {
    ProtobufCMessage *copy = nullptr;
    dm_cache_copy_obj(port.global, port.global->base.descriptor, &copy);
    release(copy);
}

// A thousand changes a second while it lives.
class Writer {
public:
    Writer()
        : thread_([this] {
              auto *port = reinterpret_cast<PDev__VsdPort *>(packed_copy(cache().ports[0].global->base));
              for (auto next = Clock::now(); !stop_; std::this_thread::sleep_until(next += 1ms)) {
                  ++port->bandwidth;
                  dm_cache_set_obj(DM_ROW_VSD_PORT, port);
              }
              release(&port->base);
          }) {}
    ~Writer() {
        stop_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

template <class Act> void add_readers(const std::string &name, int threads, bool with_writer, Act act) {
    benchmark::RegisterBenchmark(name.c_str(),
                                 [=](benchmark::State &state) {
                                     static std::unique_ptr<Writer> writer;
                                     if (state.thread_index() == 0 && with_writer) writer = std::make_unique<Writer>();
                                     const auto &all = cache().ports;
                                     Way way(all.size(), in_order, static_cast<size_t>(state.thread_index()) * 1000);
                                     for (auto _ : state) act(all[way.next()]);
                                     state.SetItemsProcessed(state.iterations());
                                     if (state.thread_index() == 0) writer.reset();
                                 })
        ->Threads(threads)
        ->UseRealTime();
}

int32_t add_ifx(ProtobufCMessage *object, uintptr_t *sum) {
    *sum += static_cast<uintptr_t>(reinterpret_cast<PDev__VsdPort *>(object)->ifx);
    return 0;
}

std::binary_semaphore heard{0};
Clock::time_point heard_at;
std::atomic<bool> listening = false;

// From just before the set to the callback.
void measure_pushes(benchmark::State &state, const std::function<void()> &walk) {
    LiveCache &live = cache();
    std::atomic<bool> stop = false;
    std::vector<std::thread> walkers;
    for (int i = 0; walk && i < 8; ++i)
        walkers.emplace_back([&] {
            while (!stop) walk();
        });
    auto *port = reinterpret_cast<PDev__VsdPort *>(packed_copy(live.ports[0].global->base));
    std::vector<double> times;
    listening = true;
    for (auto _ : state) {
        std::this_thread::sleep_for(1ms);
        ++port->bandwidth;
        const auto begun = Clock::now();
        set(live.client, port->base);
        heard.acquire();
        times.push_back(std::chrono::duration<double>(heard_at - begun).count());
        state.SetIterationTime(times.back());
    }
    listening = false;
    stop = true;
    for (std::thread &walker : walkers) walker.join();
    release(&port->base);
    std::sort(times.begin(), times.end());
    state.counters["us, median"] = 1e6 * times[times.size() / 2];
    state.counters["us, 99 of 100 within"] = 1e6 * times[times.size() * 99 / 100];
}

void add_push(const std::string &name, const std::function<void()> &walk) {
    benchmark::RegisterBenchmark(name.c_str(), [walk](benchmark::State &state) { measure_pushes(state, walk); })
        ->UseManualTime()
        ->Iterations(500);
}

// From one thread to another that sleeps, three times.
void hand_overs(benchmark::State &state) {
    std::binary_semaphore go{0}, back{0};
    std::atomic<bool> stop = false;
    std::thread other([&] {
        for (go.acquire(); !stop; go.acquire()) back.release();
    });
    std::vector<double> times;
    for (auto _ : state) {
        std::this_thread::sleep_for(1ms);
        const auto begun = Clock::now();
        go.release();
        back.acquire();
        times.push_back(1.5 * std::chrono::duration<double>(Clock::now() - begun).count());
        state.SetIterationTime(times.back());
    }
    stop = true;
    go.release();
    other.join();
    std::sort(times.begin(), times.end());
    state.counters["us, median"] = 1e6 * times[times.size() / 2];
}

}  // namespace

int32_t hear_change(tq_mom_handle *, int32_t, int32_t, ProtobufCMessage *) {
    if (!listening) return 0;
    heard_at = Clock::now();
    heard.release();
    return 0;
}

void add_threads() {
    for (const int threads : {1, 2, 4}) {
        add_readers("readers", threads, false, look_up);
        add_readers("readers/rival", threads, false, copy_alone);
        add_readers("readers beside a writer", threads, true, look_up);
    }
    add_push("push/alone", nullptr);
    add_push("push/eight walk under the lock", [] {
        dm_cache_lock();
        dm_cache_foreach_obj(DM_ROW_VSD_PORT, add_ifx, 0);
        dm_cache_unlock();
    });
    add_push("push/eight look up", [] {
        for (const Port &port : cache().ports) look_up(port);
    });
    add_push("push/eight look up/rival, eight copy without a lock", [] {
        for (const Port &port : cache().ports) copy_alone(port);
    });
    benchmark::RegisterBenchmark("push/rival, three hand-overs", hand_overs)->UseManualTime()->Iterations(500);
}

}  // namespace bench
