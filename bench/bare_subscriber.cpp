// The bare subscriber. Whoever calls it waits in it.
#include "bench/bare_subscriber.h"

#include <sys/socket.h>
#include <stdexcept>

namespace bench {

namespace {

void unpack(const ProtobufCMessageDescriptor &kind, std::string_view bytes, const std::function<void()> &use) {
    ProtobufCMessage *message =
        protobuf_c_message_unpack(&kind, nullptr, bytes.size(), reinterpret_cast<const uint8_t *>(bytes.data()));
    if (!message) throw std::runtime_error("an object does not unpack");
    use();
    protobuf_c_message_free_unpacked(message, nullptr);
}

}  // namespace

Context connect(const std::string &socket) {
    return {redisConnectUnix(socket.c_str()), redisFree};
}

std::string formatted(const std::vector<std::string_view> &words) {
    std::vector<const char *> data;
    std::vector<size_t> sizes;
    for (const std::string_view word : words) {
        data.push_back(word.data());
        sizes.push_back(word.size());
    }
    char *bytes = nullptr;
    const int size = redisFormatCommandArgv(&bytes, static_cast<int>(words.size()), data.data(), sizes.data());
    const std::unique_ptr<char, void (*)(char *)> owner(bytes, redisFreeCommand);
    return {bytes, static_cast<size_t>(size)};
}

BareSubscriber::BareSubscriber(const std::string &socket) : feed_(connect(socket)), link_(connect(socket)) {
    if (feed_->err || link_->err) throw std::runtime_error("no server at " + socket);
    subscribe(private_channel_);
}

BareSubscriber::Reply BareSubscriber::next(const Context &context) {
    void *reply = nullptr;
    redisGetReply(context.get(), &reply);
    return {static_cast<redisReply *>(reply), freeReplyObject};
}

void BareSubscriber::subscribe(const std::string &channel) {
    redisAppendCommand(feed_.get(), "SUBSCRIBE %b", channel.data(), channel.size());
    if (!next(feed_)) throw std::runtime_error(feed_->errstr);
}

bool BareSubscriber::hear() {
    heard_ = next(feed_);
    if (!heard_ || heard_->elements != 3) return false;
    const redisReply &bytes = *heard_->element[2];
    return tq::parse_frame({bytes.str, bytes.len}, frame_);
}

// Sent, not waited for.
void BareSubscriber::ask_page(const std::string &hash, const std::string &cursor) {
    const std::string command = formatted({"HSCAN", hash, cursor, "COUNT", "256"});
    redisAppendFormattedCommand(link_.get(), command.data(), command.size());
    for (int done = 0; !done;) redisBufferWrite(link_.get(), &done);
}

// The server makes the next page while this one is unpacked.
int BareSubscriber::scan(const ProtobufCMessageDescriptor &kind) {
    const std::string hash = tq::hash_of({1, kind.name});
    int objects = 0;
    std::string cursor = "0";
    ask_page(hash, cursor);
    do {
        const Reply page = next(link_);
        if (!page || page->elements != 2) throw std::runtime_error("a page is missing");
        cursor = page->element[0]->str;
        if (cursor != "0") ask_page(hash, cursor);
        const redisReply &list = *page->element[1];
        for (size_t i = 1; i < list.elements; i += 2)
            unpack(kind, {list.element[i]->str, list.element[i]->len}, [&] { ++objects; });
    } while (cursor != "0");
    return objects;
}

void BareSubscriber::follow(const ProtobufCMessageDescriptor &kind, const std::function<void()> &heard) {
    while (hear()) unpack(kind, frame_.strings[1], heard);
}

void BareSubscriber::stop() {
    ::shutdown(feed_->fd, SHUT_RDWR);
}

}  // namespace bench
