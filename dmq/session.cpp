// Opening, starting, writing, waiting.
#include "dmq/session.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <tuple>

#include "dmq/output.h"
#include "dmq/watch.h"
#include "tq_dm_cache/dm_cache_follow.h"

namespace dmq {

namespace {

std::atomic<bool> connection_is_lost = false;  // the reader's; told on its thread

void on_connection(tq_mom_handle *handle, int32_t connected, int32_t reason, void *word) {
    connection_is_lost = !connected;
    watch_connection(handle, connected, reason, word);
}

constexpr size_t objects_at_a_time = 1024;  // between two looks at the progress

const Picture *shown_picture = nullptr;  // the session's, while it is attached

Client open_store(const std::string &url, const std::string &shown) {
    tq_mom_handle *handle = nullptr;
    const int32_t code = tq_mom_client_open(url.c_str(), &handle);
    if (code == TQ_MOM_E_URL || code == TQ_MOM_E_ARGUMENT)
        throw Failure(exit_usage, "the URL " + shown + " names no store; see --store in dmq --help");
    if (code == TQ_MOM_E_DENIED) {
        throw Failure(exit_unreachable, "the store " + shown +
                                            " knows no such user or password; TQ_STORE_USER and "
                                            "TQ_STORE_PASSWORD give others");
    }
    if (code == TQ_MOM_E_MEMORY)
        throw Failure(exit_no, "the store " + shown + ": not enough memory, threads or descriptors");
    if (code == TQ_MOM_E_REFUSED) throw Failure(exit_unreachable, "the store " + shown + " is part of a cluster");
    if (code) throw Failure(exit_unreachable, "the store " + shown + " is not reachable; is its server running?");
    return Client(handle);
}

[[noreturn]] void write_failed(int32_t code, const std::string &what) {
    if (code == TQ_MOM_E_NOT_FOUND) throw Failure(exit_no, what + ": no such object in the store");
    if (code == TQ_MOM_E_CHANGED) {
        throw Failure(exit_no,
                      what + ": somebody else has changed it since it was read, so it was left alone; look again");
    }
    if (code == TQ_MOM_E_MEMORY) throw Failure(exit_no, what + ": not enough memory");
    if (code == TQ_MOM_E_TIMEOUT) throw Failure(exit_timeout, what + ": the store did not answer in time");
    if (code == TQ_MOM_E_UNREACHABLE) throw Failure(exit_unreachable, what + ": the store is not reachable");
    throw Failure(code == TQ_MOM_E_REFUSED ? exit_no : exit_usage,
                  what + ": the store refused it, code " + std::to_string(code));
}

int32_t write_edit(tq_mom_handle *client, const Edit &edit) {
    if (!edit.damaged) return tq_mom_replace(client, edit.db, edit.before.get(), edit.after.get());
    return edit.after ? tq_mom_set(client, edit.db, edit.after.get(), 0, 0)
                      : tq_mom_del(client, edit.db, edit.before.get());
}

// A change of that row makes the cache scan everything again.
bool is_complete_notice(const ProtobufCMessage &object) {
    return kind_of(*object.descriptor).row == DM_ROW_DP_LIB_COMPLETE && stats_of(DM_ROW_DP_LIB_COMPLETE).enabled;
}

// All of a process is read, or nothing.
Picture picture_of(const std::string &path, const Deadline &deadline, const std::vector<ObjectKind> &kinds) {
    Picture picture;
    Inspection inspection(path, deadline);
    inspection.read_process(picture);
    Progress progress("reading rows");
    const auto &rows = kinds.empty() ? cached_kinds() : kinds;
    for (size_t i = 0; i < rows.size(); ++i) {
        inspection.read_objects(picture, rows[i].row);
        progress.show(i, rows.size());
    }
    return picture;
}

}  // namespace

Session::Session(const Settings &settings)
    : store_(settings.store.empty() ? "mem:" : settings.store),
      shown_(shown_url(store_)),
      named_(!settings.store.empty()),
      deadline_(0) {
    std::vector<std::vector<Entry>> topologies;
    for (const auto &file : settings.load) topologies.push_back(read_topology(file));
    begin(settings.timeout);
    if (!settings.attach.empty()) {
        attach_ = settings.attach;
        inspect_ = settings.inspect;
        attached_ = find_inspected(attach_, inspect_);
        unsetenv("DM_CACHE_INSPECT");  // what is only a picture is not to be looked into
    }
    writer_ = open();
    for (auto &topology : topologies) write(std::move(topology));
}

Client Session::open() {
    return ask("the store " + shown_ + " to be opened",
               [url = store_, shown = shown_] { return open_store(url, shown); });
}

Session::~Session() {
    stop_watch();
    if (started_ && !left_behind && std::getenv("DM_CACHE_INSPECT")) dm_cache_stop();  // its socket goes
    if (starter_.joinable()) starter_.detach();
}

std::string Session::store_name() const {
    return named_ ? "the store " + shown_
                  : "no store is named by --store or DMQ_STORE, and mem:, which lives in this process,";
}

void Session::open_reader() {
    if (reader_) return;
    reader_ = open();
    tq_mom_client_set_connection_cb(reader(), on_connection, nullptr);
}

void Session::start(const std::vector<ObjectKind> &kinds) {
    if (started_) return;
    open_reader();
    if (!starting_.valid()) begin_start(kinds);
    if (starting_.wait_until(deadline_.end()) == std::future_status::timeout) {
        left_behind = true;
        deadline_.passed("the store did not answer", "waited for the cache to start");
    }
    starter_.join();
    const auto [code, lacked_memory] = starting_.get();
    if (lacked_memory) throw Failure(exit_no, "the cache: not enough memory");
    if (code) throw Failure(exit_unreachable, "the store " + shown_ + " did not connect, code " + std::to_string(code));
    started_ = true;
}

// Once: when a command has waited in vain, the next one waits for the same start.
void Session::begin_start(const std::vector<ObjectKind> &kinds) {
    dm_cache_multi_thread_init();
    for (const ObjectKind &kind : kinds.empty() ? cached_kinds() : kinds)
        if (attached_.empty()) dm_cache_sub_obj(kind.row, nullptr, 0);
    std::packaged_task<std::pair<int32_t, bool>()> task([client = reader()] {
        errno = 0;
        const int32_t answer = dm_cache_init(client, "dmq");
        return std::pair(answer, errno == ENOMEM);  // it may have started without a tree or two
    });
    starting_ = task.get_future();
    const SignalsHeld held;
    starter_ = std::thread(std::move(task));
}

// The process is read before the cache is touched: a shell goes on with what it had. One that has ended may be there again, under
// the name by which it was found.
void Session::take_picture(const std::vector<ObjectKind> &kinds) {
    std::error_code unknown;
    if (!std::filesystem::exists(attached_, unknown)) attached_ = find_inspected(attach_, inspect_);
    const int64_t begun = now_ms();
    Picture picture = picture_of(attached_, deadline_, kinds);
    picture_ms_ = begun;

    if (started_) {
        dm_cache_stop();
        started_ = false;
        starting_ = {};
    }
    start({});
    fill_cache(picture);
    picture.store_is_named = named_;
    earlier_ = std::exchange(picture_, std::move(picture));
    shown_picture = &*picture_;
}

void Session::synchronise(const std::vector<ObjectKind> &kinds) {
    if (!attached_.empty()) return take_picture(kinds);
    start(kinds);
    Progress progress("synchronising, rows scanned");
    while (true) {
        const std::string reason = waits_for();  // first: empty only when it has been applied
        const uint32_t applied = dm_cache_applied();
        if (applied > 0 && reason.empty()) break;
        const int32_t left = deadline_.left();
        if (!left) deadline_.passed("not synchronised", reason);
        if (dm_cache_wait_applied(applied, std::min(left, 100)) == 0) continue;
        size_t enabled = 0, scanned = 0;
        for (const ObjectKind &kind : cached_kinds()) {
            enabled += stats_of(kind.row).enabled;
            scanned += stats_of(kind.row).scanned;
        }
        progress.show(scanned, enabled);
    }
}

bool Session::is_lost() const {
    return connection_is_lost;
}

int64_t Session::age_ms() const {
    int64_t age = picture_ ? picture_->age_ms() : -1;
    if (picture_) return age < 0 ? -1 : age + now_ms() - picture_ms_;
    for (const ObjectKind &kind : cached_kinds()) {
        if (!stats_of(kind.row).enabled) continue;
        const int64_t own = dm_cache_age_ms(kind.row);
        if (own < 0) return -1;
        age = std::max(age, own);
    }
    return age;
}

void Session::write(std::vector<Entry> entries) {
    const uint32_t applied = dm_cache_applied();
    const auto kept = std::make_shared<const std::vector<Entry>>(std::move(entries));
    const size_t all = kept->size();
    bool notice = false;
    size_t done = 0;
    Progress progress("writing objects");
    while (done < all) {
        const size_t count = std::min(all - done, objects_at_a_time);
        std::vector<tq_mom_write> group;
        for (const Entry &entry : std::span(*kept).subspan(done, count)) {
            group.push_back({entry.db, entry.object.get()});
            notice |= is_complete_notice(*entry.object);
        }
        const auto call = [kept, client = writer(), group = std::move(group)] {
            uint32_t taken = 0, refused = 0;
            const int32_t code =
                tq_mom_set_many(client, group.data(), static_cast<uint32_t>(group.size()), &taken, &refused);
            return std::tuple(code, taken, refused);
        };
        const auto [code, taken, refused] =
            ask("objects to be written, " + std::to_string(done) + " of " + std::to_string(all) + " are", call);
        if (code) {
            write_failed(code, object_name(*(*kept)[done + std::min<size_t>(refused, count - 1)].object) + " (after " +
                                   counted(done + taken, "object") + " written)");
        }
        progress.show(done += count, all);
    }
    if (follows()) settle(notice ? applied : 0);
}

void Session::write(std::vector<Edit> edits) {
    const uint32_t applied = dm_cache_applied();
    bool notice = false;
    for (size_t i = 0; i < edits.size(); ++i) {
        const auto edit = std::make_shared<const Edit>(std::move(edits[i]));
        notice |= is_complete_notice(edit->object());
        const std::string name = object_name(edit->object());
        if (const int32_t code =
                ask(name + " to be written", [edit, client = writer()] { return write_edit(client, *edit); }))
            write_failed(code, name + (i ? " (after " + counted(i, "object") + " written)" : ""));
    }
    if (follows()) settle(notice ? applied : 0);
}

void Session::settle(uint32_t applied) {
    if (!started_) return;
    if (applied && dm_cache_wait_applied(applied, deadline_.left())) {
        const std::string reason = waits_for();
        deadline_.passed("not synchronised again", reason.empty() ? "nothing is scanned again" : reason);
    }
    if (tq_mom_client_drain(reader(), deadline_.left()))
        deadline_.passed("the cache was not told everything", "waited for the store client to deliver");
    tell_refused();
}

int64_t now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

std::string waits_for() {
    if (shown_picture) return shown_picture->reason;
    std::string reason(static_cast<size_t>(dm_cache_reason(nullptr, 0)), '\0');
    dm_cache_reason(reason.data(), static_cast<int32_t>(reason.size()) + 1);
    return reason.substr(0, reason.find('\0'));  // it may be a shorter one by now
}

int32_t flag_of(int32_t row) {
    return shown_picture ? shown_picture->rows[static_cast<size_t>(row)].flag : obj_sub_list[row].flag;
}

bool asks_its_store() {
    return !shown_picture || shown_picture->store_is_named;
}

dm_cache_stats stats_of(int32_t row) {
    if (shown_picture) return shown_picture->rows[static_cast<size_t>(row)].stats;
    dm_cache_stats stats{};
    dm_cache_get_stats(row, &stats, sizeof stats);
    return stats;
}

}  // namespace dmq
