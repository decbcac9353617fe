// How long a push takes from its writer to a callback, and how many a second one client can hear. Whoever hears them
// has them unpacked, drops them, and is alone on the channel.
#include <sys/socket.h>
#include <algorithm>

#include "bench/bare_subscriber.h"
#include "bench/stores.h"
#include "tq_dm_cache/p_dev.pb-c.h"

namespace bench {

namespace {

constexpr size_t timed_pushes = 1000, flood_pushes = 60000, set_pushes = 20000;
const ProtobufCMessageDescriptor &kind = p_dev__vsd_port__descriptor;

const std::string &channel() {
    static const std::string name = tq::hash_of({1, kind.name});
    return name;
}

struct Hearer {
    virtual ~Hearer() = default;
    Tally heard;
};

class ClientHearer : public Hearer {
public:
    explicit ClientHearer(const std::string &url) : client_(open_client(url)) {
        const ProtobufCMessage tmpl = PROTOBUF_C_MESSAGE_INIT(&kind);
        heard.expect(1);
        check(tq_mom_subscribe(client_.get(), 1, &tmpl, 0, hear, this), "subscribe");
        heard.wait();
    }

private:
    static int32_t hear(tq_mom_handle *, store_msg *, void *self) {
        static_cast<ClientHearer *>(self)->heard.hear();
        return 0;
    }
    const Client client_;
};

class BareHearer : public Hearer {
public:
    explicit BareHearer(const std::string &socket) : bare_(socket) {
        bare_.subscribe(channel());
        thread_ = std::thread([this] { bare_.follow(kind, [this] { heard.hear(); }); });
    }
    ~BareHearer() override {
        bare_.stop();
        thread_.join();
    }

private:
    BareSubscriber bare_;
    std::thread thread_;
};

using NewHearer = std::function<std::unique_ptr<Hearer>()>;

void measure_latency(Counters &counters, const std::string &url, const NewHearer &new_hearer) {
    const auto objects = global_ports();
    const Client writer = open_client(url);
    const auto hearer = new_hearer();
    std::vector<double> us;
    for (size_t i = 0; i < timed_pushes; ++i) {
        hearer->heard.expect(1);
        const auto begun = Clock::now();
        set(writer, *objects[i]);
        us.push_back(1e3 * milliseconds(hearer->heard.wait() - begun));
    }
    std::sort(us.begin(), us.end());
    counters["us, median"] = us[us.size() / 2];
    counters["us, 99 of 100 within"] = us[us.size() * 99 / 100];
}

// The writer is this thread; all else that the process does is hearing.
void measure_rate(Counters &counters, size_t pushes, const NewHearer &new_hearer, const std::function<void()> &write) {
    const auto hearer = new_hearer();
    hearer->heard.expect(static_cast<int>(pushes));
    const double processor = process_time() - thread_time();
    const auto begun = Clock::now();
    write();
    const double ms = milliseconds(hearer->heard.wait() - begun);
    counters["pushes a second"] = 1e3 * static_cast<double>(pushes) / ms;
    counters["us of its processor, each"] =
        1e3 * (process_time() - thread_time() - processor) / static_cast<double>(pushes);
}

// Everything at once, and no answers wanted. The server may still be reading when it returns: the connection stays.
void send_all(const std::string &commands) {
    static Context connection(nullptr, redisFree);
    connection = connect(server().socket());
    const std::string bytes = formatted({"CLIENT", "REPLY", "OFF"}) + commands;
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t n = ::send(connection->fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0) throw std::runtime_error("the server does not take what is written");
        sent += static_cast<size_t>(n);
    }
}

std::string many(size_t pushes, std::string (*command)(const std::string &key, const std::string &value)) {
    const auto objects = global_ports();
    std::string commands;
    for (size_t i = 0; i < pushes; ++i) {
        const ProtobufCMessage &object = *objects[i % objects.size()];
        commands += command(dmq::pack(*dmq::key_of(object)), dmq::pack(object));
    }
    return commands;
}

std::string with_length(const std::string &text) {
    const size_t n = text.size();
    return std::string{char(n >> 24), char(n >> 16), char(n >> 8), char(n)} + text;
}

// The bare frame, as the script publishes it: the server has next to nothing to do.
std::string publish(const std::string &key, const std::string &value) {
    return formatted({"PUBLISH", channel(), "S" + with_length(key) + with_length(value)});
}

// What a client sends for tq_mom_set().
std::string write(const std::string &key, const std::string &value) {
    return formatted({"EVAL", tq::write_script.text, "1", channel(), key, value, channel() + "/" + key});
}

void set_in_mem() {
    const auto objects = global_ports();
    const Client writer = open_client(mem_store());
    for (size_t i = 0; i < set_pushes; ++i) set(writer, *objects[i % objects.size()]);
}

}  // namespace

void add_pushes() {
    const NewHearer by_bare = [] { return std::make_unique<BareHearer>(server().socket()); };
    const NewHearer by_redis = [] { return std::make_unique<ClientHearer>(server().url()); };
    const NewHearer by_mem = [] { return std::make_unique<ClientHearer>(mem_store()); };
    for (const auto &[who, hearer] : {std::pair("/bare", by_bare), std::pair("/redis", by_redis)}) {
        add(std::string("push") + who, 25,
            [hearer = hearer](Counters &counters) { measure_latency(counters, server().url(), hearer); });
        add(std::string("flood") + who, 25, [hearer = hearer](Counters &counters) {
            static const std::string commands = many(flood_pushes, publish);
            measure_rate(counters, flood_pushes, hearer, [] { send_all(commands); });
        });
        add(std::string("sets") + who, 25, [hearer = hearer](Counters &counters) {
            static const std::string commands = many(set_pushes, write);
            measure_rate(counters, set_pushes, hearer, [] { send_all(commands); });
        });
    }
    add("push/mem", 25, [=](Counters &counters) { measure_latency(counters, mem_store(), by_mem); });
    add("sets/mem", 25, [=](Counters &counters) { measure_rate(counters, set_pushes, by_mem, set_in_mem); });
}

}  // namespace bench
