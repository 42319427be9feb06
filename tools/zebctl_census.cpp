// zebctl census: which node serves which version.
#include <cstdio>
#include <map>
#include <set>

#include "ops_table.h"
#include "zebctl_rows.h"
#include "zebctl_text.h"

// Which versions an application serves, and on which nodes.
typedef struct census_s {
    std::string name;
    std::set<uint32_t> servers;             // nodes
    std::map<uint32_t, ops_ids_t> nodes_of; // by version
    ops_ids_t clients;                      // nodes
} census_t;

static std::map<uint32_t, census_t> count_versions(const zebctl_rows_t *rows)
{
    std::map<uint32_t, census_t> apps;
    for (const zebctl_row_t &row : rows->rows) {
        if (!zebctl_has_application(row))
            continue;
        census_t *census = &apps[row.seen.inst.app];
        census->name = row.stat.name;
        if (row.stat.versions.empty())
            census->clients.push_back(row.seen.inst.node);
        else
            census->servers.insert(row.seen.inst.node);
        for (uint32_t version : row.stat.versions)
            census->nodes_of[version].push_back(row.seen.inst.node);
    }
    return apps;
}

static json_t census_json(const zebctl_rows_t *rows)
{
    json_t apps = json_t::array();
    for (const auto &[app, census] : count_versions(rows)) {
        json_t versions = json_t::array();
        for (const auto &[version, nodes] : census.nodes_of)
            versions.push_back(
                {{"version", version}, {"nodes", nodes}, {"everywhere", nodes.size() == census.servers.size()}});
        apps.push_back({{"app", app},
                        {"name", ops_printable(census.name)},
                        {"versions", versions},
                        {"client_nodes", census.clients}});
    }
    return {{"type", "zeb.census.1"},
            {"node", rows->session.node},
            {"application_1_held", rows->session.held},
            {"unanswered", zebctl_unanswered(rows)},
            {"apps", apps}};
}

// A caller of a version that is not served everywhere gets a mismatch from the other nodes.
static void show(const zebctl_rows_t *rows)
{
    ops_table_t table = {{"APP", "NAME", "VERSION", "EVERYWHERE", "NODES"}};
    for (const auto &[app, census] : count_versions(rows)) {
        for (const auto &[version, nodes] : census.nodes_of)
            table.push_back({std::to_string(app), zebctl_text_or(census.name, "-"), std::to_string(version),
                             nodes.size() == census.servers.size() ? "yes" : "no", zebctl_joined(nodes, ",")});
        if (!census.clients.empty())
            table.push_back({std::to_string(app), zebctl_text_or(census.name, "-"), "client", "-",
                             zebctl_joined(census.clients, ",")});
    }
    ops_print_table(table);
    if (size_t silent = zebctl_unanswered(rows); silent != 0)
        printf("without an answer: %zu\n", silent);
}

static int run(zebctl_t *zebctl, const zebctl_target_t &target)
{
    zebctl_rows_t rows;
    int code = zebctl_gather(&rows, zebctl, target);
    if (code == ZEBCTL_OK) {
        if (zebctl->json)
            zebctl_print(census_json(&rows));
        else
            show(&rows);
        code = zebctl_conclude(&rows);
    }
    zebctl_close(&rows);
    return code;
}

void zebctl_add_census(CLI::App *app, zebctl_t *zebctl)
{
    static zebctl_target_t target;
    CLI::App *command = app->add_subcommand("census", "which node serves which version");
    zebctl_add_filters(command, &target);
    command->callback([=] { zebctl->run = [](zebctl_t *self) { return run(self, target); }; });
}
