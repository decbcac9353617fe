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

// A client that follows the place, once for each of its subscriptions.
struct Follower {
    MemClient *client;
    Ticket ticket;
};

// What lies at one place: its objects, in the order in which they first came, and who follows them.
struct Content {
    std::list<ObjectPtr> objects;
    std::unordered_map<std::string, std::list<ObjectPtr>::iterator> by_key;
    std::vector<Follower> followers;
};

}  // namespace

// Told under its lock: so every client hears of changes in the order in which they were made.
class MemStore {
public:
    mutable std::mutex mutex;
    uint64_t instance = 1;
    std::map<Place, Content> contents;
    std::vector<MemClient *> clients;

    void put(Content &content, ObjectPtr object);
    bool remove(Content &content, const std::string &key);
    void lose(MemClient &client);

private:
    void tell(const Content &content, const ObjectPtr &before, const ObjectPtr &after);
};

void MemStore::tell(const Content &content, const ObjectPtr &before, const ObjectPtr &after) {
    for (const Follower &follower : content.followers)
        if (follower.client->up_) follower.client->sink_.post(Changed{follower.ticket, before, after});
}

// A replaced object keeps its place in the order.
void MemStore::put(Content &content, ObjectPtr object) {
    const auto found = content.by_key.find(object->key);
    if (found != content.by_key.end()) {
        const ObjectPtr before = std::exchange(*found->second, object);
        return tell(content, before, object);
    }
    content.objects.push_back(object);
    try {
        content.by_key.emplace(object->key, std::prev(content.objects.end()));
    } catch (...) {
        content.objects.pop_back();
        throw;
    }
    tell(content, nullptr, object);
}

bool MemStore::remove(Content &content, const std::string &key) {
    const auto found = content.by_key.find(key);
    if (found == content.by_key.end()) return false;
    const ObjectPtr before = *found->second;
    content.objects.erase(found->second);
    content.by_key.erase(found);
    tell(content, before, nullptr);
    return true;
}

void MemStore::lose(MemClient &client) {
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
    for (auto &[place, content] : store_.contents)
        std::erase_if(content.followers, [this](const Follower &follower) { return follower.client == this; });
}

bool MemClient::up() const {
    const std::lock_guard lock(store_.mutex);
    return up_;
}

void MemClient::follow(const Place &place, const std::string *, const Ticket &ticket) {
    const std::lock_guard lock(store_.mutex);
    auto &followers = store_.contents[place].followers;
    if (std::none_of(followers.begin(), followers.end(), [&](const Follower &f) { return f.ticket == ticket; }))
        followers.push_back({this, ticket});
    if (up_ && confirmations_to_lose_ == 0) return sink_.post(Confirmed{ticket});
    owed_.push_back(ticket);
    if (up_) --confirmations_to_lose_;
}

// The whole content at one point of the order.
void MemClient::scan(const Place &place, const Ticket &ticket) {
    const std::lock_guard lock(store_.mutex);
    if (!up_) return;
    const Content &content = store_.contents[place];
    sink_.post(Page{ticket, {content.objects.begin(), content.objects.end()}, true});
}

int32_t MemClient::read(const Place &place, const std::string &key, ObjectPtr &object) {
    const std::lock_guard lock(store_.mutex);
    if (!up_) return TQ_MOM_E_UNREACHABLE;
    const Content &content = store_.contents[place];
    const auto found = content.by_key.find(key);
    if (found == content.by_key.end()) return TQ_MOM_E_NOT_FOUND;
    object = *found->second;
    return 0;
}

int32_t MemClient::read_all(const Place &place, std::vector<ObjectPtr> &objects) {
    const std::lock_guard lock(store_.mutex);
    if (!up_) return TQ_MOM_E_UNREACHABLE;
    const Content &content = store_.contents[place];
    objects.assign(content.objects.begin(), content.objects.end());
    return 0;
}

int32_t MemClient::write(const Place &place, Object object) {
    auto shared = std::make_shared<const Object>(std::move(object));
    const std::lock_guard lock(store_.mutex);
    if (!up_) return TQ_MOM_E_UNREACHABLE;
    store_.put(store_.contents[place], std::move(shared));
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
        ++taken;
    }
    return 0;
}

int32_t MemClient::erase(const Place &place, const std::string &key) {
    const std::lock_guard lock(store_.mutex);
    if (!up_) return TQ_MOM_E_UNREACHABLE;
    return store_.remove(store_.contents[place], key) ? 0 : TQ_MOM_E_NOT_FOUND;
}

int32_t MemClient::replace(const Place &place, const ObjectPtr &before, const ObjectPtr &after) {
    const std::lock_guard lock(store_.mutex);
    if (!up_) return TQ_MOM_E_UNREACHABLE;
    Content &content = store_.contents[place];
    const std::string &key = (after ? after : before)->key;
    const auto found = content.by_key.find(key);
    const bool is_there = found != content.by_key.end();
    if (is_there != (before != nullptr)) return TQ_MOM_E_CHANGED;
    if (is_there && (*found->second)->bytes != before->bytes) return TQ_MOM_E_CHANGED;
    if (after)
        store_.put(content, after);
    else
        store_.remove(content, key);
    return 0;
}

int32_t MemClient::disconnect() {
    const std::lock_guard lock(store_.mutex);
    store_.lose(*this);
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
    ++store_.instance;
    for (MemClient *client : store_.clients) store_.lose(*client);
    if (keep) return 0;
    for (auto &[place, content] : store_.contents) {
        content.by_key.clear();
        content.objects.clear();
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
