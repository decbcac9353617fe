// The embedded store. One lock a store guards its content and the state of its clients' connections; sinks are told
// under it, which makes its order theirs, and they only queue.
#include "platform/mem_store.h"

#include <algorithm>
#include <atomic>
#include <list>
#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "platform/process.h"
#include "tq_dm_cache/tq_platform_bundled.h"

namespace tq {

namespace {

struct Follower {
    MemClient *client;
    Ticket ticket;
};

// One kind's objects, in the order in which they first came, and who follows them.
struct Kind {
    std::list<ObjectPtr> objects;
    std::unordered_map<std::string, std::list<ObjectPtr>::iterator> by_key;
    std::vector<Follower> followers;
};

}  // namespace

class MemStore {
public:
    mutable std::mutex mutex;
    uint64_t instance = 1;
    std::map<Place, Kind> kinds;
    std::vector<MemClient *> clients;

    void put(Kind &kind, ObjectPtr object);
    bool remove(Kind &kind, const std::string &key);
    void cut_off(MemClient &client);

private:
    void tell(const Kind &kind, const ObjectPtr &before, const ObjectPtr &after);
};

void MemStore::tell(const Kind &kind, const ObjectPtr &before, const ObjectPtr &after) {
    for (const Follower &follower : kind.followers) {
        if (follower.client->up_) follower.client->sink_.post(Changed{follower.ticket, before, after});
    }
}

// A replaced object keeps its place in the order.
void MemStore::put(Kind &kind, ObjectPtr object) {
    const auto found = kind.by_key.find(object->key);
    if (found != kind.by_key.end()) {
        const ObjectPtr before = std::exchange(*found->second, object);
        return tell(kind, before, object);
    }
    kind.objects.push_back(object);
    try {
        kind.by_key.emplace(object->key, std::prev(kind.objects.end()));
    } catch (...) {
        kind.objects.pop_back();
        throw;
    }
    tell(kind, nullptr, object);
}

bool MemStore::remove(Kind &kind, const std::string &key) {
    const auto found = kind.by_key.find(key);
    if (found == kind.by_key.end()) return false;
    const ObjectPtr before = *found->second;
    kind.objects.erase(found->second);
    kind.by_key.erase(found);
    tell(kind, before, nullptr);
    return true;
}

void MemStore::cut_off(MemClient &client) {
    if (!client.up_) return;
    client.up_ = false;
    client.sink_.lost();
}

MemClient::MemClient(MemStore &store, Sink &sink) : store_(store), sink_(sink) {
    const std::lock_guard lock(store_.mutex);
    instance_ = store_.instance;
    store_.clients.push_back(this);
}

MemClient::~MemClient() {
    const std::lock_guard lock(store_.mutex);
    std::erase(store_.clients, this);
    for (auto &[place, kind] : store_.kinds) {
        std::erase_if(kind.followers, [this](const Follower &follower) { return follower.client == this; });
    }
}

bool MemClient::up() const {
    const std::lock_guard lock(store_.mutex);
    return up_;
}

void MemClient::follow(const Place &place, const std::string *, const Ticket &ticket) {
    const std::lock_guard lock(store_.mutex);
    auto &followers = store_.kinds[place].followers;
    if (std::none_of(followers.begin(), followers.end(), [&](const Follower &f) { return f.ticket == ticket; })) {
        followers.push_back({this, ticket});
    }
    if (up_ && confirmations_to_lose_ == 0) return sink_.post(Confirmed{ticket});
    owed_.push_back(ticket);
    if (up_) confirmations_to_lose_--;
}

// The whole content at one point of the order.
void MemClient::scan(const Place &place, const Ticket &ticket) {
    const std::lock_guard lock(store_.mutex);
    if (!up_) return;
    const Kind &kind = store_.kinds[place];
    sink_.post(Page{ticket, {kind.objects.begin(), kind.objects.end()}, true});
}

int32_t MemClient::read(const Place &place, const std::string &key, ObjectPtr &object) {
    const std::lock_guard lock(store_.mutex);
    if (!up_) return TQ_MOM_E_UNREACHABLE;
    const Kind &kind = store_.kinds[place];
    const auto found = kind.by_key.find(key);
    if (found == kind.by_key.end()) return TQ_MOM_E_NOT_FOUND;
    object = *found->second;
    return 0;
}

int32_t MemClient::read_all(const Place &place, std::vector<ObjectPtr> &objects) {
    const std::lock_guard lock(store_.mutex);
    if (!up_) return TQ_MOM_E_UNREACHABLE;
    const Kind &kind = store_.kinds[place];
    objects.assign(kind.objects.begin(), kind.objects.end());
    return 0;
}

int32_t MemClient::write(const Place &place, Object object) {
    auto shared = std::make_shared<const Object>(std::move(object));
    const std::lock_guard lock(store_.mutex);
    if (!up_) return TQ_MOM_E_UNREACHABLE;
    store_.put(store_.kinds[place], std::move(shared));
    return 0;
}

int32_t MemClient::write_many(const std::vector<Write> &writes, size_t &taken, size_t &refused) {
    taken = 0;
    refused = writes.size();
    for (const auto &[place, object] : writes) {
        if (const int32_t error = write(place, object)) {
            refused = taken;
            return error;
        }
        taken++;
    }
    return 0;
}

int32_t MemClient::erase(const Place &place, const std::string &key) {
    const std::lock_guard lock(store_.mutex);
    if (!up_) return TQ_MOM_E_UNREACHABLE;
    return store_.remove(store_.kinds[place], key) ? 0 : TQ_MOM_E_NOT_FOUND;
}

int32_t MemClient::replace(const Place &place, const ObjectPtr &before, const ObjectPtr &after) {
    const std::lock_guard lock(store_.mutex);
    if (!up_) return TQ_MOM_E_UNREACHABLE;
    Kind &kind = store_.kinds[place];
    const std::string &key = (after ? after : before)->key;
    const auto found = kind.by_key.find(key);
    const bool is_there = found != kind.by_key.end();
    if (is_there != (before != nullptr)) return TQ_MOM_E_CHANGED;
    if (is_there && (*found->second)->bytes != before->bytes) return TQ_MOM_E_CHANGED;
    if (after) {
        store_.put(kind, after);
    } else {
        store_.remove(kind, key);
    }
    return 0;
}

int32_t MemClient::disconnect() {
    const std::lock_guard lock(store_.mutex);
    store_.cut_off(*this);
    return 0;
}

int32_t MemClient::reconnect() {
    const std::lock_guard lock(store_.mutex);
    if (up_) return 0;
    up_ = true;
    const int32_t reason = instance_ == store_.instance ? 1 : 2;
    instance_ = store_.instance;
    sink_.connected(reason, std::exchange(owed_, {}));
    return 0;
}

int32_t MemClient::restart(bool keep) {
    const std::lock_guard lock(store_.mutex);
    store_.instance++;
    for (MemClient *client : store_.clients) store_.cut_off(*client);
    if (keep) return 0;
    for (auto &[place, kind] : store_.kinds) {
        kind.by_key.clear();
        kind.objects.clear();
    }
    return 0;
}

int32_t MemClient::lose_confirmations(int32_t n) {
    const std::lock_guard lock(store_.mutex);
    confirmations_to_lose_ = n;
    return 0;
}

// Stores are never destroyed: a client's thread may still run while the process ends. A child begins with none.
MemStore &mem_store(const std::string &name) {
    struct Registry {
        std::mutex mutex;
        std::map<std::string, MemStore> stores;
    };
    static std::atomic<Registry *> registry = [] {
        run_in_child([] { registry = new Registry; });
        return new Registry;
    }();
    Registry &now = *registry;
    const std::lock_guard lock(now.mutex);
    return now.stores[name];
}

}  // namespace tq
