// A scene as lines of text with colours, for a terminal and for a file alike. Functions of what they are given: they take no lock
// and know no terminal.
#pragma once

#include "dmq/panel/lines.h"
#include "dmq/panel/scene.h"

namespace dmq {

constexpr size_t least_width = 80, least_height = 24;
constexpr bool is_too_small(size_t width, size_t height) {
    return width < least_width || height < least_height;
}

// How the store is, and what has happened: what stands around the switch.
struct Surroundings {
    std::string source;   // the store, or the process that is shown
    std::string trouble;  // empty: the picture is equal to the store
    int64_t age_ms = -1;
    uint64_t objects = 0, refused = 0;
    std::vector<std::string> changes;  // the latest last
    std::string message;               // in place of the keys: what was typed, or what came of it
};

enum class Level { chassis, card, port };

// Where a person is in the scene, by place: objects come and go.
struct Cursor {
    Level level = Level::chassis;
    std::pair<int32_t, uint32_t> card{unknown, no_id};   // device, node
    std::pair<int32_t, int32_t> port{unknown, unknown};  // number, type
    size_t scroll = 0;                                   // lines of facts that are above the screen
};

// The card and the port that are meant, or what stands in their place. Null: there is none.
struct Chosen {
    const SceneDevice *device = nullptr;
    const SceneCard *card = nullptr;
    const ScenePort *port = nullptr;
};
Chosen chosen(const Scene &scene, const Cursor &cursor);

// The devices that are on one screen together, as their places in the scene. There is always a page.
using Pages = std::vector<std::vector<size_t>>;
size_t page_of(const Pages &pages, const Scene &scene, const Chosen &where);
Pages pages(const Scene &scene, const Surroundings &around, size_t width, size_t height);

// The port that is so many steps to the right and down from another of the card, as they stand there; itself: there is none.
const ScenePort *neighbour(const SceneCard &card, const ScenePort &port, int32_t right, int32_t down, size_t width);

struct Drawing {
    std::vector<Line> lines;
    size_t most_scroll = 0;  // the last of the facts is then on the screen
};

// A screen full. The facts are those of the chosen port or card.
Drawing draw(const Scene &scene, const SceneFacts &facts, const Surroundings &around, const Cursor &cursor,
             size_t width, size_t height);

// Everything, as long as it may be, without a cursor.
std::vector<Line> draw_once(const Scene &scene, const Surroundings &around, size_t width);

}  // namespace dmq
