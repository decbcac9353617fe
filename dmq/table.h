// Tables: how they are printed, and which part of one is wanted. A column is named in lower case with underscores, or as its
// heading is printed.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "dmq/json.h"

namespace dmq {

// Column names are lower case with underscores: JSON and CSV have them as they are, a printed table as "USER-SLOT".
struct Table {
    std::vector<std::string> columns;
    std::vector<std::vector<Json>> rows;
};

enum class Format { table, json, csv };

std::optional<Format> format_of(const std::string &word);
std::vector<std::string> format_names();

// How a person wants it.
struct TableOptions {
    Format format = Format::table;
    std::string columns;  // "dev,slot": these, in this order; empty: all
    std::string sort;     // "-mbps,name": by these, - from the greatest on; empty: as it was made
    bool no_headings = false;

    bool are_given() const { return format != Format::table || !columns.empty() || !sort.empty() || no_headings; }
};

// A cell as it is shown: what would break the line or the terminal is escaped as in JSON.
std::string cell_text(const Json &cell);

// Its records in the order and with the columns that are wanted. Throws a Failure for a column that is not there.
Table arranged(Table table, const TableOptions &options);

// An array with one object a record.
Json json_of(const Table &table);

// One record a line, numbers to the right, in colour what is not well; or a JSON array with one object a record; or CSV as
// RFC 4180 has it. Throws a Failure for a column that is not there.
void print_table(const Table &table, const TableOptions &options);

// The place of a column. Throws a Failure that lists the columns.
size_t find_column(const std::vector<std::string> &columns, const std::string &name);

// "a,b" in its parts.
std::vector<std::string> parts_of(std::string_view list);

// Less than 0, 0, or more: numbers by size, texts by the numbers within ("Slot 1/2" before "Slot 1/10").
int order_of(const Json &one, const Json &other);

}  // namespace dmq
