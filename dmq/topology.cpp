// Reading goes entry by entry: each is verified and turned into a message when its last brace is read, and forgotten, so a
// large file takes the memory of its messages.
#include "dmq/topology.h"

#include <sys/stat.h>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <tuple>

#include "dmq/names.h"
#include "dmq/output.h"

namespace dmq {

namespace {

using Event = Json::parse_event_t;

// The levels at which the parser reports: the array itself is 0, its entries are 1.
enum { level_file = 0, level_entry = 1 };

// Reads entry by entry while the parser runs: a file of any size holds one entry as JSON at a time.
class Reader {
public:
    explicit Reader(std::string file) : file_(std::move(file)) {}

    std::vector<Entry> read(const std::string &text) {
        try {
            std::ignore =
                Json::parse(text, [this](int level, Event event, Json &value) { return take(level, event, value); });
        } catch (const Json::exception &error) {  // a number too large for any type is no parse error
            const std::string what = error.what();
            const size_t begin = what.find(']') + 2;  // behind the library's own name for it
            refuse("not JSON: " + what.substr(begin, what.find("; last read") - begin));
        }
        return std::move(entries_);
    }

private:
    // Entries begun so far: the first is 1, none yet is 0.
    [[noreturn]] void refuse(const std::string &what) const {
        throw Failure(exit_usage, file_ + (number_ ? ": entry " + std::to_string(number_) : "") + ": " + what);
    }

    // What a Failure tells, with file and entry in front.
    template <class Call> auto located(Call call) const {
        try {
            return call();
        } catch (const Failure &failure) {
            refuse(failure.what());
        }
    }

    bool take(int level, Event event, Json &value) {
        if (level > deepest) refuse("nested deeper than " + std::to_string(deepest));
        if (level == level_file && event != Event::array_start && event != Event::array_end)
            refuse("a topology is an array of entries");
        if (level == level_entry && (event == Event::array_start || event == Event::value)) {
            ++number_;
            refuse("an entry is an object with db, kind and object");
        }
        if (event == Event::object_start) keys_.emplace_back();
        if (event == Event::object_start && level == level_entry) ++number_;
        if (event == Event::key && !keys_.back().insert(value.get<std::string>()).second)
            refuse("the key " + dump(value) + " is given twice in one object");
        if (event == Event::object_end) keys_.pop_back();
        if (event != Event::object_end || level != level_entry) return true;
        add(value);
        return false;
    }

    const Json &member(const Json &entry, const char *name) const {
        const auto found = entry.find(name);
        if (found == entry.end()) refuse("has no " + std::string(name));
        return *found;
    }

    void add(const Json &entry) {
        for (const auto &[name, value] : entry.items()) {
            if (name != "db" && name != "kind" && name != "object")
                refuse("an entry has db, kind and object, not " + dump(name));
        }
        const Json &db = member(entry, "db");
        const Json &kind = member(entry, "kind");
        if (!db.is_number_unsigned() || db.get<uint64_t>() > UINT32_MAX)
            refuse("db needs the number of a database, not " + dump(db));
        if (!kind.is_string()) refuse("kind needs a name, not " + dump(kind));
        const auto *type = located([&] { return &find_type(kind.get<std::string>()); });
        const Json &object = member(entry, "object");
        Message message = located([&] { return from_json(object, *type, type->name); });
        if (const auto *key = key_field(*type); key && object.contains(key->name))
            located([&] { need_whole_key(*type, object[key->name]); });
        keep(db.get<uint32_t>(), std::move(message));
    }

    void keep(uint32_t db, Message message) {
        const auto &type = *message->descriptor;
        if (key_field(type) && !key_of(*message))
            refuse(std::string(type.name) + ": has no index, the key of its kind");
        const auto [same, added] = seen_.try_emplace({db, &type, packed_key(*message)}, number_);
        if (!added)
            refuse(std::string(type.name) + ": the same db, kind and index as entry " + std::to_string(same->second));
        entries_.push_back({db, std::move(message)});
    }

    std::string file_;
    size_t number_ = 0;
    std::vector<std::set<std::string>> keys_;  // of the objects that are open
    std::map<std::tuple<uint32_t, const ProtobufCMessageDescriptor *, std::string>, size_t> seen_;
    std::vector<Entry> entries_;
};

}  // namespace

std::string read_file(const std::string &file) {
    constexpr size_t largest = 64 << 20;  // many times what a cache can hold
    const std::unique_ptr<FILE, int (*)(FILE *)> stream(file == "-" ? fdopen(dup(0), "r") : fopen(file.c_str(), "r"),
                                                        [](FILE *f) { return f ? fclose(f) : 0; });
    if (!stream) throw Failure(exit_usage, file + ": " + std::strerror(errno));
    std::string text;
    struct stat status = {};
    if (fstat(fileno(stream.get()), &status) == 0 && static_cast<size_t>(status.st_size) <= largest)
        text.reserve(static_cast<size_t>(status.st_size));
    char block[1 << 16];
    while (const size_t got = fread(block, 1, sizeof block, stream.get())) {
        if (text.append(block, got).size() > largest)
            throw Failure(exit_usage, file + ": larger than " + std::to_string(largest >> 20) + " MiB");
    }
    if (ferror(stream.get())) throw Failure(exit_usage, file + ": " + std::strerror(errno));
    return text;
}

std::vector<Entry> parse_topology(const std::string &name, const std::string &text) {
    return Reader(name).read(text);
}

std::vector<Entry> read_topology(const std::string &file) {
    return parse_topology(file, read_file(file));
}

Json entry_json(uint32_t db, const ProtobufCMessage &object) {
    return {{"db", db}, {"kind", object.descriptor->name}, {"object", to_json(object, Fields::set)}};
}

void TopologyWriter::add(const Json &entry) {
    text_ += (first_ ? "[\n" : ",\n") + dump(entry);
    first_ = false;
    if (text_.size() < (1 << 16)) return;
    print(text_);
    text_.clear();
}

void TopologyWriter::finish() {
    print(text_ + (first_ ? "[]\n" : "\n]\n"));
    text_.clear();
}

std::string key_words(const ProtobufCMessage &object) {
    std::string words;
    const ProtobufCMessage *key = key_of(object);
    if (!key) return words;
    const Json fields = to_json(*key, Fields::all);
    for (const auto &[name, value] : fields.items()) {
        if (is_never_compared(name) && value == 0) continue;
        words += (words.empty() ? "" : " ") + name + "=" + dump(value);
    }
    return words;
}

std::string object_name(const ProtobufCMessage &object) {
    const std::string words = key_words(object);
    return object.descriptor->name + (words.empty() ? "" : " " + words);
}

}  // namespace dmq
