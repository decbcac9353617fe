// The names of things, and the search by them.
#include "dmq/things.h"

#include <algorithm>
#include <set>
#include <sstream>

#include "dmq/names.h"
#include "dmq/output.h"
#include "dmq/session.h"

namespace dmq {

namespace {

using Record = std::vector<Json>;

// What a thing is called: these columns with a / between them. Of `sub?` nothing is left where it is 0, of `slot!` the device is
// left out, of `name^` all but the last word. Of the ranks the first one that fits anything is meant.
constexpr struct {
    std::string_view view;
    int rank;
    const char *columns;
} names[] = {
    {"devices", 0, "dev"},
    {"devices", 0, "name"},
    {"devices", 1, "serial"},
    {"devices", 1, "mac"},
    {"devices", 2, "type"},
    {"slots", 0, "slot"},
    {"slots", 1, "node"},
    {"slots", 2, "slot!"},
    {"cards", 0, "slot sub?"},
    {"cards", 1, "node"},
    {"cards", 1, "dev pslot sub"},
    {"cards", 1, "dcm"},
    {"cards", 1, "mac"},
    {"cards", 2, "card"},
    {"cards", 2, "slot! sub?"},
    {"cards", 2, "uslot"},
    {"cards", 2, "pslot"},
    {"chips", 0, "name"},
    {"ports", 0, "name"},
    {"ports", 0, "name^"},
    {"ports", 0, "slot sub? port"},
    {"ports", 1, "objid"},
    {"ports", 1, "dev pslot lport"},
    {"ports", 2, "ifx"},
    {"ports", 2, "lport"},
    {"ports", 2, "port"},
};
constexpr int ranks = 3;

// Which number of which thing an argument is.
constexpr struct {
    std::string_view argument;
    const char *view;
    const char *column;
} numbers[] = {
    {"node", "slots", "node"},
    {"node", "cards", "node"},
    {"objid", "ports", "objid"},
    {"phyid", "ports", "objid"},
    {"devid", "devices", "dev"},
    {"dev", "devices", "dev"},
    {"slot", "slots", "pslot"},
    {"physlot", "slots", "pslot"},
    {"user_slot", "slots", "uslot"},
    {"device_type", "devices", "type_number"},
    {"card_type", "cards", "type_number"},
    {"chip_type", "chips", "type_number"},
    {"dcm_addr", "cards", "dcm"},
};

// Null: a part of it is not known.
Json name_of(const Record &record, const std::vector<std::string> &columns, const char *parts) {
    std::istringstream stream(parts);
    std::string name, part;
    while (stream >> part) {
        const char mark = part.back();
        const bool is_marked = mark == '?' || mark == '!' || mark == '^';
        if (is_marked) part.pop_back();
        const Json &cell = record[find_column(columns, part)];
        if (cell.is_null()) return nullptr;
        if (mark == '?' && cell == 0) continue;
        const std::string text = cell.is_string() ? cell.get<std::string>() : cell_text(cell);
        const size_t end_of_front = mark == '!' ? text.rfind('/') : mark == '^' ? text.rfind(' ') : std::string::npos;
        name += (name.empty() ? "" : "/") + text.substr(end_of_front + 1);
    }
    return name;
}

std::vector<size_t> called(const View &view, const std::vector<const Record *> &records, const std::string &word) {
    const auto columns = columns_of(view);
    for (int rank = 0; rank < ranks; ++rank) {
        std::vector<size_t> found;
        for (size_t i = 0; i < records.size(); ++i) {
            const bool fits = std::any_of(std::begin(names), std::end(names), [&](const auto &one) {
                if (one.view != view.name || one.rank != rank) return false;
                const Json name = name_of(*records[i], columns, one.columns);
                return !name.is_null() && means(word, name);
            });
            if (fits) found.push_back(i);
        }
        if (!found.empty()) return found;
    }
    return {};
}

// What an operator calls the things of a table: each once, and without the word Slot.
std::vector<std::string> names_in_use(const View &view, const std::vector<Record> &records) {
    constexpr std::string_view slot = "Slot ";
    std::vector<std::string> used;
    std::set<std::string> seen;
    for (const auto &one : names) {
        if (one.view != view.name || one.rank > 0) continue;
        for (const Record &record : records) {
            const Json name = name_of(record, columns_of(view), one.columns);
            if (name.is_null()) continue;
            std::string text = shown(name.get<std::string>());
            if (text.starts_with(slot)) text.erase(0, slot.size());
            if (seen.insert(text).second) used.push_back(std::move(text));
        }
    }
    return used;
}

}  // namespace

std::vector<Thing> find_things(const View &view, const std::string &name, const std::vector<Condition> &conditions) {
    std::vector<Thing> things;
    each_cached(view.row, [&](const ProtobufCMessage &object) {
        for (auto &record : records_of(view, object).rows)
            if (fits(record, conditions)) things.push_back({std::move(record), &object});
    });
    std::sort(things.begin(), things.end(), [](const Thing &a, const Thing &b) { return a.record < b.record; });
    if (name.empty()) return things;
    std::vector<const Record *> records;
    for (const Thing &thing : things) records.push_back(&thing.record);
    std::vector<Thing> found;
    for (const size_t i : called(view, records, name)) found.push_back(std::move(things[i]));
    return found;
}

std::vector<std::string> names_of_things(const View &view) {
    return names_in_use(view, make_table(view).rows);
}

std::string what_is_near(const View &view, const std::string &name) {
    constexpr size_t most = 40;
    const auto used = names_of_things(view);
    const std::string text = did_you_mean(name, used);
    if (used.size() > most) return text + "; show " + std::string(view.name) + " lists them";
    return text + listed(used);
}

std::vector<std::string> names_for(std::string_view argument) {
    for (const auto &one : numbers)
        if (one.argument == argument) return names_of_things(find_view(one.view));
    return {};
}

bool is_number_of_thing(std::string_view argument) {
    return std::any_of(std::begin(numbers), std::end(numbers),
                       [&](const auto &one) { return one.argument == argument; });
}

NumberOfThing number_of_thing(std::string_view argument, const std::string &name) {
    std::string near;
    for (const auto &one : numbers) {
        if (one.argument != argument) continue;
        const View &view = find_view(one.view);
        const Table table = make_table(view);
        std::vector<const Record *> records;
        for (const Record &record : table.rows) records.push_back(&record);
        std::vector<std::string> found;
        for (const size_t i : called(view, records, name)) {
            const std::string number = cell_text(table.rows[i][find_column(table.columns, one.column)]);
            if (std::find(found.begin(), found.end(), number) == found.end()) found.push_back(number);
        }
        if (found.size() == 1 && whole_number<int64_t>(found[0])) return {found[0], ""};
        if (found.size() > 1) return {"", no_such("; more than one is called", name, found)};
        if (near.empty()) near = what_is_near(view, name);
    }
    return {"", near};
}

}  // namespace dmq
