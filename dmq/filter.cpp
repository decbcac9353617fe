// Conditions, and what their words mean.
#include "dmq/filter.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "dmq/names.h"
#include "dmq/output.h"

namespace dmq {

namespace {

using Sign = Condition::Sign;

// The longer ones first.
constexpr struct {
    std::string_view text;
    Sign sign;
} signs[] = {{">=", Sign::more_or_same}, {"<=", Sign::less_or_same}, {"!=", Sign::other},
             {"=", Sign::same},          {"<", Sign::less},          {">", Sign::more}};

size_t end_of_column(const std::string &word) {
    const auto is_named = [](unsigned char c) { return std::isalnum(c) || c == '_' || c == '-'; };
    return static_cast<size_t>(std::find_if_not(word.begin(), word.end(), is_named) - word.begin());
}

// Null: there is none behind the column.
const auto *sign_of(const std::string &word) {
    const std::string_view rest = std::string_view(word).substr(end_of_column(word));
    const auto *found = std::find_if(std::begin(signs), std::end(signs),
                                     [&](const auto &one) { return !rest.empty() && rest.starts_with(one.text); });
    return found == std::end(signs) ? nullptr : found;
}

// A speed with a unit, as Mb/s: "100G" is 100000.
std::optional<double> speed_of(std::string_view text) {
    constexpr std::pair<char, double> units[] = {{'K', 1e-3}, {'M', 1}, {'G', 1e3}, {'T', 1e6}};
    if (text.empty()) return std::nullopt;
    const int last = std::toupper(static_cast<unsigned char>(text.back()));
    double count = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc() || end != text.data() + text.size() - 1 || count < 0) return std::nullopt;
    for (const auto &[unit, size] : units)
        if (unit == last) return count * size;
    return std::nullopt;
}

Json bound_of(const std::string &column, const std::string &text) {
    if (column == "slot" && !same_word(text.substr(0, 5), "Slot ")) return "Slot " + text;
    const auto speed = column == "mbps" ? speed_of(text) : std::nullopt;
    if (speed) return *speed;
    const auto number = whole_number<int64_t>(text);
    return number ? Json(*number) : Json(text);
}

// What is wanted of a column, each value as the table shows it.
std::vector<std::string> values_of(const View &view, const std::string &column, const std::string &text) {
    std::vector<std::string> values = parts_of(text);
    const auto *type = names_in(view, column);
    for (auto &value : values) {
        const auto *named = type ? find_value(*type, value) : nullptr;
        if (named) value = named->name;
        if (type && !named && value != "-" && !whole_number<int32_t>(value))
            throw Failure(exit_usage, no_such("show: " + column + " is never", value, value_names(*type)));
        if (const auto speed = column == "mbps" ? speed_of(value) : std::nullopt)
            value = dump(Json(std::llround(*speed)));
    }
    if (values.size() > 1) values.push_back(text);  // a name with commas
    return values;
}

// A MAC address as its digits alone.
std::string digits_of(std::string text) {
    std::erase_if(text, [](char c) { return c == ':' || c == '-' || c == '.'; });
    return text;
}

}  // namespace

bool is_condition(const std::string &word) {
    return end_of_column(word) > 0 && sign_of(word);
}

std::vector<Condition> read_conditions(const View &view, std::span<const std::string> words) {
    const auto columns = columns_of(view);
    std::vector<Condition> conditions;
    for (const auto &word : words) {
        const auto *sign = sign_of(word);
        const std::string name = word.substr(0, end_of_column(word));
        if (!sign) throw Failure(exit_usage, "show: needs column=value, not " + shown(word) + listed(columns));
        const size_t column = find_column(columns, name);
        const std::string text = word.substr(name.size() + sign->text.size());
        Condition &made = conditions.emplace_back(Condition{word, column, sign->sign, {}, {}});
        if (sign->sign == Sign::same || sign->sign == Sign::other) {
            made.values = values_of(view, columns[column], text);
        } else if (names_in(view, columns[column])) {
            throw Failure(exit_usage,
                          "show: " + columns[column] + " has names, which are neither more nor less: = or !=");
        } else {
            made.bound = bound_of(columns[column], text);
        }
    }
    return conditions;
}

bool fits(const std::vector<Json> &record, const std::vector<Condition> &conditions) {
    return std::all_of(conditions.begin(), conditions.end(), [&](const Condition &one) {
        const Json &cell = record[one.column];
        const auto meant = [&](const std::string &value) { return means(value, cell); };
        if (one.sign == Sign::same) return std::any_of(one.values.begin(), one.values.end(), meant);
        if (one.sign == Sign::other) return std::none_of(one.values.begin(), one.values.end(), meant);
        if (cell.is_null()) return false;
        if (cell.is_boolean())
            throw Failure(exit_usage, "show: " + shown(one.word) + ": yes and no are neither more nor less");
        if (cell.is_number() && !one.bound.is_number())
            throw Failure(exit_usage, "show: " + shown(one.word) + " needs a number to compare with");
        const int order = order_of(cell, one.bound);
        if (one.sign == Sign::less) return order < 0;
        if (one.sign == Sign::more) return order > 0;
        return one.sign == Sign::less_or_same ? order <= 0 : order >= 0;
    });
}

bool means(const std::string &word, const Json &cell) {
    const std::string text = cell_text(cell);
    if (same_word(word, text) || same_word("Slot " + word, text)) return true;
    if (cell.is_boolean()) return word == dump(cell);
    const auto number = whole_number<int64_t>(word);
    if (number && cell.is_number_integer()) return cell == *number;
    if (number && text.starts_with("0x")) return whole_number<int64_t>(text) == number;
    constexpr size_t mac_length = 17;
    return text.size() == mac_length && text[2] == ':' && same_word(digits_of(word), digits_of(text));
}

}  // namespace dmq
