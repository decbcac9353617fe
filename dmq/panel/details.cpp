// One card with its ports by their numbers, and one port: what is known of them, in columns.
#include <algorithm>

#include "dmq/panel/parts.h"

namespace dmq {

namespace {

// A value that is longer than its column goes on below.
std::vector<Line> fact_lines(const SceneFacts &facts, size_t width) {
    size_t names = 0;
    for (const auto &[name, value] : facts) names = std::max(names, value.empty() ? 0 : width_of(name) + 2);
    names = std::min(names, width / 2 - 2);
    std::vector<Line> lines;
    for (const auto &[name, value] : facts) {
        if (value.empty()) {
            if (!lines.empty()) lines.emplace_back();
            lines.push_back({{fit(" " + name, width), Colour::heading}});
            continue;
        }
        std::string before = fit(name, std::max(names, width_of(name) + 2)), rest = value;
        while (!rest.empty()) {
            const size_t room = width - std::min(width - 1, width_of(before) + 2);
            const std::string part = fit(rest, std::min(room, width_of(rest)));
            lines.push_back({{" " + before}, {part}});
            rest.erase(0, part.size());
            before = std::string(names, ' ');
        }
    }
    return lines;
}

// Facts below lines that are there already, in as many columns as fit.
void add_facts(Drawing &drawing, const SceneFacts &facts, size_t scroll, size_t width, size_t height) {
    const size_t room = height - std::min(height - 1, drawing.lines.size());
    const size_t count = std::max<size_t>(width / (least_width / 2), 1), wide = width / count;
    const auto all = fact_lines(facts, wide);
    drawing.most_scroll = all.size() - std::min(all.size(), count * room);
    const size_t first = std::min(scroll, drawing.most_scroll), before = drawing.lines.size();
    drawing.lines.resize(before + room);
    for (size_t i = 0; first + i < all.size() && i < count * room; ++i) {
        Line &line = drawing.lines[before + i % room];
        line = fit(line, i / room * wide);
        append(line, all[first + i]);
    }
}

// In the colour of its cell.
Span state_of(const ScenePort &port) {
    constexpr const char *texts[] = {"up", "down", "absent", "no static port"};
    return {texts[static_cast<size_t>(port.state)], cell_of(port).colour};
}

std::string name_of(const SceneCard &card, const ScenePort &port) {
    return port.name.empty() ? card.place + "/" + std::to_string(port.number) : port.name;
}

Line card_title(const SceneCard &card, size_t width) {
    const Span state = state_of(card);
    Line line{
        {" Slot " + card.place + (card.sub ? ", sub-slot " + std::to_string(card.sub) : "") + "  " + card.name + "  ",
         Colour::heading}};
    append(line, {state, {card.role.empty() ? "" : "  " + card.role, Colour::change}});
    if (!card.ports.empty()) line.push_back({"  " + up_text(card.ports)});
    return fit(line, width);
}

// How the ports stand when their numbers are shown: as many columns a row as fit, in whole groups, and no row much shorter than
// the others.
struct Grid {
    std::vector<std::array<const ScenePort *, 2>> columns;
    size_t digits = 2, in_row = columns_of_group;
};

Grid grid_of(const SceneCard &card, size_t width) {
    Grid grid;
    grid.columns = panel_columns(card.ports);
    for (const ScenePort &one : card.ports) grid.digits = std::max(grid.digits, std::to_string(one.number).size());
    const size_t groups = (grid.columns.size() + columns_of_group - 1) / columns_of_group;
    const size_t fitting = std::max<size_t>((width + 1) / ((grid.digits + 3) * columns_of_group + 1), 1);
    const size_t rows = std::max<size_t>((groups + fitting - 1) / fitting, 1);
    grid.in_row = std::max<size_t>((groups + rows - 1) / rows, 1) * columns_of_group;
    return grid;
}

struct GridPoint {
    int32_t x, y;  // column and line of the grid as it is shown
};

// Null: there is none.
const ScenePort *port_at(const Grid &grid, GridPoint point) {
    const auto in_row = static_cast<int32_t>(grid.in_row), count = static_cast<int32_t>(grid.columns.size());
    const int32_t column = point.y / 2 * in_row + point.x;
    if (point.x < 0 || point.x >= in_row || point.y < 0 || column >= count) return nullptr;
    return grid.columns[static_cast<size_t>(column)][static_cast<size_t>(point.y % 2)];
}

GridPoint point_of(const Grid &grid, const ScenePort *port) {
    const auto in_row = static_cast<int32_t>(grid.in_row), count = static_cast<int32_t>(grid.columns.size());
    for (int32_t i = 0; i < 2 * count; ++i) {
        const GridPoint point{i / 2 % in_row, i / 2 / in_row * 2 + i % 2};
        if (port_at(grid, point) == port) return point;
    }
    return {0, 0};
}

// The chosen port stands in brackets. Of more lines than there is room for, those around it.
std::vector<Line> numbered_ports(const SceneCard &card, const ScenePort *port, size_t width, size_t height) {
    const Grid grid = grid_of(card, width);
    const size_t rows = (grid.columns.size() + grid.in_row - 1) / grid.in_row * 2;
    std::vector<Line> lines(rows);
    for (size_t i = 0; i < 2 * grid.columns.size(); ++i) {
        const size_t column = i / 2, in_row = column % grid.in_row;
        Line &line = lines[column / grid.in_row * 2 + i % 2];
        if (in_row > 0 && in_row % columns_of_group == 0) line.push_back({" "});
        const ScenePort *one = grid.columns[column][i % 2];
        const Span cell = one ? cell_of(*one) : Span{" "};
        const std::string text = one ? std::to_string(one->number) + cell.text : "";
        const bool is_chosen = one && one == port;
        line.push_back({is_chosen ? "[" : " ", Colour::heading});
        line.push_back({std::string(grid.digits + 1 - text.size(), ' ') + text, cell.colour, false, cell.cell});
        line.push_back({is_chosen ? "]" : " ", Colour::heading});
    }
    if (rows <= height) return lines;
    const size_t pairs = height / 2, chosen_pair = static_cast<size_t>(point_of(grid, port).y) / 2;
    const size_t first = std::min(chosen_pair - std::min(chosen_pair, pairs / 2), rows / 2 - pairs);
    lines.erase(lines.begin(), lines.begin() + static_cast<ptrdiff_t>(2 * first));
    lines.resize(2 * pairs);
    return lines;
}

}  // namespace

const ScenePort *neighbour(const SceneCard &card, const ScenePort &port, int32_t right, int32_t down, size_t width) {
    const Grid grid = grid_of(card, width);
    GridPoint point = point_of(grid, &port);
    for (size_t i = 0; i < card.ports.size(); ++i) {
        point = {point.x + right, point.y + down};
        if (const ScenePort *next = port_at(grid, point)) return next;
    }
    return &port;
}

Drawing card_lines(const SceneFacts &facts, const Chosen &where, size_t scroll, size_t width, size_t height) {
    constexpr size_t other_lines = 8;
    Drawing drawing{{card_title(*where.card, width), {}}};
    for (Line &line : numbered_ports(*where.card, where.port, width, height - other_lines))
        drawing.lines.push_back(std::move(line));
    if (where.port) {
        drawing.lines.emplace_back();
        drawing.lines.push_back({{" port " + std::to_string(where.port->number) + "  "},
                                 {name_of(*where.card, *where.port), Colour::heading},
                                 {"  "},
                                 state_of(*where.port)});
        drawing.lines.emplace_back();
    }
    add_facts(drawing, facts, scroll, width, height);
    return drawing;
}

Drawing port_lines(const SceneFacts &facts, const Chosen &where, size_t scroll, size_t width, size_t height) {
    Drawing drawing{{{{" " + name_of(*where.card, *where.port) + "  ", Colour::heading},
                      state_of(*where.port),
                      {"  of " + where.card->name + " in slot " + where.card->place}},
                     {}}};
    add_facts(drawing, facts, scroll, width, height);
    return drawing;
}

}  // namespace dmq
