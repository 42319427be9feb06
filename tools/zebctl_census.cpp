// zebctl census: which node serves which version, and which calls would be answered with a mismatch.
#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include "ops_conf.h"
#include "ops_table.h"
#include "zebctl_rows.h"
#include "zebctl_text.h"

// Which versions an application serves, and on which nodes.
typedef struct census_s {
    std::string name;
    std::set<uint32_t> servers;             // nodes
    std::map<uint32_t, ops_ids_t> nodes_of; // by version
    ops_ids_t clients;                      // nodes
    ops_ids_t silent;                       // nodes whose instance did not say
} census_t;

typedef std::map<uint32_t, census_t> censuses_t; // by application

static censuses_t count_versions(const zebctl_rows_t *rows)
{
    censuses_t apps;
    for (const zebctl_row_t &row : rows->rows) {
        if (!row.asked)
            continue;
        census_t *census = &apps[row.seen.inst.app];
        uint32_t node = row.seen.inst.node;
        if (!zebctl_has_application(row)) {
            census->silent.push_back(node);
            continue;
        }
        census->name = row.stat.name;
        if (row.stat.versions.empty())
            census->clients.push_back(node);
        else
            census->servers.insert(node);
        for (uint32_t version : row.stat.versions)
            census->nodes_of[version].push_back(node);
    }
    for (auto &[app, census] : apps) {
        if (census.name.empty())
            census.name = ops_conf_name(app);
    }
    return apps;
}

// Nodes with a server that has no dispatcher for the version.
static ops_ids_t missing_on(const census_t &census, const ops_ids_t &nodes)
{
    ops_ids_t missing;
    for (uint32_t node : census.servers) {
        if (std::find(nodes.begin(), nodes.end(), node) == nodes.end())
            missing.push_back(node);
    }
    return missing;
}

static bool everywhere(const census_t &census, const ops_ids_t &nodes)
{
    return census.silent.empty() && missing_on(census, nodes).empty();
}

static std::string node_words(const ops_ids_t &nodes)
{
    return (nodes.size() == 1 ? "node " : "nodes ") + zebctl_joined(nodes, ", ");
}

// What it means for a caller, in whole sentences.
static std::vector<std::string> advise(const census_t &census)
{
    std::vector<std::string> lines;
    std::vector<std::string> safe;
    for (const auto &[version, nodes] : census.nodes_of) {
        ops_ids_t missing = missing_on(census, nodes);
        std::string number = "version " + std::to_string(version);
        if (!missing.empty())
            lines.push_back(number + " is not served on " + node_words(missing) +
                            ": a call there is answered with a mismatch");
        else if (census.silent.empty())
            safe.push_back(number);
        else
            lines.push_back(number + " is served by all that answered");
    }
    if (!safe.empty())
        lines.insert(lines.begin(), "safe to call " + zebctl_joined(safe, " and ") + " everywhere");
    if (safe.empty() && census.servers.size() > 1 && census.silent.empty())
        lines.insert(lines.begin(), "no version is safe to call everywhere");
    if (!census.silent.empty())
        lines.push_back("not known on " + node_words(census.silent) + ": no answer");
    if (!census.clients.empty())
        lines.push_back("a client on " + node_words(census.clients) + ": it serves nothing, and calls do not reach it");
    return lines;
}

static json_t app_json(uint32_t app, const census_t &census)
{
    json_t versions = json_t::array();
    for (const auto &[version, nodes] : census.nodes_of)
        versions.push_back({{"version", version},
                            {"nodes", nodes},
                            {"mismatch_nodes", missing_on(census, nodes)},
                            {"everywhere", everywhere(census, nodes)}});
    return {{"app", app},
            {"name", ops_printable(census.name)},
            {"versions", versions},
            {"client_nodes", census.clients},
            {"unanswered_nodes", census.silent}};
}

static json_t census_json(const zebctl_rows_t *rows)
{
    json_t apps = json_t::array();
    for (const auto &[app, census] : count_versions(rows))
        apps.push_back(app_json(app, census));
    return {{"type", "zeb.census.1"},
            {"node", rows->session.node},
            {"application_1_held", rows->session.held},
            {"unanswered", zebctl_unanswered(rows)},
            {"apps", apps}};
}

static void add_rows(ops_table_t *table, uint32_t app, const census_t &census)
{
    std::string name = zebctl_text_or(census.name, "-");
    for (const auto &[version, nodes] : census.nodes_of)
        table->push_back({std::to_string(app), name, std::to_string(version), everywhere(census, nodes) ? "yes" : "no",
                          zebctl_joined(nodes, ",")});
    if (!census.clients.empty())
        table->push_back({std::to_string(app), name, "client", "-", zebctl_joined(census.clients, ",")});
    if (!census.silent.empty())
        table->push_back({std::to_string(app), name, "no answer", "-", zebctl_joined(census.silent, ",")});
}

static void show(const zebctl_rows_t *rows)
{
    censuses_t apps = count_versions(rows);
    ops_table_t table = {{"APP", "NAME", "VERSION", "EVERYWHERE", "NODES"}};
    for (const auto &[app, census] : apps)
        add_rows(&table, app, census);
    ops_print_table(table, {0, 1, 0, 0, 0});
    for (const auto &[app, census] : apps) {
        printf("\n%u %s\n", app, zebctl_text_or(census.name, "-").c_str());
        for (const std::string &line : advise(census))
            printf("  %s\n", line.c_str());
    }
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
    CLI::App *command = app->add_subcommand("census", "which node serves which version, and which calls are safe");
    zebctl_add_filters(command, &target);
    command->callback([=] { zebctl->run = [](zebctl_t *self) { return run(self, target); }; });
}
