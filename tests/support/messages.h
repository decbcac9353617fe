#ifndef TQ_DM_TESTS_MESSAGES_H
#define TQ_DM_TESTS_MESSAGES_H

// Messages for tests: make one by the name of its kind, set fields by name, give it to the store or to the cache. Knows
// the schema only; takes no lock.

#include <protobuf-c/protobuf-c.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

// An owned message. A field is named by its path, "index.slotid"; messages on the way are made. A wrong path ends the
// program with its name.
class Message {
public:
    using Field = std::pair<std::string_view, int64_t>;

    Message() = default;
    Message(std::string_view kind, std::initializer_list<Field> fields = {});
    explicit Message(ProtobufCMessage *owned) : held_(owned) {}

    static Message copy(const ProtobufCMessage *from);
    static Message unpack(const ProtobufCMessageDescriptor *kind, const std::string &packed);

    Message &&set(std::string_view path, int64_t value) &&;
    Message &&set(std::string_view path, std::string_view text) &&;  // a string or bytes

    ProtobufCMessage *get() const { return held_.get(); }
    ProtobufCMessage *release() { return held_.release(); }
    template <class T> T *as() const { return reinterpret_cast<T *>(held_.get()); }

private:
    struct Free {
        void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
    };
    std::unique_ptr<ProtobufCMessage, Free> held_;
};

std::string packed(const ProtobufCMessage *message);
bool equal(const ProtobufCMessage *a, const ProtobufCMessage *b);

// The message in field `index`; null when the kind has none or it is not set.
ProtobufCMessage *key_of(const ProtobufCMessage *message);

// What a delete carries: a message of the kind with nothing but the key.
Message key_only(const ProtobufCMessage *message);

// What tests need most. Further fields by set().
Message complete();
Message card(int32_t devid, int32_t slot, int32_t sslot);
Message static_port(int32_t dev, int32_t slot, int32_t port, int32_t type);  // with attributes: unit 0, lport as port
Message local_port(int32_t unit, int32_t cport, int32_t lport);
Message global_port(int32_t vsdid, int32_t dev, int32_t slot, int32_t port, int32_t type, int32_t ifx);
Message vsd_port(int32_t dev, int32_t slot, int32_t port, int32_t type, int32_t ifx);

#endif
