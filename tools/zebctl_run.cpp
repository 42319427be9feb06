// The commands of zebctl. Each takes the instances that match from the view, asks them as application 1, and shows
// what it got; an instance without an answer is shown with what went wrong.
#include "zebctl.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <zeb/zeb.h>
#include <zeb/zeb_diag.h>

#include "ops_client.h"
#include "ops_stat.h"
#include "ops_table.h"

typedef nlohmann::ordered_json json_t;

constexpr int64_t VIEW_TIME = 5000; // ms for the topology service

// An instance and what it answered.
typedef struct row_s {
    ops_inst_t inst;
    uint32_t sockets; // that publish it
    bool asked;
    ops_request_t identity; // of OPS_ASK_INFO or OPS_ASK_DEBUG
    ops_request_t statistics;
    ops_stat_t stat;
    std::string why; // what is missing; empty when nothing is
} row_t;

typedef struct run_s {
    const zebctl_options_t *options;
    uint32_t node; // this node
    std::vector<row_t> rows;
    bool held; // another process is application 1
} run_t;

static const char *const LEVELS[] = {"verbose", "info", "warn", "error"};

uint32_t zebctl_level(const std::string &name)
{
    for (int level = ZEB_DBG_LEVEL_VERBOSE; level <= ZEB_DBG_LEVEL_ERROR; level++) {
        if (name == LEVELS[level])
            return 1U << level;
    }
    return name == "all" ? 15U : 0;
}

static std::vector<std::string> level_names(uint32_t mask)
{
    std::vector<std::string> names;
    for (int level = ZEB_DBG_LEVEL_VERBOSE; level <= ZEB_DBG_LEVEL_ERROR; level++) {
        if ((mask & 1U << level) != 0)
            names.emplace_back(LEVELS[level]);
    }
    return names;
}

static std::string joined(const std::vector<std::string> &words, const char *between)
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : between) + word;
    return text;
}

static std::string joined(const ops_ids_t &ids, const char *between)
{
    std::vector<std::string> words;
    for (uint32_t id : ids)
        words.push_back(std::to_string(id));
    return joined(words, between);
}

static std::string inst_text(ops_inst_t inst)
{
    return std::to_string(inst.app) + "@" + std::to_string(inst.node);
}

static bool has_identity(const row_t &row)
{
    return row.identity.outcome == OPS_ANSWERED;
}

static bool has_application(const row_t &row)
{
    return row.statistics.outcome == OPS_ANSWERED && (row.stat.parts & OPS_STAT_APP) != 0;
}

// The program of a process of this node; of another node's only a daemon there could know it.
static std::string program_of(const run_t *run, const row_t &row)
{
    char path[4096];
    if (!has_identity(row) || row.inst.node != run->node)
        return "";
    std::string link = "/proc/" + std::to_string(row.identity.info.pid) + "/exe";
    ssize_t len = readlink(link.c_str(), path, sizeof(path));
    if (len <= 0)
        return "";
    std::string program(path, (size_t)len);
    return ops_printable(program.substr(program.rfind('/') + 1));
}

// Asking.

static int open_view(ops_view_t *view)
{
    int ret = ops_view_open(view);
    if (ret == -EAFNOSUPPORT) {
        fprintf(stderr, "zebctl: the kernel has no TIPC. Type: modprobe tipc\n");
        return ret;
    }
    if (ret == 0)
        ret = ops_view_sync(view, ops_now() + VIEW_TIME);
    if (ret != 0)
        fprintf(stderr, "zebctl: the topology service does not answer: %s\n", strerror(-ret));
    return ret;
}

static void select_rows(run_t *run, const ops_view_t *view)
{
    for (const auto &[name, published] : view->insts) {
        ops_inst_t inst = ops_inst_of(name);
        if ((run->options->app && *run->options->app != inst.app) ||
            (run->options->node && *run->options->node != inst.node))
            continue;
        row_t row = {};
        row.inst = inst;
        row.sockets = published.sockets;
        row.asked = inst.app != ZEBD_APP_ID; // who asks is application 1 itself
        row.why = row.asked ? "not asked" : "";
        run->rows.push_back(row);
    }
    if (view->left_out != 0)
        fprintf(stderr, "zebctl: only the first %zu instances are looked at\n", OPS_VIEW_MAX);
    if (view->odd != 0)
        fprintf(stderr, "zebctl: %u names of type %u are no instance's\n", view->odd, OPS_NAME_TYPE);
}

// Asks the instances for which `wanted` holds, and stores the outcomes.
template <typename Wanted>
static void ask_rows(run_t *run, ops_client_t *client, ops_ask_t ask, Wanted wanted)
{
    std::vector<ops_request_t> requests;
    std::vector<row_t *> asked;
    for (row_t &row : run->rows) {
        if (!row.asked || !wanted(row))
            continue;
        requests.push_back(ops_request(row.inst, ask));
        requests.back().set = run->options->set;
        requests.back().clear = run->options->clear;
        asked.push_back(&row);
    }
    ops_client_ask(client, &requests, (int64_t)(run->options->timeout * 1000));
    for (size_t i = 0; i < asked.size(); i++) {
        (ask == OPS_ASK_STAT ? asked[i]->statistics : asked[i]->identity) = requests[i];
        asked[i]->why = requests[i].why;
    }
}

static void parse_rows(run_t *run)
{
    for (row_t &row : run->rows) {
        if (row.statistics.outcome != OPS_ANSWERED)
            continue;
        row.stat = ops_stat_parse(row.statistics.text.data(), row.statistics.text.size());
        row.why = ops_stat_missing(row.stat);
        if (row.stat.app != row.inst.app && (row.stat.parts & OPS_STAT_APP) != 0)
            row.why = "its statistics are of application " + std::to_string(row.stat.app);
    }
}

static void ask(run_t *run, ops_client_t *client)
{
    bool debug = run->options->command == ZEBCTL_DEBUG;
    ask_rows(run, client, debug ? OPS_ASK_DEBUG : OPS_ASK_INFO, [](const row_t &) { return true; });
    if (!debug) // who does not say who he is does not say more
        ask_rows(run, client, OPS_ASK_STAT, has_identity);
    parse_rows(run);
}

static void say_held(const run_t *run)
{
    fprintf(stderr,
            "zebctl: another process of node %u is application 1 (a zebctl, or a daemon), so no instance was asked. "
            "Type: tipc socket list\n",
            run->node);
}

// 0, or an exit code.
static int gather(run_t *run, ops_view_t *view)
{
    int node = zeb_get_my_node_id();
    run->node = (uint32_t)node;
    if (node < 0) {
        fprintf(stderr, "zebctl: this node has no node id: /tmp/addr/.zeb_node_addr is missing or wrong\n");
        return ZEBCTL_NOT_ASKED;
    }
    ops_client_t client = {};
    int ret = ops_client_open(&client, view, run->node, ops_now() + VIEW_TIME);
    if (ret == -EADDRINUSE)
        say_held(run);
    else if (ret != 0)
        fprintf(stderr, "zebctl: application 1 cannot be taken: %s\n", strerror(-ret));
    run->held = ret == -EADDRINUSE;
    if (ret != 0)
        return ZEBCTL_NOT_ASKED;
    ask(run, &client);
    ops_client_close(&client);
    return ZEBCTL_OK;
}

static size_t silent_rows(const run_t *run)
{
    return (size_t)std::count_if(run->rows.begin(), run->rows.end(), [](const row_t &row) { return !row.why.empty(); });
}

// What each command shows.

static json_t identity_json(const run_t *run, const row_t &row)
{
    json_t out = {{"app", row.inst.app}, {"node", row.inst.node}, {"sockets", row.sockets}};
    if (has_identity(row)) {
        out["pid"] = row.identity.info.pid;
        out["levels"] = level_names(row.identity.info.dbg_mask);
        out["answer_ms"] = row.identity.took;
    }
    std::string program = program_of(run, row);
    if (!program.empty())
        out["program"] = program;
    if (!row.why.empty())
        out["missing"] = ops_printable(row.why);
    return out;
}

static json_t list_json(const run_t *run, const row_t &row)
{
    json_t out = identity_json(run, row);
    if (!has_application(row))
        return out;
    out["name"] = ops_printable(row.stat.name);
    out["server"] = !row.stat.versions.empty();
    out["versions"] = row.stat.versions;
    out["queue_messages"] = row.stat.queue;
    return out;
}

static json_t inst_json(ops_inst_t inst)
{
    return {{"app", inst.app}, {"node", inst.node}};
}

static json_t sync_json(const std::vector<ops_sync_t> &list, const char *failed)
{
    json_t out = json_t::array();
    for (const ops_sync_t &sync : list)
        out.push_back({{"peer", inst_json(sync.peer)},
                       {"inst", sync.inst},
                       {"inst_ack", sync.inst_ack},
                       {"inst_seq_ack", sync.inst_seq_ack},
                       {failed, sync.failed}});
    return out;
}

static json_t flow_json(const ops_stat_t &stat)
{
    json_t sends = json_t::array();
    json_t recvs = json_t::array();
    for (const ops_flow_send_t &flow : stat.sends)
        sends.push_back({{"peer", inst_json(flow.dst)},
                         {"messages", flow.send},
                         {"unacknowledged", flow.unack},
                         {"rejected", flow.reject},
                         {"replies_rejected", flow.reply_reject}});
    for (const ops_flow_recv_t &flow : stat.recvs)
        recvs.push_back({{"peer", inst_json(flow.src)},
                         {"messages", flow.recv},
                         {"unacknowledged", flow.unack},
                         {"dropped", flow.drop},
                         {"returned", flow.returned}});
    return {{"sent_messages", stat.send},
            {"sent_unacknowledged", stat.send_unack},
            {"sent_without_instance_rejected", stat.mcast_reject},
            {"replies_without_instance_rejected", stat.reply_exception},
            {"received_messages", stat.recv},
            {"received_unacknowledged", stat.recv_unack},
            {"receive_exceptions", stat.exception},
            {"send_to", sends},
            {"receive_from", recvs}};
}

static json_t calls_json(const ops_stat_t &stat)
{
    json_t out = json_t::array();
    for (const ops_call_t &call : stat.calls) {
        json_t waiting = json_t::array();
        for (ops_inst_t inst : call.waiting)
            waiting.push_back(inst_json(inst));
        out.push_back({{"sequence", call.seq},
                       {"timeout_s", call.timeout},
                       {"waiting_for", waiting},
                       {"replies", call.replied.size()}});
    }
    return out;
}

static json_t stat_json(const run_t *run, const row_t &row)
{
    json_t out = list_json(run, row);
    if (row.statistics.outcome != OPS_ANSWERED)
        return out;
    out["cut"] = row.stat.cut;
    if ((row.stat.parts & OPS_STAT_FLOW) != 0)
        out["flow"] = flow_json(row.stat);
    if ((row.stat.parts & OPS_STAT_MNG) != 0)
        out["synchronisation"] = {{"sent_messages", row.stat.sync_send},
                                  {"received_messages", row.stat.sync_recv},
                                  {"send_to", sync_json(row.stat.sync_sends, "failed")},
                                  {"receive_from", sync_json(row.stat.sync_recvs, "returned")}};
    if ((row.stat.parts & OPS_STAT_CALLS) != 0)
        out["calls"] = calls_json(row.stat);
    return out;
}

static json_t dump_json(const run_t *run, const row_t &row)
{
    json_t out = identity_json(run, row);
    out["cut"] = row.stat.cut;
    if (row.statistics.outcome == OPS_ANSWERED)
        out["text"] = ops_printable(row.statistics.text.c_str());
    return out;
}

static std::string text_or(const std::string &text, const char *other)
{
    return text.empty() ? other : ops_printable(text);
}

static std::vector<std::string> list_cells(const run_t *run, const row_t &row)
{
    bool told = has_application(row);
    std::vector<std::string> cells = {std::to_string(row.inst.app), told ? text_or(row.stat.name, "-") : "-",
                                      std::to_string(row.inst.node)};
    cells.push_back(has_identity(row) ? std::to_string(row.identity.info.pid) : "-");
    cells.push_back(!told ? "-" : (row.stat.versions.empty() ? "client" : "server"));
    cells.push_back(told ? text_or(joined(row.stat.versions, ","), "-") : "-");
    cells.push_back(told ? std::to_string(row.stat.queue) : "-");
    cells.push_back(has_identity(row) ? text_or(joined(level_names(row.identity.info.dbg_mask), ","), "none") : "-");
    cells.push_back(text_or(program_of(run, row), "-"));
    std::string note = ops_printable(row.why);
    if (row.sockets > 1)
        note += (note.empty() ? "" : "; ") + std::to_string(row.sockets) + " processes share it";
    cells.push_back(note);
    return cells;
}

static void show_list(const run_t *run)
{
    ops_table_t table = {{"APP", "NAME", "NODE", "PID", "ROLE", "VERSIONS", "QUEUE", "LEVELS", "PROGRAM", ""}};
    for (const row_t &row : run->rows)
        table.push_back(list_cells(run, row));
    ops_print_table(table);
}

static void show_debug(const run_t *run)
{
    ops_table_t table = {{"APP", "NODE", "PID", "LEVELS", ""}};
    for (const row_t &row : run->rows) {
        bool told = has_identity(row);
        table.push_back({std::to_string(row.inst.app), std::to_string(row.inst.node),
                         told ? std::to_string(row.identity.info.pid) : "-",
                         told ? text_or(joined(level_names(row.identity.info.dbg_mask), ","), "none") : "-",
                         ops_printable(row.why)});
    }
    ops_print_table(table);
}

// The counters in both directions with each peer, in the order of the peers.
static void show_peers(const ops_stat_t &stat)
{
    std::map<uint32_t, std::vector<std::string>> peers;
    std::vector<std::string> none = {"", "-", "-", "-", "-", "-", "-", "-", "-"};
    for (const ops_flow_send_t &flow : stat.sends) {
        auto &cells = peers.emplace(ops_name_of(flow.dst), none).first->second;
        cells[0] = inst_text(flow.dst);
        cells[1] = std::to_string(flow.send);
        cells[2] = std::to_string(flow.unack);
        cells[3] = std::to_string(flow.reject);
        cells[4] = std::to_string(flow.reply_reject);
    }
    for (const ops_flow_recv_t &flow : stat.recvs) {
        auto &cells = peers.emplace(ops_name_of(flow.src), none).first->second;
        cells[0] = inst_text(flow.src);
        cells[5] = std::to_string(flow.recv);
        cells[6] = std::to_string(flow.unack);
        cells[7] = std::to_string(flow.drop);
        cells[8] = std::to_string(flow.returned);
    }
    ops_table_t table = {
        {"PEER", "SENT", "UNACK", "REJECTED", "REPLIES REJECTED", "RECEIVED", "UNACK", "DROPPED", "RETURNED"},
        {"all", std::to_string(stat.send), std::to_string(stat.send_unack), std::to_string(stat.mcast_reject),
         std::to_string(stat.reply_exception), std::to_string(stat.recv), std::to_string(stat.recv_unack), "-", "-"}};
    for (const auto &peer : peers)
        table.push_back(peer.second);
    ops_print_table(table);
}

static void show_stat(const run_t *run)
{
    const char *between = "";
    for (const row_t &row : run->rows) {
        printf("%s%s", between, inst_text(row.inst).c_str());
        between = "\n";
        if (has_identity(row))
            printf("  pid %d", row.identity.info.pid);
        if (has_application(row))
            printf("  [%s]  queue %u  exceptions %u  calls in progress %zu", ops_printable(row.stat.name).c_str(),
                   row.stat.queue, row.stat.exception, row.stat.calls.size());
        printf("%s%s\n", row.why.empty() ? "" : "  ", ops_printable(row.why).c_str());
        if ((row.stat.parts & OPS_STAT_FLOW) != 0)
            show_peers(row.stat);
    }
}

static void show_dump(const run_t *run)
{
    for (const row_t &row : run->rows) {
        if (run->rows.size() > 1)
            printf("==> %s <==\n", inst_text(row.inst).c_str());
        std::string text = row.statistics.text;
        while (!text.empty() && text.back() == '\0')
            text.pop_back();
        printf("%s", ops_printable(text).c_str());
    }
}

// Which versions an application serves, and on which nodes.
typedef struct census_s {
    std::string name;
    std::set<uint32_t> servers;             // nodes
    std::map<uint32_t, ops_ids_t> nodes_of; // by version
    ops_ids_t clients;                      // nodes
} census_t;

static std::map<uint32_t, census_t> count_versions(const run_t *run)
{
    std::map<uint32_t, census_t> apps;
    for (const row_t &row : run->rows) {
        if (!has_application(row))
            continue;
        census_t *census = &apps[row.inst.app];
        census->name = row.stat.name;
        if (row.stat.versions.empty())
            census->clients.push_back(row.inst.node);
        else
            census->servers.insert(row.inst.node);
        for (uint32_t version : row.stat.versions)
            census->nodes_of[version].push_back(row.inst.node);
    }
    return apps;
}

static json_t census_json(const run_t *run)
{
    json_t out = json_t::array();
    for (const auto &[app, census] : count_versions(run)) {
        json_t versions = json_t::array();
        for (const auto &[version, nodes] : census.nodes_of)
            versions.push_back(
                {{"version", version}, {"nodes", nodes}, {"everywhere", nodes.size() == census.servers.size()}});
        out.push_back({{"app", app},
                       {"name", ops_printable(census.name)},
                       {"versions", versions},
                       {"client_nodes", census.clients}});
    }
    return out;
}

// A caller of a version that is not served everywhere gets a mismatch from the other nodes.
static void show_census(const run_t *run)
{
    ops_table_t table = {{"APP", "NAME", "VERSION", "EVERYWHERE", "NODES"}};
    for (const auto &[app, census] : count_versions(run)) {
        for (const auto &[version, nodes] : census.nodes_of)
            table.push_back({std::to_string(app), text_or(census.name, "-"), std::to_string(version),
                             nodes.size() == census.servers.size() ? "yes" : "no", joined(nodes, ",")});
        if (!census.clients.empty())
            table.push_back(
                {std::to_string(app), text_or(census.name, "-"), "client", "-", joined(census.clients, ",")});
    }
    ops_print_table(table);
    if (size_t silent = silent_rows(run); silent != 0)
        printf("without an answer: %zu\n", silent);
}

typedef struct shown_s {
    const char *type; // of the JSON, with its version
    void (*text)(const run_t *run);
    json_t (*json)(const run_t *run, const row_t &row);
} shown_t;

static shown_t shown_by(zebctl_command_t command)
{
    switch (command) {
    case ZEBCTL_STAT:
        return {"zeb.stat.1", show_stat, stat_json};
    case ZEBCTL_DEBUG:
        return {"zeb.debug.1", show_debug, identity_json};
    case ZEBCTL_DUMP:
        return {"zeb.dump.1", show_dump, dump_json};
    case ZEBCTL_CENSUS:
        return {"zeb.census.1", show_census, identity_json};
    default:
        return {"zeb.list.1", show_list, list_json};
    }
}

static void show(const run_t *run)
{
    shown_t shown = shown_by(run->options->command);
    if (!run->options->json) {
        shown.text(run);
        (void)fflush(stdout); // before what is said of it on standard error
        return;
    }
    json_t instances = json_t::array();
    for (const row_t &row : run->rows)
        instances.push_back(shown.json(run, row));
    json_t out = {{"type", shown.type}, {"node", run->node}, {"application_1_held", run->held}};
    out["unanswered"] = silent_rows(run);
    if (run->options->command == ZEBCTL_CENSUS)
        out["apps"] = census_json(run);
    else
        out["instances"] = instances;
    printf("%s\n", out.dump(2).c_str());
}

static int say_nothing_matches(const zebctl_options_t &options)
{
    std::string what = options.app ? "of application " + std::to_string(*options.app) : "";
    if (options.node)
        what += (what.empty() ? "on node " : " on node ") + std::to_string(*options.node);
    fprintf(stderr, "zebctl: there is no instance%s%s. Type: zebctl list\n", what.empty() ? "" : " ", what.c_str());
    return ZEBCTL_NOTHING;
}

int zebctl_run(const zebctl_options_t &options)
{
    run_t run = {&options, 0, {}, false};
    ops_view_t view = {};
    if (open_view(&view) != 0)
        return ZEBCTL_NOT_ASKED;
    select_rows(&run, &view);
    int ret = run.rows.empty() ? say_nothing_matches(options) : gather(&run, &view);
    ops_view_close(&view);
    if (run.rows.empty())
        return ret;
    // The names alone are worth a list.
    if (ret == ZEBCTL_OK || options.json || options.command == ZEBCTL_LIST)
        show(&run);
    if (ret != ZEBCTL_OK)
        return options.command == ZEBCTL_LIST ? ZEBCTL_PARTIAL : ret;
    size_t silent = silent_rows(&run);
    if (silent != 0 && !options.json)
        fprintf(stderr, "zebctl: of %zu instances %zu did not answer in full\n", run.rows.size(), silent);
    return silent == 0 ? ZEBCTL_OK : ZEBCTL_PARTIAL;
}
