// `kinds`: which kinds of objects there are, and the fields of each. Asks no store: all of it is told by the descriptors.
#include <algorithm>

#include "dmq/complete.h"
#include "dmq/names.h"
#include "tq_dm_cache/dm_schema.h"

namespace dmq {

namespace {

// What a number is counted in, or where it lies, when a field of that name means the same everywhere.
constexpr struct {
    std::string_view field, meaning;
} meanings[] = {
    {"devid", "1..16"},    {"t_dev", "1..16"},    {"slotid", "0..31"},         {"physlot", "0..31"},
    {"sslotid", "0..7"},   {"t_sslot", "0..7"},   {"subslot", "0..7"},         {"lport", "0..288"},
    {"bandwidth", "kb/s"}, {"speed_cap", "Mb/s"}, {"supp_speed", "Mb/s"},      {"def_mtu", "bytes"},
    {"min_mtu", "bytes"},  {"max_mtu", "bytes"},  {"max_driver_mtu", "bytes"},
};

Json meaning_of(std::string_view field) {
    const auto *found =
        std::find_if(std::begin(meanings), std::end(meanings), [&](const auto &one) { return one.field == field; });
    return found == std::end(meanings) ? Json() : Json(found->meaning);
}

std::string type_name(const ProtobufCFieldDescriptor &field) {
    static const char *const names[] = {"int32",  "sint32",  "sfixed32", "int64",   "sint64", "sfixed64",
                                        "uint32", "fixed32", "uint64",   "fixed64", "float",  "double",
                                        "bool",   "enum",    "string",   "bytes",   "message"};
    std::string name = names[field.type];
    if (field.type == PROTOBUF_C_TYPE_ENUM) name = static_cast<const ProtobufCEnumDescriptor *>(field.descriptor)->name;
    if (field.type == PROTOBUF_C_TYPE_MESSAGE)
        name = static_cast<const ProtobufCMessageDescriptor *>(field.descriptor)->name;
    return name + (field.label == PROTOBUF_C_LABEL_REPEATED ? "[]" : "");
}

Json values_of(const ProtobufCEnumDescriptor &type) {
    std::string text;
    for (const auto &value : std::span(type.values, type.n_values))
        text += (text.empty() ? "" : ", ") + std::string(value.name) + "=" + std::to_string(value.value);
    return text;
}

// The fields by the names that field=value takes; into a sub-message as far as one word leads.
void add_fields(Table &table, const ProtobufCMessageDescriptor &type, const std::string &front, bool in_key) {
    constexpr auto deepest_field = 4;
    for (const auto &field : fields_of(type)) {
        const bool is_key = in_key || (front.empty() && &field == key_field(type));
        const auto *sub = sub_type(field);
        if (sub && std::count(front.begin(), front.end(), '.') < deepest_field) {
            add_fields(table, *sub, is_key ? "" : front + field.name + ".", is_key);
            continue;
        }
        const bool is_enum = field.type == PROTOBUF_C_TYPE_ENUM;
        table.rows.push_back(
            {front + field.name, field.id, type_name(field),
             is_key ? (is_never_compared(field.name) ? "never compared" : "key") : Json(), meaning_of(field.name),
             is_enum ? values_of(*static_cast<const ProtobufCEnumDescriptor *>(field.descriptor)) : Json()});
    }
}

// "devid slotid sslotid"; null: there is one object.
Json key_text(const ProtobufCMessageDescriptor &type) {
    const auto *key = key_field(type);
    if (!key) return nullptr;
    std::string text;
    for (const auto &field : fields_of(*sub_type(*key)))
        if (!is_never_compared(field.name)) text += (text.empty() ? "" : " ") + std::string(field.name);
    return text;
}

// By full name or without the package; null: there is none.
const ProtobufCEnumDescriptor *find_enum(const std::string &name) {
    uint32_t count = 0;
    const auto *enums = dm_schema_enums(&count);
    for (const auto *type : std::span(enums, count)) {
        const std::string full = type->name;
        if (name == full || name == full.substr(full.find('.') + 1)) return type;
    }
    return nullptr;
}

void print_kind(const ObjectKind &kind, const Command &command) {
    const Json key = key_text(*kind.type), row = kind.row < 0 ? Json() : Json(kind.row);
    Table table{{"field", "number", "type", "key", "range_or_unit", "values"}, {}};
    add_fields(table, *kind.type, "", false);
    if (command.table.format == Format::json) {
        return print_line(dump(Json{{"kind", kind.type->name},
                                    {"row", row},
                                    {"db", kind.db},
                                    {"key", key},
                                    {"fields", json_of(arranged(table, command.table))}}));
    }
    if (command.table.are_given()) return print_table(table, command.table);
    std::string text = kind.type->name;
    text +=
        kind.row < 0 ? ": not cached" : ": row " + std::to_string(kind.row) + ", database " + std::to_string(kind.db);
    print_line(text + (key.is_null() ? ", one object" : ", key " + key.get<std::string>()));
    print_table(table, command.table);
}

Table all_kinds() {
    Table table{{"row", "kind", "db", "key", "fields"}, {}};
    for (const ObjectKind &kind : cached_kinds())
        table.rows.push_back({kind.row, kind.type->name, kind.db, key_text(*kind.type), kind.type->n_fields});
    return table;
}

}  // namespace

Exit run_kinds(Context &, const Command &command) {
    std::string name = command.words.empty() ? "" : command.words[0];
    if (name.ends_with("[]")) name.resize(name.size() - 2);  // as the type of a repeated field is printed
    if (command.words.empty()) {
        print_table(all_kinds(), command.table);
    } else if (const auto *type = find_enum(name)) {
        Table table{{"value", "name"}, {}};
        for (const auto &value : std::span(type->values, type->n_values))
            table.rows.push_back({value.value, value.name});
        print_table(table, command.table);
    } else {
        print_kind(find_kind(name), command);
    }
    return exit_yes;
}

}  // namespace dmq
