// The rival: hiredis and protobuf-c and nothing else. One connection hears, another commands; no loop, no second
// thread, no thought of a server that goes away.
#pragma once

#include <hiredis.h>
#include <protobuf-c/protobuf-c.h>

#include <functional>
#include <memory>
#include <string>

#include "platform/redis_wire.h"

namespace bench {

using Context = std::unique_ptr<redisContext, void (*)(redisContext *)>;
Context connect(const std::string &socket);
std::string formatted(const std::vector<std::string_view> &words);

class BareSubscriber {
public:
    explicit BareSubscriber(const std::string &socket);
    BareSubscriber(const BareSubscriber &) = delete;

    void subscribe(const std::string &channel);  // and waits until it is
    // Unpacks every object of a kind, and frees it. How many they were.
    int scan(const ProtobufCMessageDescriptor &kind);
    // The same for every push, until stop() is called by another thread.
    void follow(const ProtobufCMessageDescriptor &kind, const std::function<void()> &heard);
    void stop();

private:
    using Reply = std::unique_ptr<redisReply, void (*)(void *)>;
    static Reply next(const Context &context);
    void ask_page(const std::string &hash, const std::string &cursor);
    bool hear();  // the next frame

    Context feed_, link_;
    const std::string private_channel_ = tq::new_private_channel();
    Reply heard_{nullptr, freeReplyObject};
    tq::Frame frame_;  // points into what was heard
};

}  // namespace bench
