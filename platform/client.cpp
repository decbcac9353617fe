// One client of a store: requests and delivery. mutex_ guards its tables; each delivery takes from them what it needs and
// calls back without it.
#include "platform/client.h"

#include <algorithm>
#include <utility>

#include "platform/process.h"
#include "platform/redis_url.h"

namespace tq {

namespace {

thread_local const Call *innermost = nullptr;

bool same_subscription(const Request &a, const Request &b) {
    return a.place == b.place && a.listener == b.listener && a.key == b.key && a.fields == b.fields;
}

store_msg new_msg(const Request &request, int32_t cmd) {
    store_msg msg = {};
    msg.db = request.place.db;
    msg.cmd = cmd;
    return msg;
}

// Who hears of a change of an object whose fields are followed, each once. An object that comes or goes changes all of
// its fields.
std::vector<Listener> affected(const Request &request, const Changed &event) {
    std::vector<Listener> listeners;
    for (const FollowedField &field : request.fields) {
        if (event.before && event.after && !field_differs(event.before->bytes, event.after->bytes, field.number))
            continue;
        if (std::find(listeners.begin(), listeners.end(), field.listener) == listeners.end())
            listeners.push_back(field.listener);
    }
    return listeners;
}

}  // namespace

Client::Client() : process_(this_process()) {}

bool Client::is_of_this_process() const {
    return process_ == this_process();
}

Call::Call(const tq_mom_handle *handle) : client_(client_of(handle)), outer_(innermost) {
    if (client_ && !client_->enter()) client_ = nullptr;
    innermost = this;
}

Call::~Call() {
    innermost = outer_;
    if (client_) client_->leave();
}

bool Call::is_in(const Client &client) {
    const Call *call = innermost;
    while (call && call->client_ != &client) call = call->outer_;
    return call != nullptr;
}

bool Client::enter() {
    const std::lock_guard lock(calls_mutex_);
    if (!closing_) ++calls_;
    return !closing_;
}

void Client::leave() {
    const std::lock_guard lock(calls_mutex_);
    --calls_;
    calls_over_.notify_all();
}

bool Client::is_closing() {
    const std::lock_guard lock(calls_mutex_);
    return closing_;
}

bool Client::close() {
    if (Call::is_in(*this)) return false;
    {
        const std::lock_guard lock(calls_mutex_);
        if (std::exchange(closing_, true)) return false;
    }
    store_->end();
    {
        const std::lock_guard lock(mutex_);
        back_.notify_all();
    }
    std::unique_lock lock(calls_mutex_);
    calls_over_.wait(lock, [this] { return calls_ == 0; });
    return true;
}

std::unique_ptr<Client> Client::open(const char *url, int32_t &error) {
    std::unique_ptr<Client> client(new Client);
    client->handle_ = {client.get(), &client->loop_};
    client->shown_store_ = url_without_secret(url);
    client->store_ = open_store(url, *client, client->loop_, error);
    if (!client->store_) return nullptr;
    client->tells_at_once_ = client->store_->tells_at_once();
    return client;
}

Client::~Client() {
    ++epoch_;  // ends a scan that is being delivered
    loop_.stop();
}

void Client::connect(tq_mom_ready_cb ready, uintptr_t privdata) {
    {
        const std::lock_guard lock(mutex_);
        ready_.push_back({ready, privdata});
    }
    loop_.post([this] {
        if (up_) call_ready();
    });
}

// The loop's own thread cannot wait for the loop.
bool Client::wait_connected(std::chrono::milliseconds timeout) {
    if (loop_.on_own_thread()) return store_->up();
    std::unique_lock lock(mutex_);
    back_.wait_for(lock, timeout, [this] { return is_closing() || store_->up(); });
    return !is_closing() && store_->up();
}

void Client::set_reconnect(uint32_t db, tq_mom_reconnect_cb callback) {
    const std::lock_guard lock(mutex_);
    reconnect_[db] = callback;
}

void Client::set_connection(tq_mom_connection_cb callback, void *privdata) {
    {
        const std::lock_guard lock(mutex_);
        connection_ = {callback, privdata};
    }
    loop_.post([this] { tell_connection(0); });
}

// The lock is held over both: a delivery sees a subscription only when the store has it.
void Client::subscribe(Request request) {
    const std::lock_guard lock(mutex_);
    auto found = std::find_if(subscriptions_.begin(), subscriptions_.end(),
                              [&](const Ticket &other) { return same_subscription(*other, request); });
    if (found == subscriptions_.end())
        found = subscriptions_.insert(found, std::make_shared<Request>(std::move(request)));
    Request &kept = **found;
    kept.number = ++requests_;
    store_->follow(kept.place, kept.fields.empty() ? nullptr : &kept.key, *found);
}

void Client::scan(Request request) {
    const auto ticket = std::make_shared<Request>(std::move(request));
    {
        const std::lock_guard lock(mutex_);
        ticket->number = ++requests_;
    }
    store_->scan(ticket->place, ticket);
}

void Client::forget(tq_mom_msg_cb callback) {
    const std::lock_guard lock(mutex_);
    forgotten_[callback] = requests_;
    has_forgotten_ = true;
}

bool Client::is_forgotten(const Request &request) {
    if (!has_forgotten_) return false;
    const std::lock_guard lock(mutex_);
    const auto last = forgotten_.find(request.listener.callback);
    return last != forgotten_.end() && request.number <= last->second;
}

int32_t Client::scan_here(const Request &request) {
    std::vector<ObjectPtr> objects;
    if (const int32_t error = store_->read_all(request.place, objects)) return error;
    for (const ObjectPtr &object : objects) reply(request, *object);
    return 0;
}

int32_t Client::read(const Place &place, const ProtobufCMessageDescriptor &kind, const std::string &key,
                     ProtobufCMessage *&message) {
    ObjectPtr found;
    if (const int32_t error = store_->read(place, key, found)) return error;
    Decoded decoded = decode(kind, *found);
    if (decoded.error) {
        damaged_ += decoded.error == TQ_MOM_E_DAMAGED;
        return decoded.error;
    }
    message = decoded.message.release();
    return 0;
}

// What the store has may be packed in another way than this library packs it: the messages are compared here, the bytes at
// the store.
int32_t Client::replace(const Target &target, const ProtobufCMessage *before, const ProtobufCMessage *after) {
    ObjectPtr stored;
    if (before) {
        if (const int32_t error = store_->read(target.place, *target.key, stored))
            return error == TQ_MOM_E_NOT_FOUND ? TQ_MOM_E_CHANGED : error;
        const Decoded decoded = decode(*target.kind, *stored);
        if (decoded.error == TQ_MOM_E_MEMORY) return decoded.error;
        if (decoded.error || pack(*decoded.message) != pack(*before)) return TQ_MOM_E_CHANGED;
    }
    const ObjectPtr made = after ? std::make_shared<const Object>(Object{*target.key, pack(*after)}) : nullptr;
    return store_->replace(target.place, stored, made);
}

// What is lost for lack of memory, here or there, is missed until all is scanned again.
template <class Deliver> void Client::post_counted(Deliver deliver) {
    const auto counted = [this](const auto &act) {
        try {
            act();
        } catch (...) {
            has_missed_ = true;
            --undelivered_;
            throw;
        }
    };
    ++undelivered_;
    counted([&] {
        loop_.post([this, counted, deliver = std::move(deliver)] {
            counted(deliver);
            --undelivered_;
        });
    });
}

void Client::post(Event event) {
    if (tells_at_once_) note_heard(Clock::now());
    const uint64_t epoch = epoch_;
    const auto deliver_it = [this, epoch](const auto &it) {
        if (!is_forgotten(*it.ticket)) deliver(it, epoch);
    };
    post_counted([deliver_it, event = std::move(event)] { std::visit(deliver_it, event); });
}

void Client::heard_until(Clock::time_point when) {
    const uint64_t epoch = epoch_;
    loop_.post([this, epoch, when] {
        if (epoch == epoch_ && !has_missed_) heard_until_ = when.time_since_epoch();
    });
}

void Client::lost() {
    if (tells_at_once_) note_heard(Clock::now());
    ++epoch_;
    post_counted([this] {
        up_ = false;
        tell_connection(0);
    });
}

void Client::connected(int32_t reason, std::vector<Ticket> owed) {
    post_counted([this, reason, owed = std::move(owed)] { on_connected(reason, owed); });
}

// The connection stood then, and what is posted meanwhile is younger.
void Client::note_heard(Clock::time_point then) {
    if (undelivered_ == 0 && !has_missed_) heard_until_ = then.time_since_epoch();
}

int64_t Client::heard_ms_ago() {
    const Clock::time_point now = Clock::now();  // before it is asked whether the connection stands
    if (tells_at_once_ && store_->up()) note_heard(now);
    const Clock::duration until = heard_until_;
    if (until == never) return -1;
    return std::chrono::ceil<std::chrono::milliseconds>(Clock::now().time_since_epoch() - until).count();
}

// It was in force, and a loss since then is told behind it.
void Client::deliver(const Confirmed &event, uint64_t) {
    confirm(*event.ticket);
}

void Client::deliver(const OnHold &event, uint64_t epoch) {
    if (epoch != epoch_) return;
    const Request &request = *event.ticket;
    result_rec record = {nullptr, {}, TQ_MOM_RESULT_HELD};
    store_msg msg = new_msg(request, event.is_scan ? TQ_MOM_CMD_REPLY : TQ_MOM_CMD_SUBSCRIBED);
    msg.result = TQ_MOM_RESULT_HELD;
    if (event.is_scan) msg.value = &record;
    request.listener.callback(&handle_, &msg, request.listener.privdata);
}

void Client::deliver(const Changed &event, uint64_t epoch) {
    if (epoch != epoch_) return;
    const Request &request = *event.ticket;
    if (request.fields.empty()) return push(request, request.listener, event);

    const Object &object = event.after ? *event.after : *event.before;
    if (object.key != request.key) return;
    for (const Listener &listener : affected(request, event)) push(request, listener, event);
}

void Client::deliver(const Page &event, uint64_t epoch) {
    for (const ObjectPtr &object : event.objects) {
        if (epoch != epoch_) return;
        reply(*event.ticket, *object);
    }
    if (!event.last || epoch != epoch_) return;
    store_msg end = new_msg(*event.ticket, TQ_MOM_CMD_REPLY);
    end.flag = 1;
    event.ticket->listener.callback(&handle_, &end, event.ticket->listener.privdata);
}

void Client::push(const Request &request, const Listener &listener, const Changed &event) {
    const Decoded decoded =
        event.after ? decode(*request.kind, *event.after) : Decoded{key_only(*request.kind, event.before->key), 0};
    if (decoded.error == TQ_MOM_E_DAMAGED) ++damaged_;
    store_msg msg = new_msg(request, event.after ? TQ_MOM_CMD_SET : TQ_MOM_CMD_DELETE);
    msg.value = decoded.message.get();
    msg.result = decoded.error;
    listener.callback(&handle_, &msg, listener.privdata);
}

// One object of a scan, on the thread that runs it.
void Client::reply(const Request &request, const Object &object) {
    const Decoded decoded = decode(*request.kind, object);
    if (decoded.error == TQ_MOM_E_DAMAGED) ++damaged_;
    result_rec record = {decoded.message.get(), {}, decoded.error};
    store_msg msg = new_msg(request, TQ_MOM_CMD_REPLY);
    msg.value = &record;
    request.listener.callback(&handle_, &msg, request.listener.privdata);
}

void Client::confirm(const Request &request) {
    store_msg msg = new_msg(request, TQ_MOM_CMD_SUBSCRIBED);
    request.listener.callback(&handle_, &msg, request.listener.privdata);
}

// The store follows everything again already; what was owed comes before the news.
void Client::on_connected(int32_t reason, const std::vector<Ticket> &owed) {
    up_ = true;
    has_missed_ = false;
    std::map<uint32_t, tq_mom_reconnect_cb> reconnect;
    {
        const std::lock_guard lock(mutex_);
        reconnect = reconnect_;
        back_.notify_all();
    }
    tell_connection(reason);
    for (const Ticket &ticket : owed)
        if (!is_forgotten(*ticket)) confirm(*ticket);
    call_ready();
    for (const auto &[db, callback] : reconnect) callback(nullptr, db, reason, nullptr);
}

void Client::tell_connection(int32_t reason) {
    ConnectionListener listener;
    {
        const std::lock_guard lock(mutex_);
        listener = connection_;
    }
    if (listener.callback) listener.callback(&handle_, up_ ? 1 : 0, reason, listener.privdata);
}

void Client::call_ready() {
    std::vector<Ready> ready;
    {
        const std::lock_guard lock(mutex_);
        ready.swap(ready_);
    }
    for (const Ready &owed : ready) owed.callback(nullptr, owed.privdata);
}

}  // namespace tq
