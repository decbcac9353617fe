// panel: the picture of the switch. Once, as text; on a terminal it follows the switch, and keys lead into cards and ports. What
// is told of changes comes on the store client's thread and waits in a list with a lock of its own; everything else runs on the
// command's thread.
#include <algorithm>
#include <deque>
#include <mutex>

#include "dmq/command.h"
#include "dmq/panel/changes.h"
#include "dmq/panel/screen.h"
#include "dmq/panel/walk.h"
#include "tq_dm_cache/dm_cache_follow.h"

namespace dmq {

namespace {

constexpr size_t kept_changes = 100;
constexpr int32_t between_looks_ms = 100, between_pictures_ms = 1000;

Surroundings surroundings(Session &session) {
    Surroundings around;
    around.trouble = session.is_lost() ? "the connection to the store is lost" : shown(waits_for());
    for (const ObjectKind &kind : cached_kinds()) around.refused += stats_of(kind.row).refused;
    around.source = session.picture() ? session.picture()->shown_name() : session.shown_store();
    around.age_ms = session.age_ms();
    return around;
}

Exit print_once(Session &session) {
    std::string text;
    for (const Line &line : draw_once(collect_scene(), surroundings(session), least_width)) {
        std::string printed;
        for (const Span &span : line) printed += span.text;
        const size_t end = printed.find_last_not_of(' ') + 1;
        size_t at = 0;
        for (const Span &span : line) {
            if (at < end) text += coloured(span.colour, span.text.substr(0, end - at));
            at += span.text.size();
        }
        text += "\n";
    }
    print(text);
    return exit_yes;
}

// What has been told since the last look.
class News {
public:
    void add(std::string line) {
        const std::lock_guard lock(guard_);
        if (lines_.size() == kept_changes) lines_.pop_front();
        lines_.push_back(std::move(line));
        is_new_ = true;
        wake_screen();
    }
    // Nothing: there is nothing new.
    std::optional<std::vector<std::string>> taken() {
        const std::lock_guard lock(guard_);
        if (!std::exchange(is_new_, false)) return std::nullopt;
        return std::vector<std::string>(lines_.begin(), lines_.end());
    }

private:
    std::mutex guard_;
    std::deque<std::string> lines_;
    bool is_new_ = false;
};

void on_event(const dm_cache_event *event, void *news) {
    if (event->what == DM_CACHE_EVENT_APPLIED) return static_cast<News *>(news)->add(with_time("synchronised again"));
    static_cast<News *>(news)->add(change_line(event->before, event->after));
}

void on_log(int32_t, const char *module, const char *, int32_t, const char *text, void *news) {
    static_cast<News *>(news)->add(with_time(shown(std::string(module) + ": " + text)));
}

// Tells the news while it lives.
class Following {
public:
    explicit Following(News &news, bool of_events) : news_(news), of_events_(of_events) {
        dm_cache_set_log(on_log, &news_);
        if (!of_events_) return;
        int32_t code = dm_cache_follow(-1, on_event, &news_, 0);
        for (const ObjectKind &kind : cached_kinds())
            code |= dm_cache_follow(kind.row, on_event, &news_, DM_CACHE_FOLLOW_FROM_NOW);
        if (code == 0) return;
        stop();
        throw Failure(exit_no, "not enough memory to follow");
    }
    Following(const Following &) = delete;
    ~Following() { stop(); }

private:
    void stop() {
        dm_cache_set_log(nullptr, nullptr);
        if (!of_events_) return;
        dm_cache_unfollow(-1, on_event, &news_);
        for (const ObjectKind &kind : cached_kinds()) dm_cache_unfollow(kind.row, on_event, &news_);
    }
    News &news_;
    const bool of_events_;
};

// What is shown, and where in it. The command's thread alone; `news` is where the other thread leaves what it has to tell.
struct Panel {
    Session &session;
    const Settings &settings;
    News news{};
    Screen screen{};
    Scene scene{};
    Surroundings around{};
    Walk walk{};
    std::vector<std::string> changes{};
    size_t most_scroll = 0;
    int64_t next_picture_ms = 0;  // of another process
    std::string lost{};           // why the process that is shown gives no picture
};

// Of another process: a whole new picture, and what is different in it.
void take_picture(Panel &panel) {
    try {
        panel.session.begin(std::min(panel.settings.timeout, 5.0));
        panel.session.synchronise({});
        panel.lost.clear();
        const Picture *before = panel.session.earlier_picture();
        if (!before) return;
        for (auto &line : changes_between(*before, *panel.session.picture(), kept_changes))
            panel.news.add(std::move(line));
    } catch (const Failure &failure) {
        panel.lost = failure.what();
    }
}

void draw(Panel &panel) {
    const Chosen where = settle(panel.walk, panel.scene);
    SceneFacts facts;
    if (panel.walk.cursor.level == Level::card && where.card) facts = facts_of_card(*where.card);
    if (panel.walk.cursor.level == Level::port && where.port) facts = facts_of_port(*where.card, *where.port);
    panel.around = surroundings(panel.session);
    if (!panel.lost.empty()) panel.around.trouble = panel.lost;
    panel.around.changes = panel.changes;
    panel.around.message = panel.walk.is_typing ? "/" + shown(panel.walk.typed) + "_" : panel.walk.message;
    const Drawing drawing =
        draw(panel.scene, facts, panel.around, panel.walk.cursor, panel.screen.width(), panel.screen.height());
    panel.most_scroll = drawing.most_scroll;
    panel.screen.draw(drawing.lines);
}

// Collects what is new, if anything is.
void look(Panel &panel, bool is_first) {
    bool is_new = is_first;
    if (panel.session.picture() && !is_first && now_ms() >= panel.next_picture_ms) {
        const int64_t begun = now_ms();
        take_picture(panel);
        panel.next_picture_ms = now_ms() + std::max<int64_t>(between_pictures_ms, 3 * (now_ms() - begun));
        is_new = true;
    }
    if (auto changes = panel.news.taken()) {
        panel.changes = std::move(*changes);
        is_new = true;
    }
    if (is_new) panel.scene = collect_scene();
}

// Waits for something to do, and does what is asked for. What nobody has asked for is not drawn all the time.
void listen(Panel &panel) {
    const int64_t begun = now_ms();
    panel.screen.wait(between_pictures_ms);
    bool is_pressed = false;
    for (Pressed pressed = panel.screen.pressed(); pressed.key != Key::none; pressed = panel.screen.pressed()) {
        press(panel.walk, {panel.scene, panel.around, panel.screen.width(), panel.screen.height(), panel.most_scroll},
              pressed);
        is_pressed = true;
    }
    const int64_t early = begun + between_looks_ms - now_ms();
    if (!is_pressed && early > 0) panel.screen.rest(static_cast<int32_t>(early));
}

}  // namespace

Exit run_panel(Context &context, const Command &command) {
    if (command.settings.json) throw Failure(exit_usage, "the panel is a picture; show has tables as JSON");
    if (command.once) return print_once(context.synchronised({}, command.settings));
    if (context.in_shell) throw Failure(exit_usage, "a shell shows the panel with --once");
    Screen::need();
    // The picture of another process needs no store, so one that is away keeps nobody waiting.
    Settings settings = command.settings;
    if (!settings.attach.empty()) settings.store.clear();
    Context own(settings);
    Panel panel{own.synchronised({}, settings), settings};
    const Following following(panel.news, !panel.session.picture());
    for (bool is_first = true; !panel.walk.is_over && !panel.screen.is_over(); is_first = false) {
        look(panel, is_first);
        draw(panel);
        listen(panel);
    }
    return exit_yes;
}

}  // namespace dmq
