// How the messages of the schema are copied and compared: for each kind a plan, which says where in the structure plain
// values lie and where a pointer does. A copy takes the structure as a whole and then visits the pointers alone; it is,
// field by field, what packing and unpacking would give: an absent string is the empty one, a boolean is 0 or 1.
//
// A plan is for messages that are of their own kinds all through and carry no unknown fields; what it does not cover has to
// be packed. No kind with a plan holds itself, so that the walks end. Plans are made at the first question for one and
// constant from then on. Any thread. Takes no lock; the making has a mutex of its own.
#pragma once

#include <cstddef>
#include <cstdint>

#include <protobuf-c/protobuf-c.h>

namespace dm {

enum class Part : uint8_t {
    plain,     // bytes that mean what they are
    booleans,  // any number but 0 is 1
    float_4,   // minus zero is zero
    float_8,
    string,
    bytes,
    message,
    numbers,  // this and the next two: repeated; of four bytes each
    strings,
    messages,
};

// One part of a structure: a field, or neighbouring fields of plain values or of booleans.
struct Step {
    uint16_t offset;
    uint16_t extent;  // plain: bytes. Booleans: how many. Repeated: the offset of the count
    uint16_t inner;   // messages: the number of their plan
    Part part;
};

// How one kind is copied and compared: constant once made.
struct Plan {
    const ProtobufCMessageDescriptor *descriptor;
    const Step *plain;    // where the bytes are all there is to it
    const Step *visited;  // the rest
    const Step *end;
};

// Null for a kind that is not of the schema or has fields which no plan covers.
const Plan *plan_of(const ProtobufCMessageDescriptor *descriptor);
const Plan &plan_numbered(uint16_t number);

// What a copy of a message takes, all that it points to included. The structures lie first, aligned, then the texts.
struct Extent {
    size_t structures = 0;
    size_t texts = 0;
};

// False when the plan does not cover this very message, or when it is so large that its packed size matters.
bool measure(const Plan &plan, const ProtobufCMessage *message, Extent &extent);

// Where a copy lies: in pieces from malloc, or in one block of the measured extent.
class Memory {
public:
    Memory() = default;
    Memory(void *block, const Extent &extent)
        : structures_(static_cast<char *>(block)), texts_(structures_ + extent.structures) {}

    // Null when malloc failed, now or before.
    void *structure(size_t size);
    void *text(size_t size);
    bool failed() const { return failed_; }

private:
    void *piece(size_t size);

    char *structures_ = nullptr;  // null: from malloc
    char *texts_ = nullptr;
    bool failed_ = false;
};

// The copy of a message that was measured. When memory has failed it lacks fields, or is null; it can be freed.
ProtobufCMessage *copy_by_plan(const Plan &plan, const ProtobufCMessage *message, Memory &memory);

enum class Comparison { same, different, not_covered };

// Whether both pack to the same bytes.
Comparison compare(const Plan &plan, const ProtobufCMessage *a, const ProtobufCMessage *b);

}  // namespace dm
