// zebctl nodes: which nodes there are, and what runs there.
#include <cerrno>
#include <cstdio>
#include <map>

#include "ops_conf.h"
#include "ops_table.h"
#include "zebctl_progress.h"
#include "zebctl_rows.h"
#include "zebctl_text.h"

typedef struct node_s {
    ops_ids_t apps;
    bool app1; // someone is application 1 there
    const char *zebd;
} node_t;

static const char YES[] = "yes";
static const char NO[] = "no";
static const char UNKNOWN[] = "?"; // application 1 may be a zebctl

static std::map<uint32_t, node_t> nodes_of(const zebctl_rows_t *rows)
{
    std::map<uint32_t, node_t> nodes;
    for (const zebctl_row_t &row : rows->rows) {
        node_t *node = &nodes[row.seen.inst.node];
        node->zebd = NO;
        if (row.seen.inst.app == ZEBD_APP_ID)
            node->app1 = true;
        else
            node->apps.push_back(row.seen.inst.app);
    }
    return nodes;
}

// A zebd answers for the processes of its node. Where nobody is application 1, there is none.
static void find_zebds(zebctl_rows_t *rows, std::map<uint32_t, node_t> *nodes)
{
    for (auto &[number, node] : *nodes) {
        std::vector<ops_process_t> none;
        if (number == rows->session.node) {
            node.zebd = rows->session.by_zebd ? YES : NO;
        } else if (node.app1) {
            int ret = rows->session.by_zebd
                          ? ops_session_processes(&rows->session, number, {}, &none, zebctl_timeout_ms(rows->zebctl))
                          : -EHOSTUNREACH;
            node.zebd = ret == 0 ? YES : UNKNOWN;
        }
    }
}

static std::string app_text(uint32_t app)
{
    std::string name = ops_conf_name(app);
    return std::to_string(app) + (name.empty() ? "" : " " + name);
}

static void show(const zebctl_rows_t *rows, const std::map<uint32_t, node_t> &nodes)
{
    ops_table_t table = {{"NODE", "ZEBD", "INSTANCES", "APPLICATIONS", ""}};
    for (const auto &[number, node] : nodes) {
        std::vector<std::string> apps;
        for (uint32_t app : node.apps)
            apps.push_back(app_text(app));
        table.push_back({std::to_string(number), node.zebd, std::to_string(node.apps.size()),
                         zebctl_text_or(zebctl_joined(apps, ", "), "-"),
                         number == rows->session.node ? "this node" : ""});
    }
    ops_print_table(table);
}

static void print(const zebctl_rows_t *rows, const std::map<uint32_t, node_t> &nodes)
{
    json_t list = json_t::array();
    for (const auto &[number, node] : nodes) {
        json_t apps = json_t::array();
        for (uint32_t app : node.apps)
            apps.push_back({{"app", app}, {"name", ops_printable(ops_conf_name(app))}});
        json_t out = {{"node", number}};
        if (node.zebd != UNKNOWN)
            out["zebd"] = node.zebd == YES;
        out["instances"] = apps;
        list.push_back(out);
    }
    zebctl_print({{"type", "zeb.nodes.1"}, {"node", rows->session.node}, {"nodes", list}});
}

static int run(zebctl_t *zebctl)
{
    zebctl_rows_t rows;
    int code = zebctl_open(&rows, zebctl);
    if (code == ZEBCTL_OK)
        code = zebctl_select(&rows, {});
    if (code == ZEBCTL_OK) {
        std::map<uint32_t, node_t> nodes = nodes_of(&rows);
        zebctl_progress("asking the nodes");
        find_zebds(&rows, &nodes);
        zebctl_progress("");
        zebctl->json ? print(&rows, nodes) : show(&rows, nodes);
    }
    zebctl_close(&rows);
    return code;
}

void zebctl_add_nodes(CLI::App *app, zebctl_t *zebctl)
{
    CLI::App *command = app->add_subcommand("nodes", "the nodes, and what runs there");
    command->callback([=] { zebctl->run = run; });
}
