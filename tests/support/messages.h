// Messages for tests: made by the name of their kind, their fields set by name. Knows the schema only; takes no lock.
#pragma once

#include "dmq/message.h"

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

// An owned message. A field is named by its path, "index.slotid"; messages on the way are made. A wrong path ends the run.
class Message {
public:
    using Value = std::pair<std::string_view, int64_t>;

    Message() = default;
    Message(std::string_view kind, std::initializer_list<Value> values = {});
    explicit Message(ProtobufCMessage *owned) : held_(owned) {}
    explicit Message(dmq::Message owned) : held_(std::move(owned)) {}

    static Message copy(const ProtobufCMessage *from) { return Message(dmq::copy(*from)); }
    static Message unpack(const ProtobufCMessageDescriptor *kind, const std::string &packed) {
        return Message(dmq::unpack(*kind, packed));
    }

    Message &&set(std::string_view path, int64_t value) &&;
    Message &&set(std::string_view path, std::string_view text) &&;  // a string or bytes

    ProtobufCMessage *get() const { return held_.get(); }
    ProtobufCMessage *release() { return held_.release(); }
    template <class T> T *as() const { return reinterpret_cast<T *>(held_.get()); }

private:
    dmq::Message held_;
};

std::string packed(const ProtobufCMessage *message);
bool equal(const ProtobufCMessage *a, const ProtobufCMessage *b);

// The key message of an object; null when the kind has none or it is not set.
ProtobufCMessage *key_message(const ProtobufCMessage *message);
std::string key_bytes(const ProtobufCMessage *message);  // packed; empty without key
std::string key_text(const ProtobufCMessage *message);   // "1.3.0": the fields in the order of their numbers

// What a delete carries: a message of the kind with nothing but the key.
Message key_only(const ProtobufCMessage *message);

// A field more of a packed message: a number, or a text or message.
void put_number(std::string &bytes, const ProtobufCFieldDescriptor &field, int32_t value);
void put_part(std::string &bytes, const ProtobufCFieldDescriptor &field, const std::string &part);
inline const ProtobufCMessageDescriptor &part_of(const ProtobufCFieldDescriptor &field) {
    return *static_cast<const ProtobufCMessageDescriptor *>(field.descriptor);
}

// A message whose fields, those of inner messages included, hold what `choose` says of each: a number, its last bit or a
// text made of it; or nothing. Element i of a repeated field of a message that was chosen as n is asked with n + i, any other
// field with n.
using Choose = std::function<std::optional<int32_t>(const ProtobufCFieldDescriptor &field, int32_t number)>;
Message filled(const ProtobufCMessageDescriptor &kind, int32_t number, const Choose &choose);

// The object with another key: its first fields in their order, but for the one that is never compared.
Message keyed(Message object, std::initializer_list<int32_t> key);

// What tests need most. Further fields by set().
Message complete();
Message card(int32_t devid, int32_t slot, int32_t sslot);
Message static_port(int32_t dev, int32_t slot, int32_t port, int32_t type);  // with attributes: unit 0, lport as port
Message local_port(int32_t unit, int32_t cport, int32_t lport);
Message global_port(int32_t vsdid, int32_t dev, int32_t slot, int32_t port, int32_t type, int32_t ifx);
Message vsd_port(int32_t dev, int32_t slot, int32_t port, int32_t type, int32_t ifx);
