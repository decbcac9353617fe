// clients: the processes that let themselves be inspected, and whoever is connected to the store's server.
#include "dmq/command.h"

namespace dmq {

namespace {

constexpr double patience = 1;  // seconds for each process: a stopped one is not to hide the others

std::vector<Json> record_of(const Picture &picture) {
    uint64_t objects = 0;
    for (const dm_inspect_row &row : picture.rows) objects += row.stats.objects;
    const int64_t age = picture.age_ms();
    return {picture.name,  picture.pid, picture.live() ? "live" : picture.reason, objects, age < 0 ? Json() : Json(age),
            picture.store, Json()};
}

// Nothing: the process has ended, and left its socket behind.
std::optional<std::vector<Json>> look_at(const Inspected &one, double timeout) {
    try {
        const Deadline deadline(std::min(patience, timeout));
        Picture picture;
        Inspection(one.path, deadline).read_process(picture);
        return record_of(picture);
    } catch (const Failure &failure) {
        const std::string why = failure.what();
        if (why.ends_with(process_has_ended)) return std::nullopt;
        return std::vector<Json>{one.name, one.pid, why, Json(), Json(), Json(), Json()};
    }
}

void add_inspected(Table &table, const Settings &settings) {
    std::string dead;
    for (const Inspected &one : inspected_in(settings.inspect)) {
        if (auto record = look_at(one, settings.timeout))
            table.rows.push_back(std::move(*record));
        else
            dead += (dead.empty() ? "" : ", ") + one.name + "." + std::to_string(one.pid);
    }
    if (!dead.empty()) note("these have ended, and left their sockets behind: " + dead);
}

struct Connection {
    std::string name, address;
    uint32_t age_s;
};

void add_connected(Table &table, Session &session, const std::string &store) {
    const auto call = [client = session.writer()] {
        std::vector<Connection> found;
        const auto take = [](const tq_mom_store_client *one, void *word) {
            static_cast<std::vector<Connection> *>(word)->push_back({one->name, one->address, one->age_s});
        };
        const int32_t code = tq_mom_store_clients(client, take, &found);
        return std::pair(code, std::move(found));
    };
    const auto [code, found] = session.ask("the server's list of clients", call);
    if (code == TQ_MOM_E_ARGUMENT) return;  // only this process reaches it
    if (code == TQ_MOM_E_REFUSED) return note(session.store_name() + " does not say who is connected");
    if (code) throw Failure(exit_unreachable, session.store_name() + " does not answer, code " + std::to_string(code));
    for (const auto &[name, address, age] : found) {
        const std::string state = "connected for " + std::to_string(age) + " s";
        table.rows.push_back({name.empty() ? Json() : Json(name), Json(), state, Json(), Json(), store, address});
    }
}

}  // namespace

Exit run_clients(Context &context, const Command &command) {
    const Settings &settings = command.settings;
    if (settings.inspect.empty() && settings.store.empty())
        throw Failure(exit_usage, "clients of what? --inspect names the folder of processes, --store a server");
    Table table{{"name", "pid", "state", "objects", "age_ms", "store", "address"}, {}};
    if (!settings.inspect.empty()) add_inspected(table, settings);
    if (!settings.store.empty()) add_connected(table, context.open(settings), shown_url(settings.store));
    print_table(table, command.table);
    return table.rows.empty() ? exit_no : exit_yes;
}

}  // namespace dmq
