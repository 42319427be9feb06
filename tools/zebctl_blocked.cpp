// zebctl blocked: who waits for whom, the cycles among them, and where all waiting ends.
#include <algorithm>
#include <cstdio>

#include "ops_blocked.h"
#include "ops_table.h"
#include "zebctl_look.h"
#include "zebctl_progress.h"
#include "zebctl_text.h"

constexpr int64_t HISTORY_TIME = 300; // ms, at most, for what a zebd has kept

typedef struct blocked_options_s {
    double interval = 1; // seconds
    bool dot = false;
} blocked_options_t;

static void take_event(ops_blocked_since_t *since, const ops_event_t &event)
{
    std::pair<uint32_t, uint32_t> pair = {ops_name_of(event.inst), ops_name_of(event.peer)};
    if (event.kind == OPS_EVENT_LOST)
        since->clear();
    else if (event.kind == OPS_EVENT_BLOCKED)
        (*since)[pair] = ops_now() - (ops_wall() - event.at);
    else if (event.kind == OPS_EVENT_UNBLOCKED)
        since->erase(pair);
}

// Since when pairs are blocked, as far as the zebd of this node has kept it; nothing where none runs.
static ops_blocked_since_t ask_history(int64_t deadline)
{
    ops_blocked_since_t since;
    auto session = ops_session_t();
    ops_event_t event = {};
    if (ops_session_open(&session, deadline) != 0)
        return since;
    while (session.by_zebd && ops_session_event(&session, 1, &event, deadline) == 0)
        take_event(&since, event);
    ops_session_close(&session);
    return since;
}

static std::string list_insts(const std::vector<ops_inst_t> &insts, const char *between)
{
    std::vector<std::string> words;
    for (ops_inst_t inst : insts)
        words.push_back(ops_inst_text(inst));
    return zebctl_joined(words, between);
}

static std::string state_of(const ops_receiver_t &receiver, int64_t span)
{
    if (receiver.there == OPS_NOT_THERE)
        return "is not there";
    if (receiver.there == OPS_SAYS_NOTHING)
        return "does not answer";
    std::string unread = std::to_string(receiver.unread) + " unread";
    if (receiver.moves == OPS_STANDS)
        return unread + ", has read none in " + zebctl_span_text(span);
    return unread + (receiver.moves == OPS_MOVES ? ", reads" : "");
}

static void show_cycles(const ops_blocked_t &blocked)
{
    for (const ops_cycle_t &cycle : blocked.cycles) {
        std::vector<ops_inst_t> round = cycle.insts;
        round.push_back(round.front());
        printf("cycle: %s%s\n", list_insts(round, " -> ").c_str(),
               ops_cycle_stands(blocked, cycle) ? ": none of them reads" : "");
        if (cycle.tied > cycle.insts.size())
            printf("       of %zu instances that wait for each other\n", cycle.tied);
        if (!cycle.waiting.empty())
            printf("       %zu more wait for it: %s\n", cycle.waiting.size(), list_insts(cycle.waiting, " ").c_str());
    }
}

static void show_roots(const ops_blocked_t &blocked, int64_t span)
{
    for (const ops_root_t &root : blocked.roots) {
        const ops_receiver_t &receiver = blocked.receivers.at(ops_name_of(root.inst));
        printf("root:  %s waits for nobody: %s\n", ops_inst_text(root.inst).c_str(), state_of(receiver, span).c_str());
        printf("       %zu wait for it: %s\n", root.waiting.size(), list_insts(root.waiting, " ").c_str());
        if (root.chain.size() > 2)
            printf("       the longest way to it: %s\n", list_insts(root.chain, " -> ").c_str());
    }
}

static void show_edges(const ops_blocked_t &blocked, int64_t span)
{
    ops_table_t table = {{"SENDER", "RECEIVER", "UNACK", "BLOCKED FOR", "RECEIVER"}};
    for (const ops_edge_t &edge : blocked.edges)
        table.push_back({ops_inst_text(edge.sender), ops_inst_text(edge.receiver), std::to_string(edge.unack),
                         edge.blocked_for == 0 ? "-" : zebctl_span_text(edge.blocked_for) + " or more",
                         state_of(blocked.receivers.at(ops_name_of(edge.receiver)), span)});
    ops_print_table(table, {0, 0, 0, 1, 0});
}

static void show(const ops_blocked_t &blocked, int64_t span)
{
    if (blocked.edges.empty())
        printf("nobody is blocked%s\n", blocked.unsure.empty() ? "" : " of those that answered");
    else
        show_edges(blocked, span);
    if (!blocked.unsure.empty())
        printf("not known whom they wait for: %s\n", list_insts(blocked.unsure, " ").c_str());
}

static json_t insts_json(const std::vector<ops_inst_t> &insts)
{
    json_t out = json_t::array();
    for (ops_inst_t inst : insts)
        out.push_back(zebctl_inst_json(inst));
    return out;
}

static json_t receiver_json(const ops_receiver_t &receiver)
{
    static const char *const there[] = {"answers", "silent", "gone"};
    json_t out = {{"instance", zebctl_inst_json(receiver.inst)}, {"state", there[receiver.there]}};
    if (receiver.there == OPS_THERE)
        out["unread_messages"] = receiver.unread;
    if (receiver.moves != OPS_MOVES_UNKNOWN)
        out["reads"] = receiver.moves == OPS_MOVES;
    return out;
}

static json_t edges_json(const ops_blocked_t &blocked)
{
    json_t out = json_t::array();
    for (const ops_edge_t &edge : blocked.edges)
        out.push_back({{"sender", zebctl_inst_json(edge.sender)},
                       {"receiver", receiver_json(blocked.receivers.at(ops_name_of(edge.receiver)))},
                       {"unacknowledged_messages", edge.unack},
                       {"blocked_at_least_ms", edge.blocked_for}});
    return out;
}

static json_t blocked_json(const ops_blocked_t &blocked, const zebctl_rows_t &rows, int64_t span)
{
    json_t cycles = json_t::array();
    json_t roots = json_t::array();
    for (const ops_cycle_t &cycle : blocked.cycles)
        cycles.push_back({{"instances", insts_json(cycle.insts)},
                          {"none_reads", ops_cycle_stands(blocked, cycle)},
                          {"tied_instances", cycle.tied},
                          {"waiting", insts_json(cycle.waiting)}});
    for (const ops_root_t &root : blocked.roots)
        roots.push_back({{"receiver", receiver_json(blocked.receivers.at(ops_name_of(root.inst)))},
                         {"waiting", insts_json(root.waiting)},
                         {"chain", insts_json(root.chain)}});
    return {{"type", "zeb.blocked.1"},
            {"node", rows.session.node},
            {"unanswered", zebctl_unanswered(&rows)},
            {"interval_ms", span},
            {"cycles", cycles},
            {"roots", roots},
            {"pairs", edges_json(blocked)},
            {"not_known", insts_json(blocked.unsure)}};
}

static void print(const zebctl_t *zebctl, const ops_blocked_t &blocked, const zebctl_rows_t &rows, int64_t span,
                  bool dot)
{
    if (dot)
        (void)fputs(ops_blocked_dot(blocked).c_str(), stdout);
    else if (zebctl->json)
        zebctl_print(blocked_json(blocked, rows, span));
    else {
        show_cycles(blocked);
        show_roots(blocked, span);
        show(blocked, span);
    }
}

static int run(const zebctl_t *zebctl, const blocked_options_t &options)
{
    auto interval = (int64_t)(options.interval * 1000);
    auto before = zebctl_look_t();
    auto after = zebctl_look_t();
    zebctl_progress("asking the instances, and then once more");
    int code = zebctl_look_once(zebctl, {}, &before);
    if (code != ZEBCTL_OK)
        return code;
    int64_t next = ops_now() + interval;
    ops_blocked_since_t since = ask_history(ops_now() + std::min(interval, HISTORY_TIME));
    (void)zebctl_pause(next - ops_now());
    code = zebctl_look_again(zebctl, {}, before, &after);
    zebctl_progress("");
    if (code != ZEBCTL_OK)
        return code;
    ops_blocked_t blocked = ops_blocked(zebctl_looks_of(before), zebctl_looks_of(after), since);
    print(zebctl, blocked, after.rows, after.at - before.at, options.dot);
    return zebctl_conclude(&after.rows);
}

void zebctl_add_blocked(CLI::App *app, zebctl_t *zebctl)
{
    static blocked_options_t options;
    CLI::App *command = app->add_subcommand("blocked", "who waits for whom, and why");
    zebctl_add_interval(command, &options.interval);
    command->add_flag("--dot", options.dot, "print a graph for Graphviz");
    command->callback([=] { zebctl->run = [](zebctl_t *self) { return run(self, options); }; });
}
