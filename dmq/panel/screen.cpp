// ncurses: set up without what ends the process, keys, colours, and the signals that a terminal sends. A handler notes its signal
// and wakes the screen's thread, whichever thread it interrupts.
#include "dmq/panel/screen.h"

#define NCURSES_NOMACROS
#include <curses.h>
#include <fcntl.h>
#include <langinfo.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <term.h>
#include <unistd.h>
#undef lines  // term.h has a short name for each thing that a terminal can

#include <array>
#include <atomic>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <tuple>

#include "dmq/failure.h"

namespace dmq {

namespace {

std::atomic<int> waker = -1;
std::atomic<bool> over = false, resized = false, to_stop = false;

void on_signal(int number) {
    const int error = errno;
    (number == SIGWINCH ? resized : number == SIGTSTP ? to_stop : over) = true;
    wake_screen();
    errno = error;
}

constexpr int signals[] = {SIGINT, SIGTERM, SIGWINCH, SIGTSTP};
std::array<struct sigaction, std::size(signals)> before;

// Descriptors 1 and 2, kept while they lead nowhere.
std::array<int, 2> kept{-1, -1};

void silence() {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere < 0 || !isatty(STDERR_FILENO)) return;
    for (int fd = STDOUT_FILENO; fd <= STDERR_FILENO; ++fd) {
        kept[static_cast<size_t>(fd - 1)] = fcntl(fd, F_DUPFD_CLOEXEC, 3);
        dup2(nowhere, fd);
    }
    close(nowhere);
}

// Also when the process ends at once, wherever it is.
void give_back() {
    endwin();
    for (int fd = STDOUT_FILENO; fd <= STDERR_FILENO; ++fd) {
        int &old = kept[static_cast<size_t>(fd - 1)];
        if (old < 0) continue;
        dup2(old, fd);
        close(std::exchange(old, -1));
    }
}

// A pair of colours for texts, and one for the ports' cells, for each Colour.
constexpr short of_cells = 8;

bool prepare_colours() {
    if (std::getenv("NO_COLOR") || !has_colors() || start_color() == ERR) return false;
    const short ground = use_default_colors() == OK ? -1 : COLOR_BLACK;
    const std::pair<Colour, short> inks[] = {
        {Colour::good, COLOR_GREEN}, {Colour::change, COLOR_YELLOW}, {Colour::bad, COLOR_RED}};
    for (const auto &[colour, ink] : inks) {
        init_pair(static_cast<short>(colour), ink, ground);
        init_pair(static_cast<short>(of_cells + static_cast<short>(colour)), COLOR_BLACK, ink);
    }
    return true;
}

attr_t look_of(const Span &span, bool colours) {
    attr_t look = span.colour == Colour::heading ? A_BOLD : A_NORMAL;
    if (span.reversed) look |= A_REVERSE;
    if (!colours || span.colour == Colour::none || span.colour == Colour::heading) return look;
    return look | static_cast<attr_t>(COLOR_PAIR(static_cast<int>(span.colour) + (span.cell ? of_cells : 0)));
}

// What a terminal that knows ASCII alone can show.
std::string ascii(const std::string &text) {
    std::string shown;
    for (const char c : text)
        if ((c & 0xC0) != 0x80) shown += static_cast<unsigned char>(c) < 0x80 ? c : '?';
    return shown;
}

bool is_utf8() {
    return std::string_view(nl_langinfo(CODESET)) == "UTF-8";
}

FILE *output = nullptr;
SCREEN *terminal = nullptr;

void close_terminal() {
    if (terminal) delscreen(terminal);
    if (output) std::fclose(output);
    terminal = nullptr;
    output = nullptr;
}

// Asked first: newterm() forgets what it has taken for a terminal that it does not know.
bool can_move_cursor(const std::string &name) {
    int error = 0;
    const bool can = setupterm(name.c_str(), answers_descriptor(), &error) == OK && cursor_address && clear_screen;
    if (cur_term) del_curterm(cur_term);
    return can;
}

bool open_terminal(const std::string &name) {
    output = fdopen(fcntl(answers_descriptor(), F_DUPFD_CLOEXEC, 3), "w");
    if (output) terminal = newterm(name.c_str(), output, stdin);
    if (terminal) return true;
    close_terminal();
    return false;
}

// From before ncurses is there, which would handle them itself.
void hear_signals() {
    waker = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    over = resized = to_stop = false;
    for (size_t i = 0; i < std::size(signals); ++i) {
        struct sigaction action {};
        action.sa_handler = on_signal;
        action.sa_flags = SA_RESTART;
        sigaction(signals[i], &action, &before[i]);
    }
}

void hear_no_signals() {
    for (size_t i = 0; i < std::size(signals); ++i) sigaction(signals[i], &before[i], nullptr);
    close(waker.exchange(-1));
}

void take_size() {
    winsize size{};
    if (ioctl(STDIN_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0)
        resizeterm(size.ws_row, size.ws_col);
}

// The shell goes on until the process comes back.
void stop_here() {
    endwin();
    struct sigaction ours {
    }, usual{};
    usual.sa_handler = SIG_DFL;
    sigaction(SIGTSTP, &usual, &ours);
    std::ignore = raise(SIGTSTP);
    sigaction(SIGTSTP, &ours, nullptr);
    take_size();
    clearok(stdscr, TRUE);
}

}  // namespace

void wake_screen() {
    const uint64_t one = 1;
    if (waker >= 0) std::ignore = write(waker, &one, sizeof one);
}

void Screen::need() {
    if (!isatty(STDIN_FILENO) || !isatty(answers_descriptor()))
        throw Failure(exit_usage, "the panel needs a terminal; --once prints the picture as text");
}

Screen::Screen() {
    need();
    std::setlocale(LC_CTYPE, "");
    const char *type = std::getenv("TERM");
    const std::string name = type ? type : "";
    if (name.empty()) throw Failure(exit_usage, "TERM is not set, so it is not known which terminal this is");
    if (!can_move_cursor(name))
        throw Failure(exit_usage, "TERM=" + shown(name) + ": this terminal is not known, or cannot move its cursor");
    hear_signals();
    if (!open_terminal(name)) {
        hear_no_signals();
        throw Failure(exit_no, "not enough memory or descriptors for the terminal");
    }
    give_terminal_back = give_back;
    silence();
    set_escdelay(50);
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    curs_set(0);
    colours_ = prepare_colours();
    take_size();
}

Screen::~Screen() {
    give_back();
    give_terminal_back = nullptr;
    close_terminal();
    hear_no_signals();
}

size_t Screen::width() const {
    return static_cast<size_t>(COLS);
}

size_t Screen::height() const {
    return static_cast<size_t>(LINES);
}

void Screen::draw(const std::vector<Line> &lines) {
    const bool whole = is_utf8();
    erase();
    for (size_t row = 0; row < std::min(lines.size(), height()); ++row) {
        move(static_cast<int>(row), 0);
        for (const Span &span : lines[row]) {
            attrset(static_cast<NCURSES_ATTR_T>(look_of(span, colours_)));
            addstr(whole ? span.text.c_str() : ascii(span.text).c_str());
        }
    }
    refresh();
}

void Screen::wait(int32_t milliseconds) {
    pollfd both[] = {{STDIN_FILENO, POLLIN, 0}, {waker, POLLIN, 0}};
    poll(both, std::size(both), milliseconds);
    gone_ = gone_ || (both[0].revents & (POLLHUP | POLLERR | POLLNVAL));
    uint64_t count = 0;
    std::ignore = read(waker, &count, sizeof count);
    if (to_stop.exchange(false)) stop_here();
    if (resized.exchange(false)) take_size();
}

void Screen::rest(int32_t milliseconds) {
    pollfd keys = {STDIN_FILENO, POLLIN, 0};
    poll(&keys, 1, milliseconds);
}

Pressed Screen::pressed() {
    static constexpr std::pair<int, Key> keys[] = {
        {KEY_UP, Key::up},         {KEY_DOWN, Key::down},       {KEY_LEFT, Key::left},  {KEY_RIGHT, Key::right},
        {KEY_PPAGE, Key::page_up}, {KEY_NPAGE, Key::page_down}, {KEY_HOME, Key::first}, {KEY_END, Key::last},
        {KEY_ENTER, Key::enter},   {'\r', Key::enter},          {'\n', Key::enter},     {KEY_BACKSPACE, Key::back},
        {'\b', Key::back},         {0x7F, Key::back},           {0x1B, Key::leave},     {'\t', Key::next_card},
        {KEY_BTAB, Key::last_card}};
    const int code = getch();
    if (code == ERR) return {};
    for (const auto &[one, key] : keys)
        if (code == one) return {key};
    if (code < ' ' || code > 0xFF) return pressed();
    return {Key::text, static_cast<char>(code)};
}

bool Screen::is_over() const {
    return over || gone_;
}

}  // namespace dmq
