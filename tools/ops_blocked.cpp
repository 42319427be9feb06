#include "ops_blocked.h"

#include <algorithm>
#include <set>

typedef std::vector<std::vector<size_t>> graph_t; // by vertex: whom it waits for

// The edges with their instances as vertices, numbered in the order of their names.
typedef struct net_s {
    std::vector<uint32_t> names;
    graph_t waits_for;
    graph_t waited_by;
    std::vector<size_t> group; // by vertex: its strongly connected component
    size_t groups;
} net_t;

ops_moves_t ops_moves(const ops_stat_t &before, const ops_stat_t &after)
{
    // The counter of a process that began anew differs too.
    bool taken = after.queue < before.queue || after.recv != before.recv;
    return taken || after.queue == 0 ? OPS_MOVES : OPS_STANDS;
}

static const ops_look_t *find(const ops_looks_t &looks, uint32_t name)
{
    auto found = looks.insts.find(name);
    return found == looks.insts.end() ? nullptr : &found->second;
}

static bool was_blocked(const ops_look_t *look, uint32_t receiver)
{
    if (look == nullptr || !look->known)
        return false;
    return std::any_of(look->stat.sends.begin(), look->stat.sends.end(), [=](const ops_flow_send_t &send) {
        return ops_name_of(send.dst) == receiver && send.unack > OPS_WINDOW;
    });
}

static int64_t blocked_for(const ops_looks_t &before, const ops_looks_t &after, const ops_blocked_since_t &since,
                           uint32_t sender, uint32_t receiver)
{
    int64_t seen = was_blocked(find(before, sender), receiver) ? after.at - before.at : 0;
    auto kept = since.find({sender, receiver});
    return kept == since.end() ? seen : std::max(seen, after.at - kept->second);
}

static ops_receiver_t look_at(const ops_looks_t &before, const ops_looks_t &after, uint32_t name)
{
    ops_receiver_t receiver = {ops_inst_of(name), OPS_NOT_THERE, OPS_MOVES_UNKNOWN, 0};
    const ops_look_t *now = find(after, name);
    const ops_look_t *then = find(before, name);
    if (now == nullptr)
        return receiver;
    receiver.there = now->known ? OPS_THERE : OPS_SAYS_NOTHING;
    receiver.unread = now->stat.queue;
    if (now->known && then != nullptr && then->known)
        receiver.moves = ops_moves(then->stat, now->stat);
    return receiver;
}

static void find_edges(ops_blocked_t *blocked, const ops_looks_t &before, const ops_looks_t &after,
                       const ops_blocked_since_t &since)
{
    for (const auto &[name, look] : after.insts) {
        if (!look.known || (look.stat.parts & OPS_STAT_FLOW) == 0 || look.stat.cut)
            blocked->unsure.push_back(ops_inst_of(name));
        std::map<uint32_t, int32_t> full; // a text may name a receiver twice
        for (const ops_flow_send_t &send : look.stat.sends) {
            if (look.known && send.unack > OPS_WINDOW)
                full[ops_name_of(send.dst)] = send.unack;
        }
        for (const auto &[receiver, unack] : full) {
            blocked->edges.push_back(
                {ops_inst_of(name), ops_inst_of(receiver), unack, blocked_for(before, after, since, name, receiver)});
            blocked->receivers[receiver] = look_at(before, after, receiver);
        }
    }
}

static size_t vertex(const net_t &net, ops_inst_t inst)
{
    return (size_t)(std::lower_bound(net.names.begin(), net.names.end(), ops_name_of(inst)) - net.names.begin());
}

static net_t build_net(const std::vector<ops_edge_t> &edges)
{
    std::set<uint32_t> names;
    for (const ops_edge_t &edge : edges) {
        names.insert(ops_name_of(edge.sender));
        names.insert(ops_name_of(edge.receiver));
    }
    net_t net = {{names.begin(), names.end()}, graph_t(names.size()), graph_t(names.size()), {}, 0};
    for (const ops_edge_t &edge : edges) {
        net.waits_for[vertex(net, edge.sender)].push_back(vertex(net, edge.receiver));
        net.waited_by[vertex(net, edge.receiver)].push_back(vertex(net, edge.sender));
    }
    return net;
}

// Tarjan's algorithm, with its stack of calls in `path`.
typedef struct tarjan_s {
    net_t *net;
    std::vector<size_t> number;                  // in the order of visits, from 1; 0: not visited
    std::vector<size_t> low;                     // the lowest number that is reached
    std::vector<size_t> open;                    // visited, and in no group yet
    std::vector<std::pair<size_t, size_t>> path; // a vertex, and its next edge
    size_t visited;
} tarjan_t;

constexpr size_t NO_GROUP = SIZE_MAX;

static void enter(tarjan_t *tarjan, size_t at)
{
    tarjan->number[at] = tarjan->low[at] = ++tarjan->visited;
    tarjan->open.push_back(at);
    tarjan->path.emplace_back(at, 0);
}

// All edges of the vertex have been followed.
static void leave(tarjan_t *tarjan, size_t at)
{
    net_t *net = tarjan->net;
    tarjan->path.pop_back();
    if (!tarjan->path.empty()) {
        size_t before = tarjan->path.back().first;
        tarjan->low[before] = std::min(tarjan->low[before], tarjan->low[at]);
    }
    if (tarjan->low[at] != tarjan->number[at])
        return;
    for (size_t member = SIZE_MAX; member != at;) {
        member = tarjan->open.back();
        tarjan->open.pop_back();
        net->group[member] = net->groups;
    }
    net->groups++;
}

static void walk(tarjan_t *tarjan, size_t from)
{
    enter(tarjan, from);
    while (!tarjan->path.empty()) {
        auto &[at, edge] = tarjan->path.back();
        if (edge == tarjan->net->waits_for[at].size()) {
            leave(tarjan, at);
            continue;
        }
        size_t to = tarjan->net->waits_for[at][edge++];
        if (tarjan->number[to] == 0)
            enter(tarjan, to);
        else if (tarjan->net->group[to] == NO_GROUP)
            tarjan->low[at] = std::min(tarjan->low[at], tarjan->number[to]);
    }
}

static void find_groups(net_t *net)
{
    size_t count = net->names.size();
    net->group.assign(count, NO_GROUP);
    tarjan_t tarjan = {net, std::vector<size_t>(count, 0), std::vector<size_t>(count, 0), {}, {}, 0};
    for (size_t at = 0; at < count; at++) {
        if (tarjan.number[at] == 0)
            walk(&tarjan, at);
    }
}

// The vertices that are reached from `from`, the nearest first, each with the one before it; within the group of `from`
// alone, or in all of the graph.
typedef struct reached_s {
    std::vector<size_t> order; // without `from`, unless a way leads back to it
    std::map<size_t, size_t> before;
} reached_t;

static reached_t reach(const net_t &net, const graph_t &graph, size_t from, bool in_group)
{
    reached_t reached;
    std::vector<size_t> next = {from};
    for (size_t i = 0; i < next.size(); i++) {
        for (size_t to : graph[next[i]]) {
            if ((in_group && net.group[to] != net.group[from]) || !reached.before.emplace(to, next[i]).second)
                continue;
            reached.order.push_back(to);
            if (to != from)
                next.push_back(to);
        }
    }
    return reached;
}

static std::vector<ops_inst_t> insts_of(const net_t &net, const std::vector<size_t> &vertices)
{
    std::vector<ops_inst_t> insts;
    for (size_t at : vertices)
        insts.push_back(ops_inst_of(net.names[at]));
    return insts;
}

// The shortest way from `from` back to it, within its group.
static ops_cycle_t cycle_of(const net_t &net, size_t from, size_t tied)
{
    reached_t reached = reach(net, net.waits_for, from, true);
    std::vector<size_t> way = {from};
    for (size_t at = reached.before[from]; at != from; at = reached.before[at])
        way.push_back(at);
    std::reverse(way.begin() + 1, way.end());
    ops_cycle_t cycle = {insts_of(net, way), tied, {}};
    for (size_t at : reach(net, net.waited_by, from, false).order) {
        if (net.group[at] != net.group[from])
            cycle.waiting.push_back(ops_inst_of(net.names[at]));
    }
    return cycle;
}

static void find_cycles(ops_blocked_t *blocked, const net_t &net)
{
    std::vector<size_t> sizes(net.groups, 0);
    for (size_t group : net.group)
        sizes[group]++;
    std::vector<bool> done(net.groups, false);
    for (size_t at = 0; at < net.names.size(); at++) {
        const std::vector<size_t> &to = net.waits_for[at];
        bool itself = std::find(to.begin(), to.end(), at) != to.end();
        if (done[net.group[at]] || (sizes[net.group[at]] == 1 && !itself))
            continue;
        done[net.group[at]] = true;
        blocked->cycles.push_back(cycle_of(net, at, sizes[net.group[at]]));
    }
}

static void find_roots(ops_blocked_t *blocked, const net_t &net)
{
    for (size_t at = 0; at < net.names.size(); at++) {
        if (!net.waits_for[at].empty())
            continue;
        reached_t reached = reach(net, net.waited_by, at, false);
        std::vector<size_t> chain = {reached.order.back()};
        while (chain.back() != at)
            chain.push_back(reached.before[chain.back()]);
        blocked->roots.push_back({ops_inst_of(net.names[at]), insts_of(net, reached.order), insts_of(net, chain)});
    }
    std::stable_sort(blocked->roots.begin(), blocked->roots.end(),
                     [](const ops_root_t &a, const ops_root_t &b) { return a.waiting.size() > b.waiting.size(); });
}

ops_blocked_t ops_blocked(const ops_looks_t &before, const ops_looks_t &after, const ops_blocked_since_t &since)
{
    ops_blocked_t blocked = {};
    find_edges(&blocked, before, after, since);
    net_t net = build_net(blocked.edges);
    find_groups(&net);
    find_cycles(&blocked, net);
    find_roots(&blocked, net);
    return blocked;
}

bool ops_cycle_stands(const ops_blocked_t &blocked, const ops_cycle_t &cycle)
{
    return std::all_of(cycle.insts.begin(), cycle.insts.end(), [&](ops_inst_t inst) {
        auto found = blocked.receivers.find(ops_name_of(inst));
        return found != blocked.receivers.end() && found->second.moves == OPS_STANDS;
    });
}

static std::string node_name(ops_inst_t inst)
{
    return "\"" + std::to_string(inst.app) + "@" + std::to_string(inst.node) + "\"";
}

static const char *dot_note(const ops_receiver_t &receiver)
{
    if (receiver.there == OPS_NOT_THERE)
        return "not there";
    if (receiver.there == OPS_SAYS_NOTHING)
        return "does not answer";
    return receiver.moves == OPS_STANDS ? "stands" : (receiver.moves == OPS_MOVES ? "moves" : "not known");
}

std::string ops_blocked_dot(const ops_blocked_t &blocked)
{
    std::set<uint32_t> cycles;
    for (const ops_cycle_t &cycle : blocked.cycles) {
        for (ops_inst_t inst : cycle.insts)
            cycles.insert(ops_name_of(inst));
    }
    std::string dot = "digraph blocked {\n    rankdir=LR;\n    node [shape=box];\n";
    for (const auto &[name, receiver] : blocked.receivers)
        dot += "    " + node_name(receiver.inst) + " [tooltip=\"" + dot_note(receiver) + "\", xlabel=\"" +
               std::to_string(receiver.unread) + " unread, " + dot_note(receiver) + "\"" +
               (cycles.count(name) != 0 ? ", color=red" : "") + "];\n";
    for (const ops_edge_t &edge : blocked.edges)
        dot += "    " + node_name(edge.sender) + " -> " + node_name(edge.receiver) + " [label=\"" +
               std::to_string(edge.unack) + "\"];\n";
    return dot + "}\n";
}
