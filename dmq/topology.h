// Topology files: a JSON array of {"db": 1, "kind": "p_dev.card_info", "object": {...}}. A file is read and verified whole
// before anything of it is used. Takes no lock, touches neither cache nor store.
#pragma once

#include "dmq/json.h"

namespace dmq {

struct Entry {
    uint32_t db;
    Message object;
};

// "-" reads standard input. Throws a Failure that names the file, the entry (the first is 1) and the reason.
std::vector<Entry> read_topology(const std::string &file);

// A whole file, or standard input for "-", of a bounded size. Throws a Failure.
std::string read_file(const std::string &file);

// The same from memory; `name` stands for the file in messages.
std::vector<Entry> parse_topology(const std::string &name, const std::string &text);

Json entry_json(uint32_t db, const ProtobufCMessage &object);

// Prints an array of entries as it is made, one entry a line.
class TopologyWriter {
public:
    TopologyWriter() = default;
    TopologyWriter(const TopologyWriter &) = delete;
    void add(const Json &entry);
    void finish();

private:
    std::string text_;
    bool first_ = true;
};

// An object's key as words that the commands take: "devid=1 slotid=3 sslotid=0". Empty for a kind without key.
std::string key_words(const ProtobufCMessage &object);

// The same behind the name of its kind.
std::string object_name(const ProtobufCMessage &object);

}  // namespace dmq
