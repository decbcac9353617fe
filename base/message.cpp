// The deep copy: a message packed into a buffer and unpacked from it. What goes into the cache and what goes out to a
// caller are such copies. Takes no lock.
#include "base/message.h"

#include "base/log.h"

static constexpr char log_tag[] = "dm_cache";

namespace dm {
namespace {

enum CopyCode : int32_t { copy_size = -2, copy_memory = -3, copy_pack = -4, copy_unpack = -5 };

int32_t copy(const ProtobufCMessage *src, const ProtobufCMessageDescriptor *descriptor, ProtobufCMessage **out,
             Caller caller = Caller{}) {
    const size_t size = protobuf_c_message_get_packed_size(src);
    const int32_t shown = static_cast<int32_t>(size);
    if (shown < 0) {
        DM_LOG_AS(caller, failure, "key[%p] get packed size fail[%d].\n", static_cast<const void *>(src), shown);
        return copy_size;
    }
    // A message whose fields hold their defaults packs to nothing; not every calloc answers 0 bytes with a pointer.
    const OwnedMemory<uint8_t> buffer(static_cast<uint8_t *>(calloc(1, size > 0 ? size : 1)));
    if (!buffer) {
        DM_LOG_AS(caller, failure, "key[%p] malloc buffer fail.\n", static_cast<const void *>(src));
        return copy_memory;
    }
    const size_t packed = protobuf_c_message_pack(src, buffer.get());
    if (packed != size) {
        DM_LOG_AS(caller, failure, "key[%p] do pack fail[%d][%d].\n", static_cast<const void *>(src), shown,
                  static_cast<int32_t>(packed));
        return copy_pack;
    }
    *out = protobuf_c_message_unpack(descriptor, nullptr, size, buffer.get());
    if (!*out) {
        DM_LOG_AS(caller, failure, "unpack val failed.\n");
        return copy_unpack;
    }
    return 0;
}

}  // namespace

bool same_content(const ProtobufCMessage *a, const ProtobufCMessage *b) {
    const size_t size = protobuf_c_message_get_packed_size(a);
    if (size != protobuf_c_message_get_packed_size(b)) return false;
    const OwnedMemory<uint8_t> bytes(static_cast<uint8_t *>(calloc(2, size)));
    if (!bytes) return size == 0;
    protobuf_c_message_pack(a, bytes.get());
    protobuf_c_message_pack(b, bytes.get() + size);
    return std::memcmp(bytes.get(), bytes.get() + size, size) == 0;
}

}  // namespace dm

int32_t dm_cache_copy_obj(const void *src, const ProtobufCMessageDescriptor *descriptor, void *out) {
    if (!out) return -1;
    ProtobufCMessage *made = nullptr;
    const int32_t code =
        src && descriptor ? dm::copy(static_cast<const ProtobufCMessage *>(src), descriptor, &made) : -1;
    dm::put(out, made);
    return code;
}
