// The terminal while a picture is on it, by ncurses, which nobody else uses. One at a time; it belongs to one thread, but for
// wake(). What others of the process write to the terminal meanwhile would be in the picture, so it is thrown away.
#pragma once

#include "dmq/panel/key.h"
#include "dmq/panel/lines.h"

namespace dmq {

class Screen {
public:
    // Throws a Failure when there is no terminal.
    static void need();

    // Throws one also for a terminal that nothing is known of.
    Screen();
    Screen(const Screen &) = delete;
    ~Screen();  // the terminal is as it was

    size_t width() const;
    size_t height() const;
    void draw(const std::vector<Line> &lines);

    // Waits for a key, for wake(), for another size, or until the time is over.
    void wait(int32_t milliseconds);
    void rest(int32_t milliseconds);  // for a key alone
    Pressed pressed();                // none: no key is waiting
    bool is_over() const;             // somebody has asked to end, or the terminal is gone

private:
    bool colours_ = false;
    bool gone_ = false;
};

// Ends a Screen's wait. Any thread, a signal's handler too.
void wake_screen();

}  // namespace dmq
