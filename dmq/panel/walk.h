// A person's way through the picture, key by key: which card and port are looked at, and what is searched. Knows no terminal; a search
// takes the cache lock.
#pragma once

#include "dmq/panel/key.h"
#include "dmq/panel/picture.h"

namespace dmq {

struct Walk {
    Cursor cursor{};
    std::string message{};  // until the next key
    std::string typed{};    // the name that is searched, or was the last time
    bool is_typing = false;
    bool is_over = false;
};

// What there is to walk through, on a screen of that size.
struct Sight {
    const Scene &scene;
    const Surroundings &around;
    size_t width, height;
    size_t most_scroll;
};

// Puts the cursor where it is in this scene, so that it stays there whatever comes before it; out of what has gone.
Chosen settle(Walk &walk, const Scene &scene);

void press(Walk &walk, const Sight &sight, const Pressed &pressed);

}  // namespace dmq
