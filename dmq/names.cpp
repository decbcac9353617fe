// Which kinds there are is asked of the library: a table of its own rows, set up apart, before the cache starts.
#include "dmq/names.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <numeric>

#include "dmq/failure.h"
#include "dmq/output.h"
#include "tq_dm_cache/dm_cache.h"
#include "tq_dm_cache/dm_port_index.h"
#include "tq_dm_cache/dm_schema.h"

namespace dmq {

namespace {

// How many letters must be typed, dropped or changed to make one word of the other.
size_t distance(const std::string &a, const std::string &b) {
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t changed = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

std::span<const ProtobufCMessageDescriptor *const> all_types() {
    uint32_t count = 0;
    const auto *types = dm_schema_messages(&count);
    return {types, count};
}

ObjectKind need_kind_of_row(int32_t row) {
    if (const ObjectKind *kind = kind_of_row(row)) return *kind;
    std::string rows;
    for (const ObjectKind &kind : cached_kinds()) rows += (rows.empty() ? "" : ", ") + std::to_string(kind.row);
    throw Failure(exit_usage, "row " + std::to_string(row) + " holds no kind; the rows that do are " + rows);
}

std::vector<std::string> type_names() {
    std::vector<std::string> names;
    for (const auto *type : all_types()) {
        const std::string full = type->name;
        names.push_back(full);
        names.push_back(full.substr(full.find('.') + 1));
    }
    return names;
}

}  // namespace

std::string did_you_mean(const std::string &word, std::span<const std::string> candidates) {
    constexpr size_t longest = 100;  // no name is; and a long word takes long
    if (word.size() > longest) return "";
    size_t nearest = std::max<size_t>(2, word.size() / 4) + 1;
    const std::string *found = nullptr;
    for (const auto &candidate : candidates) {
        if (const size_t d = distance(word, candidate); d < nearest && d < candidate.size()) {
            nearest = d;
            found = &candidate;
        }
    }
    return found ? " (did you mean " + *found + "?)" : "";
}

std::string no_such(const std::string &what, const std::string &word, std::span<const std::string> candidates) {
    return what + " " + shown(word) + did_you_mean(word, candidates) + listed(candidates);
}

std::string listed(std::span<const std::string> names) {
    std::string text;
    for (const auto &name : names) text += (text.empty() ? "; there are " : ", ") + name;
    return text;
}

bool same_word(std::string_view one, std::string_view other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
}

std::vector<std::string> value_names(const ProtobufCEnumDescriptor &type) {
    std::vector<std::string> names;
    for (const auto &value : std::span(type.values, type.n_values)) names.emplace_back(value.name);
    return names;
}

const ProtobufCEnumValue *find_value(const ProtobufCEnumDescriptor &type, std::string_view word) {
    const ProtobufCEnumValue *found = nullptr;
    size_t shortest = SIZE_MAX;
    for (const auto &value : std::span(type.values, type.n_values)) {
        const std::string_view name = value.name;
        if (word.empty() || name.size() < word.size()) continue;
        const size_t front = name.size() - word.size();
        if (!same_word(name.substr(front), word) || (front > 0 && name[front - 1] != '_')) continue;
        if (name.size() <= shortest) found = name.size() < shortest ? &value : nullptr;
        shortest = std::min(shortest, name.size());
    }
    return found;
}

const std::vector<ObjectKind> &cached_kinds() {
    static const auto kinds = [] {
        static std::array<obj_sub_entry, DM_ROW_COUNT> table{};
        for (auto &row : table) row.db_id = 1;
        dm_cache_init_obj(table.data());
        ndm_cache_init_port_obj(table.data());
        std::vector<ObjectKind> found;
        for (int32_t i = 0; i < DM_ROW_COUNT; ++i) {
            const auto &row = table[static_cast<size_t>(i)];
            if (row.obj_tmpl) found.push_back({row.obj_tmpl->descriptor, i, row.db_id});
        }
        return found;
    }();
    return kinds;
}

const ObjectKind *kind_of_row(int32_t row) {
    for (const ObjectKind &kind : cached_kinds())
        if (kind.row == row) return &kind;
    return nullptr;
}

ObjectKind kind_of(const ProtobufCMessageDescriptor &type) {
    for (const ObjectKind &kind : cached_kinds())
        if (kind.type == &type) return kind;
    return {&type, -1, 1};
}

const ProtobufCMessageDescriptor &find_type(const std::string &name) {
    if (const auto *type = dm_schema_find_message(name.c_str()); type && name == type->name) return *type;
    std::string kinds;
    for (const ObjectKind &kind : cached_kinds()) kinds += (kinds.empty() ? "" : ", ") + std::string(kind.type->name);
    throw Failure(exit_usage, "there is no kind " + shown(name) + did_you_mean(name, type_names()) +
                                  "; those that the cache holds are " + kinds);
}

ObjectKind find_kind(const std::string &name) {
    if (const auto row = whole_number<int32_t>(name)) return need_kind_of_row(*row);
    for (const auto *type : all_types())
        if (name == type->name + dm_schema_package_length(type) + 1) return kind_of(*type);
    return kind_of(find_type(name));
}

ObjectKind find_cached_kind(const std::string &name) {
    const ObjectKind kind = find_kind(name);
    if (kind.row < 0) throw Failure(exit_usage, std::string(kind.type->name) + " is not a kind that the cache holds");
    return kind;
}

}  // namespace dmq
