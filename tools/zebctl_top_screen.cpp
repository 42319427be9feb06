// The terminal of zebctl top.
//
// Signals that end it are blocked and looked for between two keys, so the terminal is always restored by this thread.
// A terminal that has gone ends it too.
#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <ncurses.h>
#include <poll.h>
#include <unistd.h>

#include "zebctl_top.h"

constexpr int KEY_TIME = 100; // ms until a signal and the next look are looked for
constexpr int ESCAPE = 27;
constexpr int REPAINT = 'L' - '@'; // Ctrl-L
constexpr size_t FILTER_MAX = 64;

typedef struct screen_s {
    top_t *top;
    bool typing; // a filter
    bool ended;
    int first;      // line of the table that is shown at the top
    bool has_lines; // of a look
} screen_t;

static void put_line(int y, const std::string &text, int attribute)
{
    (void)attron(attribute);
    (void)mvaddnstr(y, 0, text.c_str(), COLS);
    (void)attroff(attribute);
}

static int style_of(const top_line_t &line)
{
    if (!line.answered || line.blocked != 0)
        return has_colors() ? COLOR_PAIR(1) : A_REVERSE;
    return line.grows ? A_BOLD : A_NORMAL;
}

static std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        size_t end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

static void paint_table(screen_t *screen, const std::vector<top_line_t> &lines)
{
    ops_terminal_t terminal = {(size_t)std::max(COLS, 1), false};
    std::vector<std::string> rows =
        lines_of(ops_format_table(zebctl_top_table(lines), ZEBCTL_TOP_IMPORTANCE, terminal));
    int room = std::max(LINES - 3, 0);
    screen->first = std::clamp(screen->first, 0, std::max((int)lines.size() - room, 0));
    put_line(1, rows[0], A_REVERSE);
    for (int i = 0; i < room && screen->first + i < (int)lines.size(); i++) {
        auto at = (size_t)(screen->first + i);
        put_line(2 + i, rows[at + 1], style_of(lines[at]));
    }
}

static void paint(screen_t *screen)
{
    std::vector<top_line_t> lines = zebctl_top_lines(*screen->top);
    (void)erase();
    put_line(0, screen->top->looks == 0 ? "asks..." : zebctl_top_summary(*screen->top, lines), A_BOLD);
    if (screen->has_lines)
        paint_table(screen, lines);
    put_line(LINES - 1,
             screen->typing ? "/" + screen->top->filter
                            : "s sent  r received  l queue  u unacknowledged  a instance  / filter  q quit",
             A_NORMAL);
    (void)refresh();
}

static void type(screen_t *screen, int key)
{
    std::string *filter = &screen->top->filter;
    if (key == '\n' || key == KEY_ENTER || key == ESCAPE)
        screen->typing = false;
    if (key == ESCAPE)
        filter->clear();
    if ((key == KEY_BACKSPACE || key == '\b' || key == 127) && !filter->empty())
        filter->pop_back();
    if (key >= ' ' && key <= '~' && filter->size() < FILTER_MAX)
        filter->push_back((char)key);
}

static void scroll_by(screen_t *screen, int key)
{
    int page = std::max(LINES - 3, 1);
    screen->first += key == KEY_DOWN ? 1 : (key == KEY_UP ? -1 : 0);
    screen->first += key == KEY_NPAGE ? page : (key == KEY_PPAGE ? -page : 0);
}

static void press(screen_t *screen, int key)
{
    static const std::string sorts = "srlua"; // in the order of top_sort_t
    if (screen->typing)
        return type(screen, key);
    if (key == 'q')
        screen->ended = true;
    if (key == '/')
        screen->typing = true;
    if (key == ESCAPE)
        screen->top->filter.clear();
    if (key == REPAINT)
        (void)clearok(curscr, TRUE);
    size_t at = key > 0 && key < 128 ? sorts.find((char)key) : std::string::npos;
    if (at != std::string::npos)
        screen->top->sort = (top_sort_t)at;
    scroll_by(screen, key);
}

static bool hung_up()
{
    struct pollfd entry = {STDIN_FILENO, POLLIN, 0};
    return poll(&entry, 1, 0) > 0 && (entry.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

// Repaints for each key until the time of the next look. False when the terminal has gone.
static bool handle_keys(screen_t *screen, int64_t until)
{
    while (!screen->ended && !zebctl_stopped() && ops_now() < until) {
        int key = getch();
        if (key == ERR && hung_up())
            return false;
        if (key == ERR)
            continue;
        press(screen, key);
        paint(screen);
    }
    return true;
}

static int run_screen(screen_t *screen, const zebctl_t *zebctl, const zebctl_target_t &target, int64_t interval)
{
    paint(screen);
    while (!screen->ended && !zebctl_stopped()) {
        int64_t next = ops_now() + interval;
        zebctl_top_look(screen->top, zebctl, target);
        screen->has_lines = true;
        paint(screen);
        // A key has a moment also when the instances take longer than the interval.
        if (!handle_keys(screen, std::max(next, ops_now() + KEY_TIME)))
            return ZEBCTL_ERROR;
    }
    return ZEBCTL_OK;
}

int zebctl_top_screen(top_t *top, const zebctl_t *zebctl, const zebctl_target_t &target, int64_t interval)
{
    screen_t screen = {top, false, false, 0, false};
    (void)setlocale(LC_ALL, "");
    SCREEN *terminal = newterm(nullptr, stdout, stdin);
    if (terminal == nullptr) {
        fprintf(stderr, "zebctl: the terminal is not known. Type: zebctl top --batch\n");
        return ZEBCTL_ERROR;
    }
    (void)cbreak();
    (void)noecho();
    (void)keypad(stdscr, TRUE);
    (void)set_escdelay(25);
    (void)curs_set(0);
    timeout(KEY_TIME);
    const char *no_color = getenv("NO_COLOR");
    if ((no_color == nullptr || *no_color == '\0') && has_colors() && start_color() == OK) {
        (void)use_default_colors();
        (void)init_pair(1, COLOR_RED, -1);
    }
    int code = run_screen(&screen, zebctl, target, interval);
    (void)endwin();
    delscreen(terminal);
    return code;
}
