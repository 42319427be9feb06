#include "zebctl_rows.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>

#include "zebctl_progress.h"
#include "zebctl_text.h"

bool zebctl_has_identity(const zebctl_row_t &row)
{
    return row.identity.outcome == OPS_ANSWERED;
}

bool zebctl_has_application(const zebctl_row_t &row)
{
    return row.statistics.outcome == OPS_ANSWERED && (row.stat.parts & OPS_STAT_APP) != 0;
}

int zebctl_open(zebctl_rows_t *rows, const zebctl_t *zebctl)
{
    *rows = zebctl_rows_t();
    rows->zebctl = zebctl;
    if (ops_session_open(&rows->session, ops_now() + ZEBCTL_VIEW_TIME) == 0)
        return ZEBCTL_OK;
    fprintf(stderr, "zebctl: %s\n", rows->session.why.c_str());
    return ZEBCTL_ERROR;
}

void zebctl_close(zebctl_rows_t *rows)
{
    ops_session_close(&rows->session);
}

static bool matches(const zebctl_target_t &target, ops_inst_t inst)
{
    return (!target.app || *target.app == inst.app) && (!target.node || *target.node == inst.node);
}

std::string zebctl_nobody(const zebctl_target_t &target)
{
    std::string what = target.app ? " of application " + std::to_string(*target.app) : "";
    if (target.node)
        what += " on node " + std::to_string(*target.node);
    return "there is no instance" + what + ". Type: zebctl list";
}

static int say_nobody(const zebctl_target_t &target)
{
    fprintf(stderr, "zebctl: %s\n", zebctl_nobody(target).c_str());
    return ZEBCTL_NOBODY;
}

int zebctl_pick(zebctl_rows_t *rows, const zebctl_target_t &target)
{
    std::vector<ops_seen_t> seen;
    int ret = ops_session_view(&rows->session, &seen, ops_now() + ZEBCTL_VIEW_TIME);
    if (ret != 0)
        return ret;
    rows->rows.clear();
    for (const ops_seen_t &one : seen) {
        if (!matches(target, one.inst))
            continue;
        zebctl_row_t row = {};
        row.seen = one;
        row.asked = one.inst.app != ZEBD_APP_ID; // who asks is application 1 itself
        row.why = row.asked ? "not asked" : "";
        rows->rows.push_back(row);
    }
    return 0;
}

int zebctl_select(zebctl_rows_t *rows, const zebctl_target_t &target)
{
    int ret = zebctl_pick(rows, target);
    if (ret != 0) {
        fprintf(stderr, "zebctl: %s\n", rows->session.why.c_str());
        return ret == -ETIMEDOUT ? ZEBCTL_TIMED_OUT : ZEBCTL_ERROR;
    }
    return rows->rows.empty() ? say_nobody(target) : ZEBCTL_OK;
}

// Asks the instances for which `wanted` holds, and stores the outcomes.
template <typename Wanted>
static int ask_rows(zebctl_rows_t *rows, const ops_request_t &like, Wanted wanted)
{
    std::vector<ops_request_t> requests;
    std::vector<zebctl_row_t *> asked;
    for (zebctl_row_t &row : rows->rows) {
        if (!row.asked || !wanted(row))
            continue;
        requests.push_back(like);
        requests.back().inst = row.seen.inst;
        asked.push_back(&row);
    }
    int ret = ops_session_ask(&rows->session, &requests, zebctl_timeout_ms(rows->zebctl));
    for (size_t i = 0; i < asked.size(); i++) {
        (like.ask == OPS_ASK_STAT ? asked[i]->statistics : asked[i]->identity) = requests[i];
        if (ret == 0 || requests[i].outcome != OPS_WAITING)
            asked[i]->why = requests[i].why;
    }
    return ret;
}

int zebctl_ask_identity(zebctl_rows_t *rows)
{
    return ask_rows(rows, ops_request({}, OPS_ASK_INFO), [](const zebctl_row_t &) { return true; });
}

int zebctl_ask_debug(zebctl_rows_t *rows, uint32_t set, uint32_t clear)
{
    ops_request_t like = ops_request({}, OPS_ASK_DEBUG);
    like.set = set;
    like.clear = clear;
    return ask_rows(rows, like, [](const zebctl_row_t &) { return true; });
}

static void parse(zebctl_row_t *row)
{
    row->stat = ops_stat_parse(row->statistics.text.data(), row->statistics.text.size());
    row->why = ops_stat_missing(row->stat);
    if (row->stat.app != row->seen.inst.app && (row->stat.parts & OPS_STAT_APP) != 0)
        row->why = "its statistics are of application " + std::to_string(row->stat.app);
}

int zebctl_ask_statistics(zebctl_rows_t *rows)
{
    // Who does not say who he is does not say more.
    int ret = ask_rows(rows, ops_request({}, OPS_ASK_STAT), zebctl_has_identity);
    for (zebctl_row_t &row : rows->rows) {
        if (row.statistics.outcome == OPS_ANSWERED)
            parse(&row);
    }
    return ret;
}

static void take_processes(zebctl_rows_t *rows, uint32_t node, const std::vector<ops_process_t> &processes)
{
    std::map<int32_t, const ops_process_t *> by_pid;
    for (const ops_process_t &process : processes)
        by_pid[process.pid] = &process;
    for (zebctl_row_t &row : rows->rows) {
        auto found = by_pid.find(row.identity.info.pid);
        if (row.seen.inst.node == node && zebctl_has_identity(row) && found != by_pid.end())
            row.process = *found->second;
    }
}

void zebctl_ask_processes(zebctl_rows_t *rows)
{
    std::map<uint32_t, std::set<int32_t>> nodes; // a process may have many instances
    for (const zebctl_row_t &row : rows->rows) {
        if (zebctl_has_identity(row))
            nodes[row.seen.inst.node].insert(row.identity.info.pid);
    }
    for (const auto &[node, pids] : nodes) {
        std::vector<ops_process_t> processes;
        if (ops_session_processes(&rows->session, node, {pids.begin(), pids.end()}, &processes,
                                  zebctl_timeout_ms(rows->zebctl)) == 0)
            take_processes(rows, node, processes);
    }
}

int zebctl_say_unasked(const zebctl_rows_t *rows, int ret)
{
    std::string why = rows->session.why.empty() ? strerror(-ret) : rows->session.why;
    fprintf(stderr, "zebctl: %s\n", why.c_str());
    return ZEBCTL_ERROR;
}

int zebctl_gather(zebctl_rows_t *rows, const zebctl_t *zebctl, const zebctl_target_t &target)
{
    int code = zebctl_open(rows, zebctl);
    if (code == ZEBCTL_OK)
        code = zebctl_select(rows, target);
    if (code != ZEBCTL_OK)
        return code;
    zebctl_progress("asking " + std::to_string(rows->rows.size()) + " instances");
    int ret = zebctl_ask_identity(rows);
    if (ret == 0)
        ret = zebctl_ask_statistics(rows);
    zebctl_progress("");
    return ret == 0 ? ZEBCTL_OK : zebctl_say_unasked(rows, ret);
}

size_t zebctl_unanswered(const zebctl_rows_t *rows)
{
    return (size_t)std::count_if(rows->rows.begin(), rows->rows.end(),
                                 [](const zebctl_row_t &row) { return !row.why.empty(); });
}

int zebctl_conclude(const zebctl_rows_t *rows)
{
    size_t silent = zebctl_unanswered(rows);
    if (silent == 0)
        return ZEBCTL_OK;
    (void)fflush(stdout); // before what is said of it on standard error
    if (!rows->zebctl->json)
        fprintf(stderr, "zebctl: of %zu instances %zu did not answer in full\n", rows->rows.size(), silent);
    return ZEBCTL_PARTIAL;
}
