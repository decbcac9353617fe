// Order, columns and formats of tables.
#include "dmq/table.h"

#include <algorithm>
#include <cctype>

#include "dmq/names.h"
#include "dmq/output.h"

namespace dmq {

namespace {

// How many characters a text takes on the terminal: bytes that begin one in UTF-8.
size_t width(std::string_view text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

std::string title(std::string column) {
    std::transform(column.begin(), column.end(), column.begin(),
                   [](char c) { return c == '_' ? '-' : static_cast<char>(std::toupper(c)); });
    return column;
}

// What a column says when something is not well: this word, or any number but 0, or whatever is there.
enum class Bad { word, count, any };
constexpr struct {
    std::string_view column;
    Bad bad;
    std::string_view word;
} bad_cells[] = {
    {"online", Bad::word, "no"},  {"link", Bad::word, "down"}, {"subscribed", Bad::word, "no"},
    {"scanned", Bad::word, "no"}, {"equal", Bad::word, "no"},  {"refused", Bad::count, ""},
    {"damaged", Bad::count, ""},  {"why", Bad::any, ""},
};

bool is_bad(std::string_view column, const Json &cell) {
    return !cell.is_null() && std::any_of(std::begin(bad_cells), std::end(bad_cells), [&](const auto &one) {
        if (one.column != column) return false;
        if (one.bad == Bad::count) return cell.is_number() && cell != 0;
        return one.bad == Bad::any || cell_text(cell) == one.word;
    });
}

// In quotes where it must be. A line's end within stays, what a terminal would obey is escaped.
std::string csv_field(const Json &cell) {
    if (cell.is_null()) return "";
    std::string text = cell.is_string() ? printable_text(cell.get_ref<const std::string &>()) : cell_text(cell);
    if (text.find_first_of(",\"\n") == std::string::npos) return text;
    for (size_t i = text.find('"'); i != std::string::npos; i = text.find('"', i + 2)) text.insert(i, 1, '"');
    return '"' + text + '"';
}

template <class Cells> std::string csv_line(const Cells &cells) {
    std::string line;
    for (const auto &cell : cells) line += (&cell == &cells.front() ? "" : ",") + csv_field(cell);
    return line + "\r\n";
}

void print_as_csv(const Table &table, bool headings) {
    std::string text = headings ? csv_line(table.columns) : "";
    for (const auto &row : table.rows) text += csv_line(row);
    print(text);
}

void print_as_lines(const Table &table, bool headings) {
    const size_t columns = table.columns.size();
    std::vector<size_t> widths(columns);
    std::vector<bool> numeric(columns, !table.rows.empty());
    for (size_t i = 0; headings && i < columns; ++i) widths[i] = width(table.columns[i]);
    for (const auto &row : table.rows) {
        for (size_t i = 0; i < columns; ++i) {
            numeric[i] = numeric[i] && (row[i].is_number() || row[i].is_null());
            widths[i] = std::max(widths[i], width(cell_text(row[i])));
        }
    }
    // Blanks stand between cells only: none behind the last one that has a text.
    const auto line = [&](const auto &cells, auto cell_of) {
        std::string text, blanks;
        for (size_t i = 0; i < columns; ++i) {
            const auto [plain, colour] = cell_of(i, cells[i]);
            const std::string padding(widths[i] - width(plain), ' ');
            text += blanks + (numeric[i] ? padding : "") + coloured(colour, plain);
            blanks = (numeric[i] ? "" : padding) + "  ";
        }
        return text + "\n";
    };
    std::string text;
    if (headings)
        text += line(table.columns, [](size_t, const auto &name) { return std::pair(title(name), Colour::heading); });
    for (const auto &row : table.rows) {
        text += line(row, [&](size_t i, const Json &cell) {
            return std::pair(cell_text(cell), is_bad(table.columns[i], cell) ? Colour::bad : Colour::none);
        });
    }
    print(text);
}

// A number, also one that is written as a text.
std::optional<int64_t> number_in(const Json &cell) {
    if (cell.is_number_integer()) return cell.get<int64_t>();
    return cell.is_string() ? whole_number<int64_t>(cell.get_ref<const std::string &>()) : std::nullopt;
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// The number at the front of a text, which loses it. A longer one is greater, zeros in front aside.
std::string_view take_digits(std::string_view &text) {
    const auto count = static_cast<size_t>(std::find_if_not(text.begin(), text.end(), is_digit) - text.begin());
    std::string_view digits = text.substr(0, count);
    text.remove_prefix(count);
    digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
    return digits;
}

// Its digits are hexadecimal, and all have the same number of them.
bool is_mac(const Json &cell) {
    constexpr size_t length = 17;
    return cell.is_string() && cell.get_ref<const std::string &>().size() == length &&
           cell.get_ref<const std::string &>()[2] == ':';
}

int natural_order(std::string_view one, std::string_view other) {
    while (!one.empty() && !other.empty()) {
        if (is_digit(one[0]) && is_digit(other[0])) {
            const std::string_view a = take_digits(one), b = take_digits(other);
            if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
            if (const int order = a.compare(b)) return order;
        } else {
            if (one[0] != other[0]) return one[0] < other[0] ? -1 : 1;
            one.remove_prefix(1);
            other.remove_prefix(1);
        }
    }
    return one.empty() ? -static_cast<int>(!other.empty()) : 1;
}

void sort_rows(Table &table, const std::string &wanted) {
    struct By {
        size_t column;
        bool down;
    };
    std::vector<By> by;
    for (const auto &name : parts_of(wanted)) {
        const bool down = name.starts_with('-');
        by.push_back({find_column(table.columns, name.substr(down)), down});
    }
    std::stable_sort(table.rows.begin(), table.rows.end(), [&](const auto &a, const auto &b) {
        for (const auto &[i, down] : by) {
            // What is not known comes last either way.
            if (a[i].is_null() != b[i].is_null()) return b[i].is_null();
            if (const int order = order_of(a[i], b[i])) return down ? order > 0 : order < 0;
        }
        return false;
    });
}

Table chosen(const Table &table, const std::string &wanted) {
    Table part;
    std::vector<size_t> columns;
    for (const auto &name : parts_of(wanted)) {
        columns.push_back(find_column(table.columns, name));
        part.columns.push_back(table.columns[columns.back()]);
    }
    for (const auto &row : table.rows) {
        auto &cells = part.rows.emplace_back();
        for (const size_t i : columns) cells.push_back(row[i]);
    }
    return part;
}

}  // namespace

std::vector<std::string> format_names() {
    return {"table", "json", "csv"};
}

std::optional<Format> format_of(const std::string &word) {
    const auto names = format_names();
    const auto found = std::find(names.begin(), names.end(), word);
    if (found == names.end()) return std::nullopt;
    return static_cast<Format>(found - names.begin());
}

std::vector<std::string> parts_of(std::string_view list) {
    std::vector<std::string> parts;
    for (size_t begin = 0; begin <= list.size();) {
        const size_t end = std::min(list.find(',', begin), list.size());
        parts.emplace_back(list.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

size_t find_column(const std::vector<std::string> &columns, const std::string &name) {
    std::string plain = name;
    std::transform(plain.begin(), plain.end(), plain.begin(),
                   [](char c) { return c == '-' ? '_' : static_cast<char>(std::tolower(c)); });
    if (plain == "speed") plain = "mbps";
    const auto found = std::find(columns.begin(), columns.end(), plain);
    if (found == columns.end()) throw Failure(exit_usage, no_such("there is no column", name, columns));
    return static_cast<size_t>(found - columns.begin());
}

int order_of(const Json &one, const Json &other) {
    const auto a = number_in(one), b = number_in(other);
    if (a && b) return *a < *b ? -1 : *a > *b;
    if (is_mac(one) && is_mac(other)) return one < other ? -1 : other < one;
    if (one.is_string() && other.is_string())
        return natural_order(one.get_ref<const std::string &>(), other.get_ref<const std::string &>());
    return one < other ? -1 : other < one;
}

std::string cell_text(const Json &cell) {
    if (cell.is_null()) return "-";
    if (cell.is_boolean()) return cell.get<bool>() ? "yes" : "no";
    std::string text = dump(cell);
    if (cell.is_string()) text = text.substr(1, text.size() - 2);
    return text.empty() ? "-" : text;
}

Json json_of(const Table &table) {
    Json records = Json::array();
    for (const auto &row : table.rows) {
        Json record = Json::object();
        for (size_t i = 0; i < row.size(); ++i) record[table.columns[i]] = row[i];
        records.push_back(std::move(record));
    }
    return records;
}

Table arranged(Table table, const TableOptions &options) {
    if (!options.sort.empty()) sort_rows(table, options.sort);
    return options.columns.empty() ? table : chosen(table, options.columns);
}

void print_table(const Table &table, const TableOptions &options) {
    const Table wanted = arranged(table, options);
    if (options.format == Format::json) return print_line(dump(json_of(wanted)));
    if (options.format == Format::csv) return print_as_csv(wanted, !options.no_headings);
    print_as_lines(wanted, !options.no_headings);
}

}  // namespace dmq
