// The tables of `show` as records: what each is called, its columns, and who makes its records of a cached object. Making one takes
// the cache lock.
#pragma once

#include "dmq/table.h"

namespace dmq {

struct View {
    std::string_view name;
    std::string_view one;  // what one of its things is called; empty: they are not asked for one by one
    bool has_places;       // its columns begin with where a thing is
    const char *columns;
    int32_t row;  // whose objects it is about; -1: none
    void (*add)(Table &, const ProtobufCMessage &);
};

// By the name of the table, or of one of its things. Throws a Failure that lists them.
const View &find_view(const std::string &wanted);
std::vector<std::string> view_names();

std::vector<std::string> columns_of(const View &view);

// The enumeration whose names a column shows; null: none.
const ProtobufCEnumDescriptor *names_in(const View &view, const std::string &column);

// Is it of no use to an operator? Of the lines about the system too.
bool is_raw(const std::string &column);

Table make_table(const View &view);

// What the table has of one object. The caller holds the cache lock.
Table records_of(const View &view, const ProtobufCMessage &object);

}  // namespace dmq
