// Copies of messages: what goes out to a caller (dm_cache_copy_obj) and what the cache keeps (store_copy). A message of the
// schema is copied by its plan; what no plan covers is packed into a buffer and unpacked from it, which gives the same.
// Takes no lock.
#include "base/message.h"

#include "base/log.h"
#include "base/plan.h"

static constexpr dm::LogTag log_tag{"dm_cache"};

namespace dm {
namespace {

enum CopyCode : int32_t { copy_size = -2, copy_memory = -3, copy_pack = -4, copy_unpack = -5 };

// Stands before a stored message, and before each of its pieces when it is not one block. What follows is aligned for every
// field that a message can have.
struct alignas(int64_t) StoredHeader {
    uint32_t owners;
    uint32_t in_pieces;
};

StoredHeader *header_of(void *stored) {
    return static_cast<StoredHeader *>(stored) - 1;
}

void *allocate_piece(void *, size_t size) {
    if (size > SIZE_MAX - sizeof(StoredHeader)) return nullptr;
    auto *header = static_cast<StoredHeader *>(malloc(sizeof(StoredHeader) + size));
    return header ? header + 1 : nullptr;
}

void free_piece(void *, void *piece) {
    free(header_of(piece));
}

ProtobufCAllocator pieces{allocate_piece, free_piece, nullptr};

int32_t no_memory(const ProtobufCMessage *src, Caller caller) {
    DM_LOG_AS(caller, failure, "key[%p] malloc buffer fail.\n", static_cast<const void *>(src));
    return copy_memory;
}

int32_t not_unpacked(Caller caller) {
    DM_LOG_AS(caller, failure, "unpack val failed.\n");
    return copy_unpack;
}

int32_t copy_packed(const ProtobufCMessage *src, const ProtobufCMessageDescriptor *descriptor,
                    ProtobufCAllocator *allocator, ProtobufCMessage **out, Caller caller) {
    const size_t size = protobuf_c_message_get_packed_size(src);
    const int32_t shown = static_cast<int32_t>(size);
    if (shown < 0) {
        DM_LOG_AS(caller, failure, "key[%p] get packed size fail[%d].\n", static_cast<const void *>(src), shown);
        return copy_size;
    }
    // A message whose fields hold their defaults packs to nothing; not every calloc answers 0 bytes with a pointer.
    const OwnedMemory<uint8_t> buffer(static_cast<uint8_t *>(calloc(1, size > 0 ? size : 1)));
    if (!buffer) return no_memory(src, caller);
    const size_t packed = protobuf_c_message_pack(src, buffer.get());
    if (packed != size) {
        DM_LOG_AS(caller, failure, "key[%p] do pack fail[%d][%d].\n", static_cast<const void *>(src), shown,
                  static_cast<int32_t>(packed));
        return copy_pack;
    }
    *out = protobuf_c_message_unpack(descriptor, allocator, size, buffer.get());
    return *out ? 0 : not_unpacked(caller);
}

// The plan of this very message, and what its copy takes; null when it has to be packed.
const Plan *plan_for(const ProtobufCMessage *src, const ProtobufCMessageDescriptor *descriptor, Extent &extent) {
    const Plan *const plan = src->descriptor == descriptor ? plan_of(descriptor) : nullptr;
    return plan && measure(*plan, src, extent) ? plan : nullptr;
}

int32_t copy(const ProtobufCMessage *src, const ProtobufCMessageDescriptor *descriptor, ProtobufCMessage **out,
             Caller caller = Caller{}) {
    Extent extent;
    const Plan *const plan = plan_for(src, descriptor, extent);
    if (!plan) return copy_packed(src, descriptor, nullptr, out, caller);
    Memory memory;
    OwnedMessage made(copy_by_plan(*plan, src, memory));
    if (!made) return no_memory(src, caller);
    if (memory.failed()) return not_unpacked(caller);
    *out = made.release();
    return 0;
}

int32_t store(const ProtobufCMessage *src, const ProtobufCMessageDescriptor *descriptor, ProtobufCMessage **out,
              Caller caller = Caller{"dm_cache_copy_obj"}) {
    Extent extent;
    const Plan *const plan = plan_for(src, descriptor, extent);
    if (!plan) {
        const int32_t code = copy_packed(src, descriptor, &pieces, out, caller);
        if (*out) *header_of(*out) = {.owners = 1, .in_pieces = 1};
        return code;
    }
    auto *const header = static_cast<StoredHeader *>(malloc(sizeof(StoredHeader) + extent.structures + extent.texts));
    if (!header) return no_memory(src, caller);
    *header = {.owners = 1, .in_pieces = 0};
    Memory memory(header + 1, extent);
    *out = copy_by_plan(*plan, src, memory);
    return 0;
}

bool same_packed(const ProtobufCMessage *a, const ProtobufCMessage *b) {
    const size_t size = protobuf_c_message_get_packed_size(a);
    if (size != protobuf_c_message_get_packed_size(b)) return false;
    const OwnedMemory<uint8_t> bytes(static_cast<uint8_t *>(calloc(2, size)));
    if (!bytes) return size == 0;
    protobuf_c_message_pack(a, bytes.get());
    protobuf_c_message_pack(b, bytes.get() + size);
    return std::memcmp(bytes.get(), bytes.get() + size, size) == 0;
}

}  // namespace

int32_t store_copy(const ProtobufCMessage *src, const ProtobufCMessageDescriptor *descriptor, StoredMessage &out) {
    out.reset();
    if (!src || !descriptor) return -1;
    ProtobufCMessage *made = nullptr;
    const int32_t code = store(src, descriptor, &made);
    out.reset(made);
    return code;
}

StoredMessage share(ProtobufCMessage *stored) {
    if (stored) __atomic_fetch_add(&header_of(stored)->owners, 1, __ATOMIC_RELAXED);
    return StoredMessage(stored);
}

void ReleaseStored::operator()(ProtobufCMessage *message) const {
    StoredHeader *const header = header_of(message);
    // What other owners read comes before the block is freed.
    if (__atomic_fetch_sub(&header->owners, 1, __ATOMIC_ACQ_REL) != 1) return;
    if (header->in_pieces)
        protobuf_c_message_free_unpacked(message, &pieces);
    else
        free(header);
}

bool same_content(const ProtobufCMessage *a, const ProtobufCMessage *b) {
    if (a == b) return true;
    const Plan *const plan = a->descriptor == b->descriptor ? plan_of(a->descriptor) : nullptr;
    const Comparison result = plan ? compare(*plan, a, b) : Comparison::not_covered;
    return result == Comparison::not_covered ? same_packed(a, b) : result == Comparison::same;
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
