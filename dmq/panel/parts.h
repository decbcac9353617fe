// The parts of which a picture consists: the devices on a page, a card with its numbered ports, a port. For picture.cpp.
#pragma once

#include <array>

#include "dmq/panel/picture.h"

namespace dmq {

constexpr size_t columns_of_group = 6;  // twelve ports stand together
constexpr const char *legend = "# up  . down  - absent  ? no static port  V VSL";

// The sign of a port in the colour of its state.
Span cell_of(const ScenePort &port);

// Two rows of ports, as they are on a panel; null where none is.
std::vector<std::array<const ScenePort *, 2>> panel_columns(const std::vector<ScenePort> &ports);

std::string up_text(const std::vector<ScenePort> &ports);
Span state_of(const SceneCard &card);

// How devices stand on a screen: as few columns as hold all of them, else as many as there is room for.
struct Layout {
    size_t width = 0;      // of a column
    bool is_wide = false;  // with room between the ports
    Pages pages{};
};
Layout layout_of(const Scene &scene, size_t width, size_t height);

// The devices below one another in each column. One that is higher than the page is moved so that the chosen card is seen.
std::vector<Line> page_lines(const Scene &scene, const Layout &layout, const std::vector<size_t> &page,
                             const Chosen &where, size_t height);

// Every device below the one before it.
std::vector<Line> column_lines(const Scene &scene, size_t width);

Drawing card_lines(const SceneFacts &facts, const Chosen &where, size_t scroll, size_t width, size_t height);
Drawing port_lines(const SceneFacts &facts, const Chosen &where, size_t scroll, size_t width, size_t height);

}  // namespace dmq
