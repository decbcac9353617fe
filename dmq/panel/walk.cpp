// Keys, and the search for a port.
#include "dmq/panel/walk.h"

#include <algorithm>

namespace dmq {

namespace {

void go_to(Walk &walk, const SceneCard &card) {
    walk.cursor.card = {card.dev, card.node};
    walk.cursor.port = {unknown, unknown};
    walk.cursor.scroll = 0;
}

void go_to(Walk &walk, const ScenePort &port) {
    walk.cursor.port = {port.number, port.type};
    walk.cursor.scroll = 0;
}

// The next one behind the cursor, else the first.
void search(Walk &walk, const Sight &sight, bool is_again) {
    std::vector<FoundPort> found;
    try {
        found = find_ports(sight.scene, walk.typed);
    } catch (const Failure &failure) {
        walk.message = failure.what();
        return;
    }
    if (found.empty()) {
        walk.message = "no port is called " + shown(walk.typed);
        return;
    }
    const Chosen where = chosen(sight.scene, walk.cursor);
    size_t next = 0;
    for (size_t i = 0; is_again && i < found.size(); ++i)
        if (found[i].port == where.port) next = (i + 1) % found.size();
    go_to(walk, *found[next].card);
    go_to(walk, *found[next].port);
    walk.cursor.level = Level::port;
    if (found.size() > 1) {
        walk.message = std::to_string(next + 1) + " of " + std::to_string(found.size()) + " that are called " +
                       shown(walk.typed) + "; n: the next";
    }
}

void type(Walk &walk, const Sight &sight, const Pressed &pressed) {
    switch (pressed.key) {
        case Key::text:
            walk.typed += pressed.byte;
            break;
        case Key::back:
            while (!walk.typed.empty() && (walk.typed.back() & 0xC0) == 0x80) walk.typed.pop_back();
            if (!walk.typed.empty()) walk.typed.pop_back();
            break;
        case Key::leave:
            walk.is_typing = false;
            break;
        case Key::enter:
            walk.is_typing = false;
            if (!walk.typed.empty()) search(walk, sight, /*is_again=*/false);
            break;
        default:
            break;
    }
}

// Keys

void move_card(Walk &walk, const Sight &sight, const Chosen &where, int32_t steps) {
    std::vector<const SceneCard *> cards;
    for (const SceneDevice &device : sight.scene)
        for (const SceneCard &card : device.cards) cards.push_back(&card);
    const auto at = std::find(cards.begin(), cards.end(), where.card);
    if (at == cards.end()) return;
    const auto last = static_cast<ptrdiff_t>(cards.size()) - 1;
    go_to(walk, *cards[static_cast<size_t>(std::clamp<ptrdiff_t>(at - cards.begin() + steps, 0, last))]);
}

void go_to_device(Walk &walk, const Sight &sight, size_t at) {
    if (at >= sight.scene.size()) return;
    const SceneDevice &device = sight.scene[at];
    walk.cursor.card = {device.dev, device.cards.empty() ? no_id : device.cards.front().node};
    walk.cursor.port = {unknown, unknown};
}

void move_page(Walk &walk, const Sight &sight, const Chosen &where, size_t steps) {
    const auto all = pages(sight.scene, sight.around, sight.width, sight.height);
    const size_t page = page_of(all, sight.scene, where) + steps;
    if (page < all.size() && !all[page].empty()) go_to_device(walk, sight, all[page].front());
}

void press_on_chassis(Walk &walk, const Sight &sight, const Chosen &where, Key key) {
    const auto device = static_cast<size_t>(where.device - sight.scene.data());
    switch (key) {
        case Key::up:
            return move_card(walk, sight, where, -1);
        case Key::down:
            return move_card(walk, sight, where, 1);
        case Key::left:
            return go_to_device(walk, sight, device - 1);
        case Key::right:
            return go_to_device(walk, sight, device + 1);
        case Key::page_up:
            return move_page(walk, sight, where, static_cast<size_t>(-1));
        case Key::page_down:
            return move_page(walk, sight, where, 1);
        case Key::first:
            return go_to_device(walk, sight, 0);
        case Key::last:
            return go_to_device(walk, sight, sight.scene.size() - 1);
        case Key::enter:
            if (where.card) walk.cursor.level = Level::card;
            return;
        default:
            return;
    }
}

void scroll(Walk &walk, const Sight &sight, int32_t lines) {
    const auto at = static_cast<int32_t>(walk.cursor.scroll) + lines;
    walk.cursor.scroll = static_cast<size_t>(std::clamp(at, 0, static_cast<int32_t>(sight.most_scroll)));
}

void press_on_card(Walk &walk, const Sight &sight, const Chosen &where, Key key) {
    const auto step = [&](int32_t right, int32_t down) {
        if (where.port) go_to(walk, *neighbour(*where.card, *where.port, right, down, sight.width));
    };
    const auto page = static_cast<int32_t>(sight.height / 2);
    switch (key) {
        case Key::up:
            return step(0, -1);
        case Key::down:
            return step(0, 1);
        case Key::left:
            return step(-1, 0);
        case Key::right:
            return step(1, 0);
        case Key::page_up:
            return scroll(walk, sight, -page);
        case Key::page_down:
            return scroll(walk, sight, page);
        case Key::next_card:
            return move_card(walk, sight, where, 1);
        case Key::last_card:
            return move_card(walk, sight, where, -1);
        case Key::enter:
            if (where.port) walk.cursor.level = Level::port;
            walk.cursor.scroll = 0;
            return;
        default:
            return;
    }
}

void press_on_port(Walk &walk, const Sight &sight, const Chosen &where, Key key) {
    const auto &ports = where.card->ports;
    const auto at = static_cast<size_t>(where.port - ports.data());
    const auto page = static_cast<int32_t>(sight.height / 2);
    switch (key) {
        case Key::up:
            return scroll(walk, sight, -1);
        case Key::down:
            return scroll(walk, sight, 1);
        case Key::page_up:
            return scroll(walk, sight, -page);
        case Key::page_down:
            return scroll(walk, sight, page);
        case Key::left:
            return go_to(walk, ports[at - std::min<size_t>(at, 1)]);
        case Key::right:
            return go_to(walk, ports[std::min(at + 1, ports.size() - 1)]);
        default:
            return;
    }
}

}  // namespace

Chosen settle(Walk &walk, const Scene &scene) {
    Cursor &cursor = walk.cursor;
    const Chosen where = chosen(scene, cursor);
    const bool is_card = where.card && cursor.card == std::pair(where.card->dev, where.card->node);
    const bool is_port = is_card && where.port && cursor.port == std::pair(where.port->number, where.port->type);
    if ((cursor.level == Level::port && !is_port) || (cursor.level == Level::card && !is_card)) {
        walk.message = cursor.level == Level::port ? "that port is no longer there" : "that slot is no longer there";
        cursor.level = is_card ? Level::card : Level::chassis;
        cursor.scroll = 0;
    }
    if (where.card) cursor.card = {where.card->dev, where.card->node};
    if (where.port) cursor.port = {where.port->number, where.port->type};
    return where;
}

void press(Walk &walk, const Sight &sight, const Pressed &pressed) {
    walk.message.clear();
    if (walk.is_typing) return type(walk, sight, pressed);
    if (pressed.key == Key::text) {
        if (pressed.byte == 'q') walk.is_over = true;
        if (pressed.byte == 'n' && !walk.typed.empty()) search(walk, sight, /*is_again=*/true);
        if (pressed.byte == '/') {
            walk.is_typing = true;
            walk.typed.clear();
        }
        return;
    }
    if (is_too_small(sight.width, sight.height)) return;
    const Chosen where = settle(walk, sight.scene);
    if (pressed.key == Key::back || pressed.key == Key::leave) {
        walk.cursor.level = walk.cursor.level == Level::port ? Level::card : Level::chassis;
        walk.cursor.scroll = 0;
    } else if (where.card && where.port && walk.cursor.level == Level::port) {
        press_on_port(walk, sight, where, pressed.key);
    } else if (where.card && walk.cursor.level == Level::card) {
        press_on_card(walk, sight, where, pressed.key);
    } else if (where.device) {
        press_on_chassis(walk, sight, where, pressed.key);
    }
}

}  // namespace dmq
