// zebctl ping: whether the receive thread of an instance answers, and whether its messages are read.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

#include "ops_table.h"
#include "zebctl_look.h"
#include "zebctl_progress.h"
#include "zebctl_text.h"

typedef struct ping_options_s {
    zebctl_target_t target;
    uint32_t count = 1;
    double interval = 1; // seconds
} ping_options_t;

typedef enum ping_state_e {
    PING_ANSWERS = 0,
    PING_BUSY = 1,   // its dispatcher took no message, and some wait
    PING_UNREAD = 2, // the same, and its program dispatches by itself
    PING_SILENT = 3, // nobody answers
    PING_GONE = 4,   // nobody has its name any more
    PING_BROKEN = 5  // it answers something else
} ping_state_t;

typedef struct ping_inst_s {
    ops_inst_t inst;
    ping_state_t state;
    zebctl_row_t row; // as of the last look
    uint32_t asked;
    std::vector<double> times; // ms, of the answers
    bool looked;               // there was an answer before
    int64_t still_since;       // ms of CLOCK_MONOTONIC of the last look when its messages moved, or none waited
    int64_t still_for;         // ms at the last look; 0: they move, or none waits
} ping_inst_t;

typedef struct ping_s {
    const zebctl_t *zebctl;
    const ping_options_t *options;
    std::map<uint32_t, ping_inst_t> insts; // by ops_name_of
    uint32_t node;
} ping_t;

static ping_state_t outcome_state(const ops_request_t &request)
{
    static const ping_state_t states[] = {PING_SILENT, PING_ANSWERS, PING_SILENT, PING_GONE, PING_BROKEN};
    return states[request.outcome];
}

// Compares with the answer before: a process that began anew begins anew here as well.
static void compare(ping_inst_t *ping, const zebctl_row_t &row, int64_t at)
{
    bool same = ping->looked && ping->row.identity.info.pid == row.identity.info.pid;
    bool stands = same && ops_moves(ping->row.stat, row.stat) == OPS_STANDS;
    if (!stands)
        ping->still_since = at;
    ping->still_for = at - ping->still_since;
    if (stands)
        ping->state = row.stat.own_thread ? PING_BUSY : PING_UNREAD;
}

static void take_row(ping_t *pings, const zebctl_row_t &row, int64_t at)
{
    ping_inst_t *ping = &pings->insts[ops_name_of(row.seen.inst)];
    ping->inst = row.seen.inst;
    ping->asked++;
    ping->state = outcome_state(row.identity);
    bool answered = zebctl_has_identity(row);
    if (answered)
        ping->times.push_back(row.alone_ms);
    if (answered && zebctl_has_application(row)) {
        compare(ping, row, at);
        ping->looked = true;
        ping->row = row;
    } else {
        ping->row.why = row.why;
    }
}

// Asks once. ZEBCTL_OK, or an exit code after it has said what is wrong.
static int ask(ping_t *pings)
{
    zebctl_progress("asking the instances");
    zebctl_look_t look = zebctl_look_timed(pings->zebctl, pings->options->target);
    zebctl_progress("");
    if (look.code == ZEBCTL_NOBODY && pings->insts.empty()) {
        fprintf(stderr, "zebctl: gone: %s\n", look.why.c_str());
        return ZEBCTL_NOBODY;
    }
    if (look.code != ZEBCTL_OK && look.code != ZEBCTL_NOBODY) {
        fprintf(stderr, "zebctl: %s\n", look.why.c_str());
        return look.code;
    }
    pings->node = look.rows.session.node;
    for (const zebctl_row_t &row : look.rows.rows) {
        if (row.asked)
            take_row(pings, row, look.at);
    }
    for (auto &[name, ping] : pings->insts) {
        if (zebctl_row_of(look, ping.inst) != nullptr)
            continue;
        ping.state = PING_GONE;
        ping.row.why = "nobody publishes it any more";
        ping.asked++;
    }
    return ZEBCTL_OK;
}

static std::string number(double value)
{
    char text[32];
    (void)snprintf(text, sizeof(text), "%.*f", value < 10 ? 2 : 0, value);
    return text;
}

// The version of the dispatcher that is busy, where there is but one.
static std::string version_of(const ping_inst_t &ping)
{
    const ops_ids_t &versions = ping.row.stat.versions;
    return versions.size() == 1 ? " in version " + std::to_string(versions.front()) : "";
}

static std::string state_text(const ping_inst_t &ping)
{
    std::string unread = ", " + std::to_string(ping.row.stat.queue) + " unread";
    std::string span = zebctl_span_text(ping.still_for);
    switch (ping.state) {
    case PING_ANSWERS:
        return "answers in " + number(ping.times.back()) + " ms" + (ping.row.stat.queue == 0 ? "" : unread);
    case PING_BUSY:
        return "alive, dispatcher busy for " + span + " or more" + version_of(ping) + unread;
    case PING_UNREAD:
        return "alive, nothing read for " + span + " or more: its program does not dispatch" + unread;
    case PING_SILENT:
        return "no answer: stopped, or starved of time (" + ops_printable(ping.row.why) + ")";
    case PING_GONE:
        return "gone: " + ops_printable(ping.row.why);
    default:
        return "alive, and " + ops_printable(ping.row.why);
    }
}

static void show(const ping_t *pings)
{
    for (const auto &[name, ping] : pings->insts)
        printf("%s: %s\n", ops_inst_text(ping.inst).c_str(), state_text(ping).c_str());
    (void)fflush(stdout);
}

// The time that `part` of the answers did not take longer than; of no answer 0.
static double percentile(const std::vector<double> &sorted, double part)
{
    auto rank = (size_t)std::ceil(part * (double)sorted.size());
    return sorted.empty() ? 0 : sorted[rank == 0 ? 0 : rank - 1];
}

static void show_times(const ping_t *pings)
{
    ops_table_t table = {{"INSTANCE", "ASKED", "ANSWERED", "MIN MS", "50 %", "95 %", "99 %", "MAX MS"}};
    for (const auto &[name, ping] : pings->insts) {
        std::vector<double> times = ping.times;
        std::sort(times.begin(), times.end());
        table.push_back({ops_inst_text(ping.inst), std::to_string(ping.asked), std::to_string(times.size())});
        for (double part : {0.0, 0.5, 0.95, 0.99, 1.0})
            table.back().push_back(times.empty() ? "-" : number(percentile(times, part)));
    }
    ops_print_table(table, {0, 0, 0, 1, 0, 2, 3, 0});
}

static json_t inst_json(const ping_inst_t &ping)
{
    static const char *const states[] = {"answers", "busy", "unread", "silent", "gone", "broken"};
    json_t out = {{"app", ping.inst.app},
                  {"node", ping.inst.node},
                  {"state", states[ping.state]},
                  {"asked", ping.asked},
                  {"answered", ping.times.size()}};
    std::vector<double> times = ping.times;
    std::sort(times.begin(), times.end());
    if (!times.empty())
        out["times_ms"] = {{"min", times.front()},
                           {"p50", percentile(times, 0.5)},
                           {"p95", percentile(times, 0.95)},
                           {"p99", percentile(times, 0.99)},
                           {"max", times.back()}};
    if (ping.looked) {
        out["queue_messages"] = ping.row.stat.queue;
        out["not_read_for_at_least_ms"] = ping.still_for;
        out["versions"] = ping.row.stat.versions;
    }
    if (!ping.row.why.empty())
        out["missing"] = ops_printable(ping.row.why);
    return out;
}

static json_t ping_json(const ping_t *pings)
{
    json_t instances = json_t::array();
    for (const auto &[name, ping] : pings->insts)
        instances.push_back(inst_json(ping));
    return {{"type", "zeb.ping.1"}, {"node", pings->node}, {"instances", instances}};
}

static bool any_waits(const ping_t *pings)
{
    return std::any_of(pings->insts.begin(), pings->insts.end(),
                       [](const auto &entry) { return entry.second.looked && entry.second.row.stat.queue != 0; });
}

static int ask_all(ping_t *pings)
{
    auto interval = (int64_t)(pings->options->interval * 1000);
    for (uint32_t i = 0; i < pings->options->count; i++) {
        if (i != 0 && !zebctl_pause(interval))
            return ZEBCTL_OK;
        int code = ask(pings);
        // Whether messages move is known from two looks.
        if (code == ZEBCTL_OK && pings->options->count == 1 && any_waits(pings) && zebctl_pause(interval))
            code = ask(pings);
        if (code != ZEBCTL_OK)
            return code;
        if (!pings->zebctl->json)
            show(pings);
    }
    return ZEBCTL_OK;
}

static int run(const zebctl_t *zebctl, const ping_options_t &options)
{
    ping_t pings = {zebctl, &options, {}, 0};
    zebctl_catch_signals();
    int code = ask_all(&pings);
    if (code != ZEBCTL_OK)
        return code;
    if (zebctl->json)
        zebctl_print(ping_json(&pings));
    else if (options.count > 1)
        show_times(&pings);
    bool all = std::all_of(pings.insts.begin(), pings.insts.end(),
                           [](const auto &entry) { return entry.second.asked == entry.second.times.size(); });
    return all ? ZEBCTL_OK : ZEBCTL_PARTIAL;
}

void zebctl_add_ping(CLI::App *app, zebctl_t *zebctl)
{
    static ping_options_t options;
    CLI::App *command = app->add_subcommand("ping", "whether instances are alive, and read their messages");
    zebctl_add_target(command, &options.target);
    zebctl_add_interval(command, &options.interval);
    command->add_option("-c,--count", options.count, "how many times each is asked (1)")
        ->check(CLI::Range(1, 1000000))
        ->type_name("N");
    command->callback([=] { zebctl->run = [](zebctl_t *self) { return run(self, options); }; });
}
