// What a person presses, whatever the terminal sends for it.
#pragma once

namespace dmq {

enum class Key {
    none,
    text,
    up,
    down,
    left,
    right,
    page_up,
    page_down,
    first,
    last,
    enter,
    back,
    leave,
    next_card,
    last_card
};

struct Pressed {
    Key key = Key::none;
    char byte = 0;  // of a text
};

}  // namespace dmq
