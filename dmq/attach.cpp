// What a process answers is no more believed than what a person types: every length is looked at before it is used.
#include "dmq/attach.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

#include "dmq/names.h"
#include "dmq/output.h"
#include "dmq/session.h"

namespace dmq {

namespace {

constexpr uint32_t longest_record = 64 << 20;
constexpr const char *others_are_connected = "others are connected to it";
constexpr auto between_tries = std::chrono::milliseconds(20);

// The fixed part of a record: what an older process does not send is zero.
template <class T> T part_of(const std::string &bytes) {
    T part{};
    std::memcpy(&part, bytes.data(), std::min(sizeof part, bytes.size()));
    return part;
}
template <class T> std::string_view behind(const std::string &bytes) {
    return std::string_view(bytes).substr(std::min(sizeof(T), bytes.size()));
}

std::string shown_list(const std::vector<Inspected> &list) {
    std::string text;
    for (const auto &one : list) text += (text.empty() ? "" : ", ") + shown(one.name + "." + std::to_string(one.pid));
    return text;
}

// One that is stopped, or has as many clients as may be, is there, too: it is waited for by whoever needs it.
bool is_there(const Inspected &one) {
    try {
        const Deadline now(0);
        const Inspection inspection(one.path, now);
        return true;
    } catch (const Failure &failure) {
        return !std::string_view(failure.what()).ends_with(process_has_ended);
    }
}

// What a tree of this process's is to find by the key: the element, or nothing.
void put_in_tree(ndm_cache_tree &set, int32_t tree, const dm_inspect_object &about, dm_cache_list_node *node) {
    rbtree_root **const root = &set.root[tree];
    const int64_t own = node->key->key[tree], key = about.key[tree];
    const bool is_found = about.found[tree] == DM_INSPECT_FINDS_OBJECT;
    if (dm_rbtree_find_node(root, own) == node && (own != key || !is_found)) dm_rbtree_delete_node(root, own);
    node->key->key[tree] = key;
    if (!is_found || dm_rbtree_find_node(root, key) == node) return;
    if (dm_rbtree_find_node(root, key)) dm_rbtree_delete_node(root, key);
    dm_rbtree_insert_node(root, key, node);
}

// Which of two objects with one key is found depends on what has happened to them.
void index_as_there(int32_t row, const std::vector<Seen> &objects) {
    obj_sub_entry &entry = obj_sub_list[row];
    if (!entry.port_tree) return;
    for (const auto &[about, object] : objects)
        if (!about.indexed) ndm_cache_tree_del_node(&entry, object.get());
    for (const auto &[about, object] : objects) {
        auto *node = dm_cache_list_find(entry.obj_list, entry.cmp_func, object.get());
        if (!node || !node->key || !about.indexed) continue;
        for (int32_t tree = 0; tree < std::min<int32_t>(entry.port_tree->tree_num, about.trees); ++tree)
            put_in_tree(*entry.port_tree, tree, about, node);
    }
}

}  // namespace

std::string Picture::shown_name() const {
    return shown(name + "." + std::to_string(pid));
}

int64_t Picture::age_ms() const {
    int64_t age = -1;
    for (const dm_inspect_row &row : rows) {
        if (!row.stats.enabled || (row.flag & DM_CACHE_NO_STORE)) continue;
        if (row.age_ms < 0) return -1;
        age = std::max(age, row.age_ms);
    }
    return age;
}

std::vector<Inspected> inspected_in(const std::string &folder) {
    std::error_code error;
    std::vector<Inspected> found;
    for (std::filesystem::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
        const std::string file = at->path().filename();
        const size_t dot = file.rfind('.');
        const auto pid = dot == std::string::npos ? std::nullopt : whole_number<int32_t>(file.substr(dot + 1));
        std::error_code unknown;
        if (pid && at->is_socket(unknown)) found.push_back({at->path(), file.substr(0, dot), *pid});
    }
    if (error) throw Failure(exit_usage, "the folder " + shown(folder) + ": " + error.message());
    std::sort(found.begin(), found.end(),
              [](const auto &a, const auto &b) { return std::tie(a.name, a.pid) < std::tie(b.name, b.pid); });
    return found;
}

std::string find_inspected(const std::string &wanted, const std::string &folder) {
    if (wanted.find('/') != std::string::npos) return wanted;
    if (folder.empty()) {
        throw Failure(exit_usage, "in which folder is " + shown(wanted) +
                                      "? --inspect or DM_CACHE_INSPECT names it, or --attach takes a path");
    }
    const auto all = inspected_in(folder);
    std::string safe = wanted;  // as its socket's file is called
    for (char &c : safe)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-' && c != '_') c = '_';
    std::vector<Inspected> meant;
    std::vector<std::string> names;
    for (const auto &one : all) {
        const std::string pid = std::to_string(one.pid);
        const bool is_meant = safe == one.name || wanted == pid || wanted == one.name + "." + pid;
        if (is_meant && is_there(one)) meant.push_back(one);
        names.push_back(one.name);
    }
    if (meant.empty()) {
        throw Failure(exit_unreachable,
                      "no process " + shown(wanted) + " answers in " + shown(folder) + did_you_mean(wanted, names));
    }
    if (meant.size() > 1)
        throw Failure(exit_usage, "which process is meant by " + shown(wanted) + ": " + shown_list(meant) + "?");
    return meant[0].path;
}

// The connection

Inspection::Inspection(const std::string &path, const Deadline &deadline) : path_(path), deadline_(deadline) {
    while (!connect()) {
        if (!deadline_.left()) deadline_.passed(shown(path_) + " does not answer", others_are_connected);
        std::this_thread::sleep_for(between_tries);
    }
}

Inspection::~Inspection() {
    if (fd_ >= 0) close(fd_);
}

void Inspection::fail(const std::string &why) {
    if (fd_ >= 0) close(std::exchange(fd_, -1));
    throw Failure(exit_unreachable, shown(path_) + ": " + why);
}

// False: others are connected, or about to be.
bool Inspection::connect() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path) fail("too long for a socket's path");
    path_.copy(address.sun_path, sizeof address.sun_path);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0) fail(std::strerror(errno));
    if (::connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
        const Record hello = next();
        const auto part = part_of<dm_inspect_hello>(hello.bytes);
        if (hello.what == DM_INSPECT_HELLO && part.version != DM_INSPECT_VERSION) {
            fail("it speaks version " + std::to_string(part.version) + ", and dmq " +
                 std::to_string(DM_INSPECT_VERSION));
        }
        name_ = behind<dm_inspect_hello>(hello.bytes);
        pid_ = part.pid;
        if (hello.what == DM_INSPECT_HELLO) return true;
        is_full_ = hello.what == DM_INSPECT_BUSY;
        if (!is_full_) fail("this is no process that lets itself be inspected");
    } else if (errno != EAGAIN) {
        fail(errno == ECONNREFUSED ? process_has_ended : std::strerror(errno));
    }
    close(std::exchange(fd_, -1));
    return false;
}

bool Inspection::wait(short events) {
    pollfd one = {fd_, events, 0};
    int n = 0;
    do n = poll(&one, 1, deadline_.left());
    while (n < 0 && errno == EINTR);
    return n > 0;
}

void Inspection::receive(void *to, size_t size) {
    auto *at = static_cast<char *>(to);
    while (size > 0) {
        const ssize_t n = recv(fd_, at, size, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) {
            if (!wait(POLLIN)) {
                deadline_.passed(shown(path_) + " does not answer",
                                 is_full_ ? others_are_connected : "it is stopped, or has no time");
            }
            continue;
        }
        if (n <= 0) fail("it has ended the connection");
        at += n;
        size -= static_cast<size_t>(n);
    }
}

Inspection::Record Inspection::next() {
    dm_inspect_record head{};
    receive(&head, sizeof head);
    if (head.length > longest_record) fail("this is no process that lets itself be inspected");
    Record record{head.what, std::string(head.length, '\0')};
    receive(record.bytes.data(), record.bytes.size());
    return record;
}

// A question is short: it goes at once.
void Inspection::ask(const std::string &line) {
    if (send(fd_, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size()))
        fail("it has ended the connection");
}

void Inspection::read_process(Picture &picture) {
    picture.name = name_;
    picture.pid = pid_;
    ask("process\n");
    for (Record record = next(); record.what != DM_INSPECT_END; record = next()) {
        if (record.what == DM_INSPECT_PROCESS) {
            picture.process = part_of<dm_inspect_process>(record.bytes);
            const std::string texts(behind<dm_inspect_process>(record.bytes));
            const char *const both = texts.c_str();
            picture.reason = both;
            const size_t second = picture.reason.size() + 1;
            picture.store = second < texts.size() ? both + second : "";
        } else if (record.what == DM_INSPECT_ROW) {
            const auto row = part_of<dm_inspect_row>(record.bytes);
            if (kind_of_row(row.type)) picture.rows[static_cast<size_t>(row.type)] = row;
        }
    }
}

void Inspection::read_objects(Picture &picture, int32_t row) {
    const ObjectKind *kind = kind_of_row(row);
    auto &objects = picture.objects[row];
    objects.clear();
    std::map<std::string, size_t> places;
    ask("objects " + std::to_string(row) + "\n");
    for (Record record = next(); record.what != DM_INSPECT_END; record = next()) {
        if (record.what == DM_INSPECT_AGAIN) {
            objects.clear();
            places.clear();
        }
        if (record.what != DM_INSPECT_OBJECT) continue;
        Message object = unpack(*kind->type, std::string(behind<dm_inspect_object>(record.bytes)));
        if (!object) fail("it has sent an object of row " + std::to_string(row) + " that is none");
        const auto [place, is_new] = places.try_emplace(packed_key(*object), objects.size());
        Seen seen{part_of<dm_inspect_object>(record.bytes), std::move(object)};
        if (is_new)
            objects.push_back(std::move(seen));
        else
            objects[place->second] = std::move(seen);
    }
}

void fill_cache(const Picture &picture) {
    const CacheLock lock;
    for (const auto &[row, objects] : picture.objects) {
        for (const auto &[about, object] : objects) {
            if (dm_cache_set_obj(row, object.get())) {
                throw Failure(exit_no,
                              object_name(*object) + " of " + picture.shown_name() + " does not fit into a cache");
            }
        }
    }
    for (const auto &[row, objects] : picture.objects) index_as_there(row, objects);
}

}  // namespace dmq
