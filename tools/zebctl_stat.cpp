// zebctl stat: the counters of instances, and what they grow by in a second.
#include <cstdio>
#include <map>

#include "ops_table.h"
#include "zebctl_look.h"
#include "zebctl_progress.h"
#include "zebctl_text.h"

typedef struct stat_options_s {
    zebctl_target_t target;
    double interval = 1; // seconds
    bool no_rates = false;
} stat_options_t;

typedef struct stat_s {
    zebctl_look_t before;
    zebctl_look_t after;
} stat_t;

static std::string rate_of(const std::map<uint32_t, double> &rates, ops_inst_t peer)
{
    auto found = rates.find(ops_name_of(peer));
    return found == rates.end() ? "-" : zebctl_rate_text(found->second);
}

typedef std::map<uint32_t, std::vector<std::string>> cells_t; // by ops_name_of a peer

// The counters in both directions with each peer, in the order of the peers.
static cells_t peer_cells(const ops_stat_t &stat, const ops_rates_t &rates)
{
    cells_t peers;
    std::vector<std::string> none = {"", "-", "-", "-", "-", "-", "-", "-", "-", "-", "-"};
    for (const ops_flow_send_t &flow : stat.sends) {
        auto &cells = peers.emplace(ops_name_of(flow.dst), none).first->second;
        cells[0] = ops_inst_text(flow.dst);
        cells[1] = std::to_string(flow.send);
        cells[2] = rate_of(rates.sends, flow.dst);
        cells[3] = std::to_string(flow.unack);
        cells[4] = std::to_string(flow.reject);
        cells[5] = std::to_string(flow.reply_reject);
    }
    for (const ops_flow_recv_t &flow : stat.recvs) {
        auto &cells = peers.emplace(ops_name_of(flow.src), none).first->second;
        cells[0] = ops_inst_text(flow.src);
        cells[6] = std::to_string(flow.recv);
        cells[7] = rate_of(rates.recvs, flow.src);
        cells[8] = std::to_string(flow.unack);
        cells[9] = std::to_string(flow.drop);
        cells[10] = std::to_string(flow.returned);
    }
    return peers;
}

static void show_peers(const ops_stat_t &stat, const ops_rates_t &rates, bool no_rates)
{
    ops_table_t table = {{"PEER", "SENT", "/S", "UNACK", "REJECTED", "REPLIES REJECTED", "RECEIVED", "/S", "UNACK",
                          "DROPPED", "RETURNED"}};
    table.push_back({"all", std::to_string(stat.send), zebctl_rate_text(rates.send), std::to_string(stat.send_unack),
                     std::to_string(stat.mcast_reject), std::to_string(stat.reply_exception), std::to_string(stat.recv),
                     zebctl_rate_text(rates.recv), std::to_string(stat.recv_unack), "-", "-"});
    for (const auto &peer : peer_cells(stat, rates))
        table.push_back(peer.second);
    for (std::vector<std::string> &row : table) {
        if (!no_rates)
            continue;
        row.erase(row.begin() + 7);
        row.erase(row.begin() + 2);
    }
    ops_print_table(table, no_rates ? ops_importance_t{0, 0, 0, 2, 1, 0, 0, 3, 4}
                                    : ops_importance_t{0, 0, 0, 0, 2, 1, 0, 0, 0, 3, 4});
}

static void show(const stat_t &stat, bool no_rates)
{
    const char *between = "";
    for (const zebctl_row_t &row : stat.after.rows.rows) {
        printf("%s%s", between, ops_inst_text(row.seen.inst).c_str());
        between = "\n";
        if (zebctl_has_identity(row))
            printf("  pid %d", row.identity.info.pid);
        if (zebctl_has_application(row))
            printf("  [%s]  queue %u  exceptions %u  calls in progress %zu", ops_printable(row.stat.name).c_str(),
                   row.stat.queue, row.stat.exception, row.stat.calls.size());
        printf("%s%s\n", row.why.empty() ? "" : "  ", ops_printable(row.why).c_str());
        if ((row.stat.parts & OPS_STAT_FLOW) != 0)
            show_peers(row.stat, zebctl_rates(stat.before, stat.after, row), no_rates);
    }
}

static json_t rate_json(double rate)
{
    return rate < 0 ? json_t(nullptr) : json_t(rate);
}

static json_t pairs_json(const std::map<uint32_t, double> &rates)
{
    json_t out = json_t::array();
    for (const auto &[name, rate] : rates)
        out.push_back({{"peer", zebctl_inst_json(ops_inst_of(name))}, {"messages_per_s", rate_json(rate)}});
    return out;
}

static json_t rates_json(const ops_rates_t &rates)
{
    return {{"interval_ms", rates.span},
            {"sent_messages_per_s", rate_json(rates.send)},
            {"received_messages_per_s", rate_json(rates.recv)},
            {"queue_growth_messages", rates.queue},
            {"send_to", pairs_json(rates.sends)},
            {"receive_from", pairs_json(rates.recvs)}};
}

static json_t stat_json(const stat_t &stat)
{
    json_t record = zebctl_record(&stat.after.rows, "zeb.stat.1", zebctl_stat_json);
    for (size_t i = 0; i < stat.after.rows.rows.size(); i++) {
        ops_rates_t rates = zebctl_rates(stat.before, stat.after, stat.after.rows.rows[i]);
        if (rates.span != 0)
            record["instances"][i]["rates"] = rates_json(rates);
    }
    return record;
}

static int run(const zebctl_t *zebctl, const stat_options_t &options)
{
    auto stat = stat_t();
    zebctl_progress("asking the instances");
    int code = options.no_rates ? zebctl_look_once(zebctl, options.target, &stat.after)
                                : zebctl_look_twice(zebctl, options.target, (int64_t)(options.interval * 1000),
                                                    &stat.before, &stat.after);
    zebctl_progress("");
    if (code != ZEBCTL_OK)
        return code;
    if (zebctl->json)
        zebctl_print(stat_json(stat));
    else
        show(stat, options.no_rates);
    return zebctl_conclude(&stat.after.rows);
}

void zebctl_add_stat(CLI::App *app, zebctl_t *zebctl)
{
    static stat_options_t options;
    CLI::App *command = app->add_subcommand("stat", "the counters of instances, and their rates");
    zebctl_add_target(command, &options.target);
    zebctl_add_interval(command, &options.interval);
    command->add_flag("--no-rates", options.no_rates, "one look alone");
    command->callback([=] { zebctl->run = [](zebctl_t *self) { return run(self, options); }; });
}
