// Subscriptions of the reader's client, which is the cache's: what has come through the feed has come to dmq's own cache, too.
#include "dmq/verify_feed.h"

namespace dmq {

namespace {

// What a port has in common with the static port at its place, whatever else their keys have; empty: it is no port.
std::string port_place(const ProtobufCMessage &port) {
    const ProtobufCMessage *const key = key_of(port);
    std::string place;
    for (const char *name : {"t_dev", "t_slot", "t_sslot", "t_port", "t_type"}) {
        const auto *field = key ? find_field(*key->descriptor, name) : nullptr;
        if (!field) return "";
        place += std::to_string(at<int32_t>(*key, field->offset)) + "/";
    }
    return place;
}

}  // namespace

std::vector<uint64_t> changes_of(const Changes &changes, const ObjectId &id, const ProtobufCMessage *indexed) {
    std::vector<uint64_t> counts;
    for (const ObjectId &one : {id, ObjectId(DM_ROW_PORT_STATIC, indexed ? port_place(*indexed) : "")}) {
        const auto found = changes.find(one);
        counts.push_back(found == changes.end() ? 0 : found->second);
    }
    return counts;
}

Feed::~Feed() {
    const bool is_forgotten = tq_mom_client_forget(session_.reader(), hear) == 0;
    const bool is_over = is_forgotten && tq_mom_client_drain(session_.reader(), session_.time_left()) == 0;
    if (!is_over) static_cast<void>(heard_.release());  // a callback may still use it
}

void Feed::mark() {
    for (const ObjectKind &kind : std::span(kinds_).first(asked_ ? 1 : kinds_.size())) {
        const Message any = new_message(*kind.type);
        if (tq_mom_subscribe(session_.reader(), kind.db, any.get(), 0, hear, heard_.get()))
            throw Failure(exit_unreachable, "cannot follow " + std::string(kind.type->name));
        ++asked_;
    }
    std::unique_lock guard(heard_->lock);
    if (!heard_->changed.wait_for(guard, std::chrono::milliseconds(session_.time_left()),
                                  [this] { return heard_->answers >= asked_; }))
        throw Failure(exit_timeout, "the store did not answer in time: waited for a mark in its feed");
}

Changes Feed::changes() {
    const std::lock_guard guard(heard_->lock);
    return heard_->changes;
}

int32_t Feed::hear(tq_mom_handle *, store_msg *msg, void *privdata) {
    Heard &heard = *static_cast<Heard *>(privdata);
    const std::lock_guard guard(heard.lock);
    if (msg->cmd == TQ_MOM_CMD_SUBSCRIBED) ++heard.answers;
    const auto *object = static_cast<const ProtobufCMessage *>(msg->value);
    if ((msg->cmd == TQ_MOM_CMD_SET || msg->cmd == TQ_MOM_CMD_DELETE) && object) {
        const int32_t row = kind_of(*object->descriptor).row;
        ++heard.changes[{row, packed_key(*object)}];
        if (row == DM_ROW_PORT_STATIC) ++heard.changes[{row, port_place(*object)}];
    }
    heard.changed.notify_all();
    return 0;
}

}  // namespace dmq
