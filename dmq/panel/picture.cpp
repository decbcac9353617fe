// What stands around the switch, and which part of it fills the screen.
#include "dmq/panel/picture.h"

#include <algorithm>

#include "dmq/panel/parts.h"

namespace dmq {

namespace {

std::string age_text(int64_t age_ms) {
    if (age_ms < 0) return "its age not known";
    return age_ms < 1000 ? "less than 1 s old" : std::to_string(age_ms / 1000) + " s old";
}

std::vector<Line> head(const Surroundings &around, const std::string &page, size_t width) {
    const bool live = around.trouble.empty();
    std::string state = live ? "live, " : "NOT LIVE, ";
    state += age_text(around.age_ms);
    if (around.refused) state += ", " + std::to_string(around.refused) + " refused";
    std::vector<Line> lines;
    const std::string text = spread(" dmq  " + around.source, state + (page.empty() ? " " : "  " + page + " "), width);
    lines.push_back({{text, live ? Colour::heading : Colour::bad, true}});
    if (!live) lines.push_back({{fit(" " + around.trouble, width), Colour::bad}});
    return lines;
}

size_t change_lines(size_t height) {
    return std::clamp<size_t>((height - 20) / 7, 1, 8);
}

size_t body_height(const Surroundings &around, size_t height) {
    return height - (around.trouble.empty() ? 1 : 2) - change_lines(height) - 1;
}

std::vector<Line> foot(const Surroundings &around, const char *keys, size_t width, size_t height) {
    std::vector<Line> lines(change_lines(height));
    const size_t count = std::min(lines.size(), around.changes.size());
    for (size_t i = 0; i < count; ++i)
        lines[lines.size() - count + i] = {{fit(" " + around.changes[around.changes.size() - count + i], width)}};
    const bool asks = !around.message.empty();
    lines.push_back({{fit(" " + (asks ? around.message : spread(legend, keys, width - 2)), width),
                      asks ? Colour::change : Colour::none, true}});
    return lines;
}

std::vector<Line> too_small(size_t width, size_t height) {
    const std::string text = "This terminal has " + std::to_string(width) + "x" + std::to_string(height) +
                             "; the panel needs " + std::to_string(least_width) + "x" + std::to_string(least_height);
    std::vector<Line> lines;
    for (size_t at = 0; at < text.size() && lines.size() < height; at += width)
        lines.push_back({{text.substr(at, width)}});
    return lines;
}

}  // namespace

Chosen chosen(const Scene &scene, const Cursor &cursor) {
    Chosen where;
    if (scene.empty()) return where;
    const auto device =
        std::find_if(scene.begin(), scene.end(), [&](const auto &d) { return d.dev >= cursor.card.first; });
    where.device = device == scene.end() ? &scene.back() : &*device;
    const auto &cards = where.device->cards;
    if (cards.empty()) return where;
    const auto card =
        std::find_if(cards.begin(), cards.end(), [&](const auto &c) { return c.node == cursor.card.second; });
    where.card = card == cards.end() ? &cards.front() : &*card;
    const auto &ports = where.card->ports;
    if (ports.empty()) return where;
    const auto port = std::find_if(ports.begin(), ports.end(),
                                   [&](const auto &p) { return std::pair(p.number, p.type) >= cursor.port; });
    where.port = port == ports.end() ? &ports.back() : &*port;
    return where;
}

size_t page_of(const Pages &pages, const Scene &scene, const Chosen &where) {
    const auto has = [&](const auto &page) {
        return std::any_of(page.begin(), page.end(), [&](size_t i) { return &scene[i] == where.device; });
    };
    const auto at = std::find_if(pages.begin(), pages.end(), has);
    return at == pages.end() ? 0 : static_cast<size_t>(at - pages.begin());
}

Pages pages(const Scene &scene, const Surroundings &around, size_t width, size_t height) {
    return layout_of(scene, width, body_height(around, height)).pages;
}

Drawing draw(const Scene &scene, const SceneFacts &facts, const Surroundings &around, const Cursor &cursor,
             size_t width, size_t height) {
    if (is_too_small(width, height)) return {too_small(width, height)};
    const Chosen where = chosen(scene, cursor);
    const size_t room = body_height(around, height);
    Drawing drawing;
    std::string page;
    const char *keys = "arrows Enter  / find  q";
    if (cursor.level == Level::card && where.card) {
        drawing = card_lines(facts, where, cursor.scroll, width, room);
        keys = "arrows Enter Tab PgDn  Esc";
    } else if (cursor.level == Level::port && where.port) {
        drawing = port_lines(facts, where, cursor.scroll, width, room);
        keys = "arrows PgDn  / n  Esc";
    } else {
        const Layout layout = layout_of(scene, width, room);
        const size_t at = page_of(layout.pages, scene, where);
        drawing.lines = page_lines(scene, layout, layout.pages[at], where, room);
        if (layout.pages.size() > 1)
            page = "page " + std::to_string(at + 1) + "/" + std::to_string(layout.pages.size());
        if (scene.empty()) drawing.lines[0] = {{" No device and no card is known."}};
    }
    drawing.lines.resize(room);
    const auto above = head(around, page, width), below = foot(around, keys, width, height);
    drawing.lines.insert(drawing.lines.begin(), above.begin(), above.end());
    drawing.lines.insert(drawing.lines.end(), below.begin(), below.end());
    for (Line &line : drawing.lines)
        if (width_of(line) > width) line = fit(std::move(line), width);
    return drawing;
}

std::vector<Line> draw_once(const Scene &scene, const Surroundings &around, size_t width) {
    std::vector<Line> lines = head(around, "", width);
    for (Line &line : column_lines(scene, width)) lines.push_back(std::move(line));
    lines.push_back({{legend}});
    return lines;
}

}  // namespace dmq
