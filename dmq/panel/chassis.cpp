// Blocks, one a device: its title, and two rows a card, odd ports above even ones. Blocks stand in columns, columns on pages.
#include <algorithm>
#include <set>

#include "dmq/panel/parts.h"

namespace dmq {

namespace {

constexpr size_t label_width = 22;

// Ports

struct Look {
    const char *sign, *vsl;
    Colour colour;
};
const Look &look_of(PortState state) {
    static constexpr Look looks[] = {
        {"#", "V", Colour::good}, {".", "v", Colour::bad}, {"-", "-", Colour::none}, {"?", "?", Colour::change}};
    return looks[static_cast<size_t>(state)];
}

// What stays together when a row is broken: two lines of the same width, and the blanks before it.
struct Unit {
    std::array<Line, 2> line{};
    size_t gap = 1;
};

std::vector<Unit> port_units(const SceneCard &card, bool is_wide) {
    std::vector<Unit> units;
    const auto columns = panel_columns(card.ports);
    for (size_t i = 0; i < columns.size(); ++i) {
        if (i % columns_of_group == 0) units.emplace_back();
        for (size_t row = 0; row < 2; ++row) {
            Line &line = units.back().line[row];
            line.push_back(columns[i][row] ? cell_of(*columns[i][row]) : Span{" "});
            if (is_wide) line.push_back({" "});
        }
    }
    return units;
}

// Breaks units into pairs of lines of that width at most.
std::vector<Line> flow(const std::vector<Unit> &units, size_t width) {
    std::vector<Line> lines;
    size_t used = 0;
    for (const Unit &unit : units) {
        const size_t wide = width_of(unit.line[0]);
        if (lines.empty() || used + unit.gap + wide > width) {
            lines.resize(lines.size() + 2);
            used = 0;
        }
        Line *const pair = &lines[lines.size() - 2];
        const size_t gap = used ? unit.gap : 0;
        for (size_t row = 0; row < 2; ++row) {
            if (gap) pair[row].push_back({std::string(gap, ' ')});
            append(pair[row], unit.line[row]);
        }
        used += gap + wide;
    }
    return lines;
}

// Cards and devices

struct Block {
    std::vector<Line> lines;
    std::vector<std::pair<uint32_t, size_t>> cards;  // node, and the line where the card begins
};

// A name that is too long ends with a ~.
std::string shortened(const std::string &name, size_t width) {
    return width_of(name) <= width ? name : fit(name, width - 1) + "~";
}

// What stands before the ports of a card: where it is and what, and below that how many of its ports are up. A card without ports
// has one line.
Line card_label(const SceneCard &card, bool is_chosen, bool is_second) {
    const Span state = state_of(card);
    const bool has_ports = !card.ports.empty();
    const Span below = card.online ? Span{up_text(card.ports)} : state;
    const size_t indent = std::min<size_t>(9, label_width - std::min(label_width, width_of(below.text) + 1));
    if (is_second) return fit({{std::string(indent, ' ')}, below}, label_width);
    Line line{{is_chosen ? "> " : "  "}, {fit(card.place, 6), Colour::none, is_chosen}};
    const Span role{card.role.empty() ? "" : " " + card.role, Colour::change};
    const size_t taken = width_of(line) + 2 + (has_ports ? width_of(role.text) : 0);  // a blank before, one behind
    line.push_back(
        {" " + shortened(card.name, label_width - std::min(taken, label_width - 2)), Colour::heading, is_chosen});
    if (has_ports) line.push_back(role);
    line = fit(line, label_width);
    if (!has_ports) append(line, {state, role});
    return line;
}

void add_labels(std::vector<Line> &lines, const SceneCard &card, bool is_chosen) {
    lines.resize(std::max<size_t>(lines.size(), 1));
    for (size_t i = 0; i < lines.size(); ++i) {
        Line line = i < 2 ? card_label(card, is_chosen, i == 1) : Line{{std::string(label_width, ' ')}};
        append(line, lines[i]);
        lines[i] = std::move(line);
    }
}

Unit sub_card_label(const SceneCard &card, bool is_chosen) {
    const std::string name =
        std::to_string(card.sub) + " " + card.name + (card.there && !card.online ? " offline" : "");
    Unit unit;
    unit.line[0] = {{is_chosen ? ">" : " "}, {name, card.online ? Colour::heading : Colour::bad, is_chosen}};
    unit.line[1] = {{std::string(width_of(unit.line[0]), ' ')}};
    return unit;
}

// A card and the sub-cards on it, as places in their device.
struct Seat {
    size_t first, end;
};

std::vector<Seat> seats_of(const SceneDevice &device) {
    std::vector<Seat> seats;
    for (size_t i = 0; i < device.cards.size(); ++i) {
        const SceneCard &card = device.cards[i];
        const bool is_on_it = !seats.empty() && card.sub > 0 && card.slot == device.cards[seats.back().first].slot;
        if (!is_on_it) seats.push_back({i, i});
        seats.back().end = i + 1;
    }
    return seats;
}

std::vector<Unit> units_of(const SceneDevice &device, const Seat &seat, const SceneCard *chosen_card, bool is_wide) {
    std::vector<Unit> units;
    for (size_t i = seat.first; i < seat.end; ++i) {
        const SceneCard &card = device.cards[i];
        if (i > seat.first) units.push_back(sub_card_label(card, &card == chosen_card));
        const auto own = port_units(card, is_wide);
        units.insert(units.end(), own.begin(), own.end());
    }
    return units;
}

Line title_of(const SceneDevice &device, size_t width) {
    std::string text = "device " + std::to_string(device.dev);
    for (const auto &more : {device.name, device.type}) text += more.empty() ? "" : "  " + more;
    text += !device.known ? "  not known" : device.online ? "  online" : "  OFFLINE";
    std::vector<ScenePort> ports;
    for (const SceneCard &card : device.cards) ports.insert(ports.end(), card.ports.begin(), card.ports.end());
    return {{spread(text, up_text(ports), width), device.online ? Colour::heading : Colour::bad}};
}

Block block_of(const SceneDevice &device, const SceneCard *chosen_card, size_t width, bool is_wide) {
    Block block;
    block.lines.push_back(title_of(device, width));
    for (const Seat &seat : seats_of(device)) {
        const SceneCard &card = device.cards[seat.first];
        for (size_t i = seat.first; i < seat.end; ++i)
            block.cards.emplace_back(device.cards[i].node, block.lines.size());
        std::vector<Line> lines = flow(units_of(device, seat, chosen_card, is_wide), width - label_width);
        add_labels(lines, card, &card == chosen_card);
        block.lines.insert(block.lines.end(), lines.begin(), lines.end());
    }
    block.lines.emplace_back();
    return block;
}

// Cells have room between them when every card has it.
bool fits_wide(const Scene &scene, size_t width) {
    for (const SceneDevice &device : scene) {
        for (const Seat &seat : seats_of(device))
            if (flow(units_of(device, seat, nullptr, /*is_wide=*/true), width - label_width).size() > 2) return false;
    }
    return true;
}

// How blocks stand on a screen

constexpr size_t widest_column = 120, between_columns = 2;

Layout layout_of(const Scene &scene, size_t columns, size_t width, size_t room) {
    Layout layout{std::min((width - (columns - 1) * between_columns) / columns, widest_column)};
    layout.is_wide = fits_wide(scene, layout.width);
    layout.pages.resize(1);
    size_t column = 0, used = 0;
    for (size_t i = 0; i < scene.size(); ++i) {
        const size_t high = block_of(scene[i], nullptr, layout.width, layout.is_wide).lines.size();
        if (used > 0 && used + high > room + 1) {
            used = 0;
            if (++column == columns) {
                column = 0;
                layout.pages.emplace_back();
            }
        }
        layout.pages.back().push_back(i);
        used += std::min(high, room);
    }
    return layout;
}

}  // namespace

Span cell_of(const ScenePort &port) {
    const Look &look = look_of(port.state);
    return {port.vsl ? look.vsl : look.sign, look.colour, false, true};
}

// Numbers that leave large gaps, or come twice, are no places: then the ports follow one another.
std::vector<std::array<const ScenePort *, 2>> panel_columns(const std::vector<ScenePort> &ports) {
    std::vector<std::array<const ScenePort *, 2>> columns;
    if (ports.empty()) return columns;
    const int64_t first = std::min(ports.front().number, 1);
    std::set<int32_t> numbers;
    for (const ScenePort &port : ports) numbers.insert(port.number);
    const bool is_place = numbers.size() == ports.size() &&
                          static_cast<size_t>(ports.back().number - first) < 2 * ports.size() + columns_of_group;
    for (size_t i = 0; i < ports.size(); ++i) {
        const size_t at = is_place ? static_cast<size_t>(ports[i].number - first) : i;
        if (columns.size() <= at / 2) columns.resize(at / 2 + 1);
        columns[at / 2][at % 2] = &ports[i];
    }
    return columns;
}

std::string up_text(const std::vector<ScenePort> &ports) {
    const auto up = std::count_if(ports.begin(), ports.end(), [](const auto &p) { return p.state == PortState::up; });
    return std::to_string(up) + " of " + std::to_string(ports.size()) + " up";
}

Span state_of(const SceneCard &card) {
    if (!card.there) return {card.ports.empty() ? "empty" : "no card", card.ports.empty() ? Colour::none : Colour::bad};
    return card.online ? Span{"online", Colour::good} : Span{"offline", Colour::bad};
}

Layout layout_of(const Scene &scene, size_t width, size_t height) {
    const size_t most = (width + between_columns) / (least_width + between_columns);
    for (size_t columns = 1; columns < most; ++columns) {
        Layout layout = layout_of(scene, columns, width, height);
        if (layout.pages.size() == 1) return layout;
    }
    return layout_of(scene, most, width, height);
}

std::vector<Line> page_lines(const Scene &scene, const Layout &layout, const std::vector<size_t> &page,
                             const Chosen &where, size_t height) {
    std::vector<Line> lines(height);
    const size_t wide = layout.width;
    size_t column = 0, used = 0;
    for (const size_t at : page) {
        Block block = block_of(scene[at], where.card, wide, layout.is_wide);
        size_t first = 0;
        if (block.lines.size() > height + 1) {
            const auto line = std::find_if(block.cards.begin(), block.cards.end(), [&](const auto &card) {
                return where.card && card.first == where.card->node;
            });
            if (line != block.cards.end() && line->second + 2 > height)
                first = std::min(line->second + 2, block.lines.size()) - height;
        }
        if (used > 0 && used + block.lines.size() > height + 1) {
            ++column;
            used = 0;
        }
        for (size_t i = first; i < block.lines.size() && used < height; ++i, ++used) {
            lines[used] = fit(lines[used], column * (wide + between_columns));
            append(lines[used], fit(block.lines[i], wide));
        }
    }
    return lines;
}

std::vector<Line> column_lines(const Scene &scene, size_t width) {
    std::vector<Line> lines;
    const bool is_wide = fits_wide(scene, width);
    for (const SceneDevice &device : scene) {
        const Block block = block_of(device, nullptr, width, is_wide);
        lines.insert(lines.end(), block.lines.begin(), block.lines.end());
    }
    return lines;
}

}  // namespace dmq
