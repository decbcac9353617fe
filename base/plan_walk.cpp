// What is done along a plan: measure, copy, compare. Takes no lock.
//
// A message is measured before it is copied, and what a copy relies on is asked there alone: that the plan covers the message and
// all in it, that no array or entry is missing, that all of it fits. A comparison measures nothing, and asks for each message that
// it meets whether the plan covers it.
#include <bit>
#include <cstdlib>
#include <cstring>
#include <span>
#include <utility>

#include "base/plan.h"

namespace dm {
namespace {

// Of structures and of texts. A packed message is at most four times as large, far from a size that is refused.
constexpr size_t extent_limit = 16 << 20;

// Structures lie side by side in a block, and there are 64-bit numbers in them.
constexpr size_t aligned(size_t size) {
    return (size + 7) & ~size_t{7};
}

template <class T> T &at(ProtobufCMessage *message, uint16_t offset) {
    return *reinterpret_cast<T *>(reinterpret_cast<char *>(message) + offset);
}

template <class T> const T &at(const ProtobufCMessage *message, uint16_t offset) {
    return at<T>(const_cast<ProtobufCMessage *>(message), offset);
}

template <class T> std::span<T> repeated(const ProtobufCMessage *message, Step step) {
    return {at<T *>(message, step.offset), at<size_t>(message, step.extent)};
}

std::span<const Step> visited(const Plan &plan) {
    return {plan.visited, plan.end};
}

// False beyond the limit, long before a sum could begin at zero again.
bool grow(size_t &part, size_t size) {
    if (size > extent_limit) return false;
    part += size;
    return part <= extent_limit;
}

bool measure_text(const char *text, Extent &extent) {
    return grow(extent.texts, strnlen(text, extent_limit) + 1);
}

template <class T> bool measure_array(std::span<T> array, Extent &extent) {
    if (array.empty()) return true;
    return array.data() && array.size() <= extent_limit && grow(extent.structures, aligned(array.size() * sizeof(T)));
}

bool measure_strings(std::span<char *> strings, Extent &extent) {
    if (!measure_array(strings, extent)) return false;
    for (const char *string : strings)
        if (!string || !measure_text(string, extent)) return false;
    return true;
}

bool measure_messages(const Plan &plan, std::span<ProtobufCMessage *> messages, Extent &extent) {
    if (!measure_array(messages, extent)) return false;
    for (const ProtobufCMessage *message : messages)
        if (!message || !measure(plan, message, extent)) return false;
    return true;
}

bool measure_part(Step step, const ProtobufCMessage *message, Extent &extent) {
    switch (step.part) {
        case Part::string: {
            const char *const string = at<char *>(message, step.offset);
            return !string || !*string || measure_text(string, extent);
        }
        case Part::bytes: {
            const auto &bytes = at<ProtobufCBinaryData>(message, step.offset);
            return bytes.len == 0 || (bytes.data && grow(extent.texts, bytes.len));
        }
        case Part::message: {
            const ProtobufCMessage *const inner = at<ProtobufCMessage *>(message, step.offset);
            return !inner || measure(plan_numbered(step.inner), inner, extent);
        }
        case Part::numbers:
            return measure_array(repeated<uint32_t>(message, step), extent);
        case Part::strings:
            return measure_strings(repeated<char *>(message, step), extent);
        case Part::messages:
            return measure_messages(plan_numbered(step.inner), repeated<ProtobufCMessage *>(message, step), extent);
        default:
            return true;
    }
}

template <class T> T *copied(void *memory, const T *from, size_t size) {
    return static_cast<T *>(memory ? std::memcpy(memory, from, size) : nullptr);
}

char *copy_text(const char *text, Memory &memory) {
    const size_t size = strnlen(text, extent_limit) + 1;
    return copied(memory.text(size), text, size);
}

// An array of its own in place of the source's; its pointers are still the source's.
template <class T> std::span<T> copy_array(ProtobufCMessage *message, Step step, Memory &memory) {
    const std::span<T> from = repeated<T>(message, step);
    T *&array = at<T *>(message, step.offset);
    array = from.empty() ? nullptr : copied(memory.structure(from.size_bytes()), from.data(), from.size_bytes());
    return {array, array ? from.size() : 0};
}

// A packed message leaves out a zero of either sign, so what is unpacked has the positive one.
template <class T> void positive_zero(T &number) {
    if (number == 0) number = 0;
}

// `message` holds what the source does; the part is made its own.
void copy_part(Step step, ProtobufCMessage *message, Memory &memory) {
    switch (step.part) {
        case Part::plain:
            return;
        case Part::booleans: {
            auto *const booleans = &at<protobuf_c_boolean>(message, step.offset);
            for (uint16_t i = 0; i < step.extent; ++i) booleans[i] = booleans[i] != 0;
            return;
        }
        case Part::float_4:
            positive_zero(at<float>(message, step.offset));
            return;
        case Part::float_8:
            positive_zero(at<double>(message, step.offset));
            return;
        case Part::string: {
            auto *&string = at<const char *>(message, step.offset);
            string = string && *string ? copy_text(string, memory) : protobuf_c_empty_string;
            return;
        }
        case Part::bytes: {
            auto &bytes = at<ProtobufCBinaryData>(message, step.offset);
            bytes.data = bytes.len ? copied(memory.text(bytes.len), bytes.data, bytes.len) : nullptr;
            return;
        }
        case Part::message: {
            auto *&inner = at<ProtobufCMessage *>(message, step.offset);
            if (inner) inner = copy_by_plan(plan_numbered(step.inner), inner, memory);
            return;
        }
        case Part::numbers:
            copy_array<uint32_t>(message, step, memory);
            return;
        case Part::strings:
            for (char *&string : copy_array<char *>(message, step, memory)) string = copy_text(string, memory);
            return;
        case Part::messages:
            for (auto *&inner : copy_array<ProtobufCMessage *>(message, step, memory))
                inner = copy_by_plan(plan_numbered(step.inner), inner, memory);
            return;
    }
}

Comparison known(bool same) {
    return same ? Comparison::same : Comparison::different;
}

// By their bits, as they would be packed: a number that is none equals itself. Either zero would be left out.
template <class Bits, class T> bool same_number(T a, T b) {
    return (a == 0 && b == 0) || std::bit_cast<Bits>(a) == std::bit_cast<Bits>(b);
}

bool same_booleans(const protobuf_c_boolean *a, const protobuf_c_boolean *b, uint16_t count) {
    for (uint16_t i = 0; i < count; ++i)
        if (!a[i] != !b[i]) return false;
    return true;
}

bool same_string(const char *a, const char *b) {
    return std::strcmp(a ? a : "", b ? b : "") == 0;
}

bool same_bytes(const ProtobufCBinaryData &a, const ProtobufCBinaryData &b) {
    return a.len == b.len && (a.len == 0 || std::memcmp(a.data, b.data, a.len) == 0);
}

Comparison compare_inner(Step step, const ProtobufCMessage *a, const ProtobufCMessage *b) {
    if (!a || !b) return known(a == b);
    return compare(plan_numbered(step.inner), a, b);
}

Comparison compare_strings(std::span<char *> a, std::span<char *> b) {
    if (a.size() != b.size()) return Comparison::different;
    for (size_t i = 0; i < a.size(); ++i)
        if (!same_string(a[i], b[i])) return Comparison::different;
    return Comparison::same;
}

Comparison compare_messages(Step step, std::span<ProtobufCMessage *> a, std::span<ProtobufCMessage *> b) {
    Comparison so_far = known(a.size() == b.size());
    for (size_t i = 0; i < a.size() && so_far == Comparison::same; ++i) so_far = compare_inner(step, a[i], b[i]);
    return so_far;
}

bool same_numbers(std::span<uint32_t> a, std::span<uint32_t> b) {
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size_bytes()) == 0);
}

Comparison compare_part(Step step, const ProtobufCMessage *a, const ProtobufCMessage *b) {
    const uint16_t offset = step.offset;
    switch (step.part) {
        case Part::plain:
            return known(std::memcmp(&at<char>(a, offset), &at<char>(b, offset), step.extent) == 0);
        case Part::booleans:
            return known(
                same_booleans(&at<protobuf_c_boolean>(a, offset), &at<protobuf_c_boolean>(b, offset), step.extent));
        case Part::float_4:
            return known(same_number<uint32_t>(at<float>(a, offset), at<float>(b, offset)));
        case Part::float_8:
            return known(same_number<uint64_t>(at<double>(a, offset), at<double>(b, offset)));
        case Part::string:
            return known(same_string(at<char *>(a, offset), at<char *>(b, offset)));
        case Part::bytes:
            return known(same_bytes(at<ProtobufCBinaryData>(a, offset), at<ProtobufCBinaryData>(b, offset)));
        case Part::message:
            return compare_inner(step, at<ProtobufCMessage *>(a, offset), at<ProtobufCMessage *>(b, offset));
        case Part::numbers:
            return known(same_numbers(repeated<uint32_t>(a, step), repeated<uint32_t>(b, step)));
        case Part::strings:
            return compare_strings(repeated<char *>(a, step), repeated<char *>(b, step));
        case Part::messages:
            return compare_messages(step, repeated<ProtobufCMessage *>(a, step), repeated<ProtobufCMessage *>(b, step));
    }
    return Comparison::not_covered;
}

bool covers(const Plan &plan, const ProtobufCMessage *message) {
    return message->descriptor == plan.descriptor && message->n_unknown_fields == 0;
}

}  // namespace

bool measure(const Plan &plan, const ProtobufCMessage *message, Extent &extent) {
    if (message->descriptor != plan.descriptor || message->n_unknown_fields != 0) return false;
    if (!grow(extent.structures, aligned(plan.descriptor->sizeof_message))) return false;
    for (const Step step : visited(plan))
        if (!measure_part(step, message, extent)) return false;
    return true;
}

void *Memory::piece(size_t size) {
    void *const memory = failed_ ? nullptr : malloc(size);
    failed_ = !memory;
    return memory;
}

void *Memory::structure(size_t size) {
    if (!structures_) return piece(size);
    return std::exchange(structures_, structures_ + aligned(size));
}

void *Memory::text(size_t size) {
    if (!structures_) return piece(size);
    return std::exchange(texts_, texts_ + size);
}

// The whole structure at once, plain values and the source's pointers alike; then each pointer gets something of its own.
ProtobufCMessage *copy_by_plan(const Plan &plan, const ProtobufCMessage *message, Memory &memory) {
    const size_t size = plan.descriptor->sizeof_message;
    auto *const copy = copied(memory.structure(size), message, size);
    if (!copy) return nullptr;
    copy->unknown_fields = nullptr;
    for (const Step step : visited(plan)) copy_part(step, copy, memory);
    return copy;
}

// Not as one piece of memory: between fields there may be bytes that mean nothing.
Comparison compare(const Plan &plan, const ProtobufCMessage *a, const ProtobufCMessage *b) {
    if (!covers(plan, a) || !covers(plan, b)) return Comparison::not_covered;
    Comparison so_far = Comparison::same;
    for (const Step *step = plan.plain; step != plan.end && so_far == Comparison::same; ++step)
        so_far = compare_part(*step, a, b);
    return so_far;
}

}  // namespace dm
