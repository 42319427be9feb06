// zebctl debug: switches the levels that instances print, for good or for a while.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <poll.h>

#include "ops_table.h"
#include "zebctl_progress.h"
#include "zebctl_rows.h"
#include "zebctl_text.h"

constexpr uint32_t LEVELS = 15;
constexpr int64_t BACK_TIME = 10000; // ms that application 1 may be taken by another when levels are put back

typedef struct debug_options_s {
    zebctl_target_t target;
    double duration; // seconds; 0: for good
} debug_options_t;

// The masks of levels to switch on and off: of one named twice, the last word counts.
static void take_masks(const std::vector<std::string> &levels, uint32_t *set, uint32_t *clear)
{
    for (const std::string &word : levels) {
        uint32_t bits = ops_level(word.substr(1));
        bool on = word[0] == '+';
        *set = on ? *set | bits : *set & ~bits;
        *clear = on ? *clear & ~bits : *clear | bits;
    }
}

static void show(const zebctl_rows_t *rows)
{
    ops_table_t table = {{"APP", "NODE", "PID", "LEVELS", ""}};
    for (const zebctl_row_t &row : rows->rows) {
        bool told = zebctl_has_identity(row);
        table.push_back(
            {std::to_string(row.seen.inst.app), std::to_string(row.seen.inst.node),
             told ? std::to_string(row.identity.info.pid) : "-",
             told ? zebctl_text_or(zebctl_joined(ops_level_names(row.identity.info.dbg_mask), ","), "none") : "-",
             ops_printable(row.why)});
    }
    ops_print_table(table);
}

static void print(const zebctl_rows_t *rows)
{
    if (rows->zebctl->json)
        zebctl_print(zebctl_record(rows, "zeb.debug.1", zebctl_identity_json));
    else
        show(rows);
    (void)fflush(stdout);
}

static int switch_levels(zebctl_rows_t *rows, uint32_t set, uint32_t clear)
{
    int ret = zebctl_ask_debug(rows, set, clear);
    if (ret != 0)
        return zebctl_say_unasked(rows, ret);
    print(rows);
    return zebctl_conclude(rows);
}

// For a while.

// A process whose levels were switched, and what is to be done to undo it.
typedef struct undo_s {
    ops_inst_t inst;
    int32_t pid;
    uint32_t set;
    uint32_t clear;
    bool done;
    std::string why; // it was not
} undo_t;

static const int SIGNALS[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

static sigset_t block_signals()
{
    sigset_t set;
    (void)sigemptyset(&set);
    for (int number : SIGNALS)
        (void)sigaddset(&set, number);
    (void)sigprocmask(SIG_BLOCK, &set, nullptr);
    (void)signal(SIGPIPE, SIG_IGN); // who reads what we print may go; the levels are put back all the same
    return set;
}

// The number of the signal that ended the wait, or 0.
static int wait_for(const sigset_t &set, double seconds)
{
    int64_t deadline = ops_now() + (int64_t)(seconds * 1000);
    for (;;) {
        int64_t left = std::max<int64_t>(0, deadline - ops_now());
        struct timespec time = {left / 1000, left % 1000 * 1000000};
        int number = sigtimedwait(&set, nullptr, &time);
        if (number > 0 || left == 0)
            return std::max(number, 0);
    }
}

static std::vector<undo_t> undo_list(const zebctl_rows_t &rows, const std::vector<uint32_t> &before)
{
    std::vector<undo_t> list;
    for (size_t i = 0; i < rows.rows.size(); i++) {
        const zebctl_row_t &row = rows.rows[i];
        if (!row.asked || before[i] > LEVELS)
            continue;
        uint32_t now = zebctl_has_identity(row) ? row.identity.info.dbg_mask : before[i];
        list.push_back({row.seen.inst, row.identity.info.pid, before[i] & ~now, now & ~before[i], false, ""});
    }
    return list;
}

// One look at all that are left: is it still the same process, then switch. False when nobody could be asked.
static bool put_back_once(std::vector<undo_t> *list, const zebctl_t *zebctl, ops_session_t *session)
{
    std::vector<ops_request_t> who;
    std::vector<undo_t *> left;
    for (undo_t &undo : *list) {
        if (undo.done)
            continue;
        who.push_back(ops_request(undo.inst, OPS_ASK_INFO));
        left.push_back(&undo);
    }
    if (ops_session_ask(session, &who, zebctl_timeout_ms(zebctl)) != 0)
        return false;
    std::vector<ops_request_t> back;
    std::vector<undo_t *> asked;
    for (size_t i = 0; i < left.size(); i++) {
        left[i]->why = who[i].why;
        left[i]->done =
            who[i].outcome == OPS_GONE || (who[i].outcome == OPS_ANSWERED && who[i].info.pid != left[i]->pid);
        if (left[i]->done || who[i].outcome != OPS_ANSWERED)
            continue;
        back.push_back(ops_request(left[i]->inst, OPS_ASK_DEBUG));
        back.back().set = left[i]->set;
        back.back().clear = left[i]->clear;
        asked.push_back(left[i]);
    }
    bool told = ops_session_ask(session, &back, zebctl_timeout_ms(zebctl)) == 0;
    for (size_t i = 0; told && i < asked.size(); i++) {
        asked[i]->done = back[i].outcome == OPS_ANSWERED;
        asked[i]->why = back[i].why;
    }
    return told;
}

static bool all_done(const std::vector<undo_t> &list)
{
    return std::all_of(list.begin(), list.end(), [](const undo_t &undo) { return undo.done; });
}

// Another zebctl may be application 1 at that time: it is tried for a while. Who does not answer is asked twice.
static std::string put_back(std::vector<undo_t> *list, const zebctl_t *zebctl)
{
    zebctl_progress("putting the levels back");
    int64_t deadline = ops_now() + BACK_TIME;
    std::string why;
    for (int asked = 0; !all_done(*list) && asked < 2 && ops_now() < deadline;) {
        ops_session_t session;
        int ret = ops_session_open(&session, deadline);
        bool told = ret == 0 && put_back_once(list, zebctl, &session);
        why = told ? "" : session.why;
        asked += told ? 1 : 0;
        if (ret == 0)
            ops_session_close(&session);
        if (!all_done(*list))
            (void)poll(nullptr, 0, 200);
    }
    zebctl_progress("");
    return why;
}

static std::string by_hand(const undo_t &undo)
{
    std::string text = "zebctl debug " + ops_inst_text(undo.inst);
    for (const std::string &level : ops_level_names(undo.set))
        text += " +" + level;
    for (const std::string &level : ops_level_names(undo.clear))
        text += " -" + level;
    return text;
}

static int say_back(const std::vector<undo_t> &list, const std::string &why, const zebctl_t *zebctl)
{
    json_t left = json_t::array();
    for (const undo_t &undo : list) {
        if (undo.done)
            continue;
        std::string reason = ops_printable(undo.why.empty() ? why : undo.why);
        fprintf(stderr, "zebctl: the levels of %s were not put back: %s. Type: %s\n", ops_inst_text(undo.inst).c_str(),
                reason.c_str(), by_hand(undo).c_str());
        json_t one = zebctl_inst_json(undo.inst);
        one["why"] = reason;
        left.push_back(one);
    }
    if (zebctl->json)
        zebctl_print({{"type", "zeb.debug_back.1"}, {"put_back", list.size() - left.size()}, {"left", left}});
    else
        printf("the levels of %zu instances are as they were\n", list.size() - left.size());
    (void)fflush(stdout);
    return left.empty() ? ZEBCTL_OK : ZEBCTL_PARTIAL;
}

// Only what is known can be put back: who does not say what it prints is not switched.
static int switch_known(zebctl_rows_t *rows, std::vector<undo_t> *list)
{
    int ret = zebctl_ask_identity(rows);
    if (ret != 0)
        return zebctl_say_unasked(rows, ret);
    std::vector<uint32_t> before;
    for (zebctl_row_t &row : rows->rows) {
        before.push_back(zebctl_has_identity(row) ? row.identity.info.dbg_mask & LEVELS : UINT32_MAX);
        row.asked = row.asked && zebctl_has_identity(row);
    }
    uint32_t set = 0;
    uint32_t clear = 0;
    take_masks(rows->zebctl->levels, &set, &clear);
    std::vector<zebctl_row_t> known = rows->rows;
    int code = switch_levels(rows, set, clear);
    for (size_t i = 0; i < before.size(); i++) {
        if (zebctl_has_identity(rows->rows[i]) || before[i] > LEVELS)
            continue;
        // It may have done it and not said so.
        rows->rows[i].identity = known[i].identity;
        rows->rows[i].identity.info.dbg_mask = (before[i] | set) & ~clear;
    }
    *list = undo_list(*rows, before);
    return code;
}

static int run_for(zebctl_t *zebctl, const debug_options_t &options)
{
    sigset_t set = block_signals();
    zebctl_rows_t rows;
    std::vector<undo_t> list;
    int code = zebctl_open(&rows, zebctl);
    if (code == ZEBCTL_OK)
        code = zebctl_select(&rows, options.target);
    if (code == ZEBCTL_OK)
        code = switch_known(&rows, &list);
    zebctl_close(&rows); // others can be application 1 meanwhile
    if (list.empty())
        return code;
    zebctl_progress("until the levels are put back, or Ctrl-C");
    (void)wait_for(set, options.duration);
    std::string why = put_back(&list, zebctl);
    int back = say_back(list, why, zebctl);
    return back == ZEBCTL_OK ? code : back;
}

static int run(zebctl_t *zebctl, const debug_options_t &options)
{
    if (zebctl->levels.empty()) {
        fprintf(stderr, "zebctl: debug needs levels, as in: zebctl debug 100 +verbose -info\nType: zebctl --help\n");
        return ZEBCTL_USAGE;
    }
    if (options.duration != 0)
        return run_for(zebctl, options);
    zebctl_rows_t rows;
    int code = zebctl_open(&rows, zebctl);
    if (code == ZEBCTL_OK)
        code = zebctl_select(&rows, options.target);
    uint32_t set = 0;
    uint32_t clear = 0;
    take_masks(zebctl->levels, &set, &clear);
    if (code == ZEBCTL_OK)
        code = switch_levels(&rows, set, clear);
    zebctl_close(&rows);
    return code;
}

void zebctl_add_debug(CLI::App *app, zebctl_t *zebctl)
{
    static debug_options_t options;
    CLI::App *command = app->add_subcommand(
        "debug", "switch the levels that instances print: +verbose -info; verbose, info, warn, error, all");
    zebctl_add_target(command, &options.target);
    zebctl_add_seconds(command, "--for", &options.duration, "put the levels back after that time: 60s, 5m, 1h");
    command->callback([=] { zebctl->run = [](zebctl_t *self) { return run(self, options); }; });
}
