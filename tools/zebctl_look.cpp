#include "zebctl_look.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "zebctl_progress.h"

constexpr int64_t HELD_TIME = 500; // ms that another zebctl has to give application 1 back
constexpr int64_t HELD_PAUSE = 20; // ms at least until it is tried again

static void failed(zebctl_look_t *look, int ret)
{
    look->code = ret == -ETIMEDOUT ? ZEBCTL_TIMED_OUT : ZEBCTL_ERROR;
    look->why = look->rows.session.why.empty() ? strerror(-ret) : look->rows.session.why;
}

static int ask(zebctl_rows_t *rows)
{
    int ret = zebctl_ask_identity(rows);
    return ret == 0 ? zebctl_ask_statistics(rows) : ret;
}

static double sharp_now() // ms
{
    struct timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e3 + (double)now.tv_nsec / 1e6;
}

// An instance that does not answer this time keeps what it took when all were asked.
static void measure(zebctl_rows_t *rows)
{
    for (zebctl_row_t &row : rows->rows) {
        if (!zebctl_has_identity(row))
            continue;
        std::vector<ops_request_t> requests = {ops_request(row.seen.inst, OPS_ASK_INFO)};
        double begun = sharp_now();
        row.alone_ms = (double)row.identity.took;
        if (ops_session_ask(&rows->session, &requests, zebctl_timeout_ms(rows->zebctl)) == 0 &&
            requests[0].outcome == OPS_ANSWERED)
            row.alone_ms = sharp_now() - begun;
    }
}

static zebctl_look_t look_now(const zebctl_t *zebctl, const zebctl_target_t &target, bool timed)
{
    auto look = zebctl_look_t();
    look.rows.zebctl = zebctl;
    int ret = ops_session_open(&look.rows.session, ops_now() + ZEBCTL_VIEW_TIME);
    if (ret != 0) {
        failed(&look, ret);
        return look;
    }
    ret = zebctl_pick(&look.rows, target);
    if (ret == 0 && !look.rows.rows.empty())
        ret = ask(&look.rows);
    look.at = ops_now();
    if (ret == 0 && timed)
        measure(&look.rows);
    if (ret != 0)
        failed(&look, ret);
    else if (look.rows.rows.empty()) {
        look.code = ZEBCTL_NOBODY;
        look.why = zebctl_nobody(target);
    }
    ops_session_close(&look.rows.session);
    return look;
}

static zebctl_look_t look_soon(const zebctl_t *zebctl, const zebctl_target_t &target, bool timed)
{
    int64_t deadline = ops_now() + HELD_TIME;
    for (;;) {
        zebctl_look_t look = look_now(zebctl, target, timed);
        // Two that step back from each other do not come back at the same time.
        if (!look.rows.session.held || ops_now() >= deadline || !zebctl_pause(HELD_PAUSE + getpid() % HELD_PAUSE))
            return look;
    }
}

zebctl_look_t zebctl_look(const zebctl_t *zebctl, const zebctl_target_t &target)
{
    return look_soon(zebctl, target, false);
}

zebctl_look_t zebctl_look_timed(const zebctl_t *zebctl, const zebctl_target_t &target)
{
    return look_soon(zebctl, target, true);
}

static int say(const zebctl_look_t &look)
{
    if (look.code == ZEBCTL_OK)
        return ZEBCTL_OK;
    zebctl_progress("");
    fprintf(stderr, "zebctl: %s\n", look.why.c_str());
    return look.code;
}

// Rows are in the order of names.
static bool row_before(const zebctl_row_t &row, uint32_t name)
{
    return ops_name_of(row.seen.inst) < name;
}

const zebctl_row_t *zebctl_row_of(const zebctl_look_t &look, ops_inst_t inst)
{
    const std::vector<zebctl_row_t> &rows = look.rows.rows;
    auto found = std::lower_bound(rows.begin(), rows.end(), ops_name_of(inst), row_before);
    bool same = found != rows.end() && ops_name_of(found->seen.inst) == ops_name_of(inst);
    return same ? &*found : nullptr;
}

// Adds the instances that are gone by the later look.
static void keep_gone(const zebctl_look_t &before, zebctl_look_t *after)
{
    std::vector<zebctl_row_t> gone;
    for (const zebctl_row_t &row : before.rows.rows) {
        if (zebctl_row_of(*after, row.seen.inst) != nullptr)
            continue;
        gone.push_back(row);
        gone.back().why = "gone: no longer published";
        gone.back().seen.sockets = 0;
    }
    std::vector<zebctl_row_t> *rows = &after->rows.rows;
    rows->insert(rows->end(), gone.begin(), gone.end());
    std::sort(rows->begin(), rows->end(),
              [](const zebctl_row_t &a, const zebctl_row_t &b) { return row_before(a, ops_name_of(b.seen.inst)); });
}

int zebctl_look_once(const zebctl_t *zebctl, const zebctl_target_t &target, zebctl_look_t *look)
{
    *look = zebctl_look(zebctl, target);
    return say(*look);
}

int zebctl_look_again(const zebctl_t *zebctl, const zebctl_target_t &target, const zebctl_look_t &before,
                      zebctl_look_t *after)
{
    *after = zebctl_look(zebctl, target);
    if (after->code != ZEBCTL_OK && after->code != ZEBCTL_NOBODY)
        return say(*after);
    keep_gone(before, after);
    return ZEBCTL_OK;
}

int zebctl_look_twice(const zebctl_t *zebctl, const zebctl_target_t &target, int64_t interval, zebctl_look_t *before,
                      zebctl_look_t *after)
{
    int code = zebctl_look_once(zebctl, target, before);
    if (code != ZEBCTL_OK)
        return code;
    if (!zebctl_pause(interval))
        return ZEBCTL_ERROR;
    return zebctl_look_again(zebctl, target, *before, after);
}

ops_rates_t zebctl_rates(const zebctl_look_t &before, const zebctl_look_t &after, const zebctl_row_t &row)
{
    const zebctl_row_t *then = zebctl_row_of(before, row.seen.inst);
    bool same = then != nullptr && row.seen.sockets != 0 && zebctl_has_application(*then) &&
                zebctl_has_application(row) && then->identity.info.pid == row.identity.info.pid;
    return ops_rates(same ? then->stat : row.stat, row.stat, same ? after.at - before.at : 0);
}

ops_looks_t zebctl_looks_of(const zebctl_look_t &look)
{
    ops_looks_t looks = {look.at, {}};
    for (const zebctl_row_t &row : look.rows.rows) {
        if (row.asked && row.seen.sockets != 0)
            looks.insts[ops_name_of(row.seen.inst)] = {row.statistics.outcome == OPS_ANSWERED, row.stat};
    }
    return looks;
}

void zebctl_add_interval(CLI::App *command, double *interval)
{
    command->add_option("--interval", *interval, "seconds between two looks (1)")
        ->check(CLI::Range(0.001, 3600.0))
        ->type_name("S");
}

std::string zebctl_rate_text(double rate)
{
    char text[32];
    if (rate < 0)
        return "-";
    (void)snprintf(text, sizeof(text), rate != 0 && rate < 10 ? "%.1f" : "%.0f", rate);
    return text;
}

static sigset_t s_ends; // signals that end a command; empty until they are caught

void zebctl_catch_signals()
{
    (void)sigemptyset(&s_ends);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN)
            (void)sigaddset(&s_ends, signal);
    }
    (void)sigprocmask(SIG_BLOCK, &s_ends, nullptr);
}

bool zebctl_stopped()
{
    sigset_t pending;
    sigset_t both;
    return sigpending(&pending) == 0 && sigandset(&both, &pending, &s_ends) == 0 && sigisemptyset(&both) == 0;
}

bool zebctl_pause(int64_t ms)
{
    for (int64_t end = ops_now() + ms, left = ms; left > 0; left = end - ops_now()) {
        struct timespec time = {left / 1000, left % 1000 * 1000000};
        if (sigisemptyset(&s_ends) == 1) {
            (void)nanosleep(&time, nullptr);
            continue;
        }
        int signal = sigtimedwait(&s_ends, nullptr, &time);
        if (signal != -1) {
            (void)kill(getpid(), signal); // it stays pending
            return false;
        }
    }
    return !zebctl_stopped();
}
