// The plans of all kinds of messages, made from their descriptors and found by them. Takes no lock; one mutex of its own guards
// the making.
#include "base/plan.h"

#include <pthread.h>

#include <iterator>
#include <optional>

#include "tq_dm_cache/dm_schema.h"

namespace dm {
namespace {

// More than the schema has: what finds no room has no plan. A test asks for the plan of every kind.
Plan plans[256];
Step steps[1024];
uint16_t plan_count = 0;
uint16_t step_count = 0;

// Open addressing, at most half full: the number of a plan plus one, 0 is free.
constexpr uint32_t slot_bits = 9;
uint16_t slots[1 << slot_bits];
static_assert(std::size(slots) == 2 * std::size(plans));

pthread_mutex_t making = PTHREAD_MUTEX_INITIALIZER;
bool made = false;

// The slot where a kind is, or would be.
uint16_t &slot_of(const ProtobufCMessageDescriptor *descriptor) {
    const auto address = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(descriptor) >> 3);
    uint32_t at = (address * 0x9E3779B1U) >> (32 - slot_bits);
    while (slots[at] != 0 && plans[slots[at] - 1].descriptor != descriptor) at = (at + 1) % std::size(slots);
    return slots[at];
}

std::optional<Part> repeated_part(const ProtobufCFieldDescriptor &field) {
    switch (field.type) {
        case PROTOBUF_C_TYPE_INT32:
        case PROTOBUF_C_TYPE_UINT32:
        case PROTOBUF_C_TYPE_ENUM:
            return Part::numbers;
        case PROTOBUF_C_TYPE_STRING:
            return Part::strings;
        case PROTOBUF_C_TYPE_MESSAGE:
            return Part::messages;
        default:
            return std::nullopt;
    }
}

std::optional<Part> single_part(const ProtobufCFieldDescriptor &field) {
    switch (field.type) {
        case PROTOBUF_C_TYPE_BOOL:
            return Part::booleans;
        case PROTOBUF_C_TYPE_FLOAT:
            return Part::float_4;
        case PROTOBUF_C_TYPE_DOUBLE:
            return Part::float_8;
        case PROTOBUF_C_TYPE_STRING:
            return Part::string;
        case PROTOBUF_C_TYPE_BYTES:
            return Part::bytes;
        case PROTOBUF_C_TYPE_MESSAGE:
            return Part::message;
        default:
            return Part::plain;
    }
}

// Fields of proto3 without `optional` and `oneof`; nothing else is in the schema.
std::optional<Part> part_of(const ProtobufCFieldDescriptor &field) {
    if (field.flags & PROTOBUF_C_FIELD_FLAG_ONEOF) return std::nullopt;
    if (field.default_value && field.default_value != protobuf_c_empty_string) return std::nullopt;
    if (field.label == PROTOBUF_C_LABEL_REPEATED) return repeated_part(field);
    if (field.label == PROTOBUF_C_LABEL_NONE) return single_part(field);
    return std::nullopt;
}

uint16_t plain_size(const ProtobufCFieldDescriptor &field) {
    switch (field.type) {
        case PROTOBUF_C_TYPE_INT64:
        case PROTOBUF_C_TYPE_SINT64:
        case PROTOBUF_C_TYPE_SFIXED64:
        case PROTOBUF_C_TYPE_UINT64:
        case PROTOBUF_C_TYPE_FIXED64:
            return 8;
        default:
            return 4;
    }
}

std::optional<Step> step_of(const ProtobufCFieldDescriptor &field) {
    const std::optional<Part> part = part_of(field);
    if (!part) return std::nullopt;
    Step step{static_cast<uint16_t>(field.offset), 0, 0, *part};
    if (*part == Part::plain) step.extent = plain_size(field);
    if (*part == Part::booleans) step.extent = 1;
    if (field.label == PROTOBUF_C_LABEL_REPEATED) step.extent = static_cast<uint16_t>(field.quantifier_offset);
    if (field.type == PROTOBUF_C_TYPE_MESSAGE) {
        const uint16_t inner = slot_of(static_cast<const ProtobufCMessageDescriptor *>(field.descriptor));
        if (inner == 0) return std::nullopt;
        step.inner = static_cast<uint16_t>(inner - 1);
    }
    return step;
}

// One step may do for two fields that are of one sort and lie side by side.
bool merge(Step &last, const Step &next) {
    if (last.part != next.part || last.part > Part::booleans) return false;
    const size_t unit = last.part == Part::plain ? 1 : sizeof(protobuf_c_boolean);
    if (last.offset + last.extent * unit != next.offset) return false;
    last.extent = static_cast<uint16_t>(last.extent + next.extent);
    return true;
}

// Appends the steps of one sort behind `end`, which moves; false when a field has none or there is no room.
bool append_steps(const ProtobufCMessageDescriptor *descriptor, bool plain, Step *&end) {
    Step *const first = end;
    for (unsigned i = 0; i < descriptor->n_fields; ++i) {
        const std::optional<Step> step = step_of(descriptor->fields[i]);
        if (!step) return false;
        if ((step->part == Part::plain) != plain) continue;
        if (end != first && merge(end[-1], *step)) continue;
        if (end == std::end(steps)) return false;
        *end++ = *step;
    }
    return true;
}

bool add_plan(const ProtobufCMessageDescriptor *descriptor) {
    if (plan_count == std::size(plans) || descriptor->sizeof_message > UINT16_MAX) return false;
    Step *const plain = steps + step_count;
    Step *end = plain;
    if (!append_steps(descriptor, /*plain=*/true, end)) return false;
    Step *const visited = end;
    if (!append_steps(descriptor, /*plain=*/false, end)) return false;
    slot_of(descriptor) = static_cast<uint16_t>(plan_count + 1);
    plans[plan_count++] = {descriptor, plain, visited, end};
    step_count = static_cast<uint16_t>(end - steps);
    return true;
}

// A message comes after those that it holds; one that holds itself never comes.
void make_plans() {
    uint32_t count = 0;
    const ProtobufCMessageDescriptor *const *const messages = dm_schema_messages(&count);
    for (bool grown = true; grown;) {
        grown = false;
        for (uint32_t i = 0; i < count; ++i)
            if (slot_of(messages[i]) == 0) grown |= add_plan(messages[i]);
    }
}

}  // namespace

const Plan *plan_of(const ProtobufCMessageDescriptor *descriptor) {
    if (!__atomic_load_n(&made, __ATOMIC_ACQUIRE)) {
        pthread_mutex_lock(&making);
        if (!made) make_plans();
        __atomic_store_n(&made, true, __ATOMIC_RELEASE);
        pthread_mutex_unlock(&making);
    }
    const uint16_t number = slot_of(descriptor);
    return number ? &plans[number - 1] : nullptr;
}

const Plan &plan_numbered(uint16_t number) {
    return plans[number];
}

}  // namespace dm
