// zebctl stat: the counters of instances.
#include <cstdio>
#include <map>

#include "ops_table.h"
#include "zebctl_rows.h"
#include "zebctl_text.h"

// The counters in both directions with each peer, in the order of the peers.
static void show_peers(const ops_stat_t &stat)
{
    std::map<uint32_t, std::vector<std::string>> peers;
    std::vector<std::string> none = {"", "-", "-", "-", "-", "-", "-", "-", "-"};
    for (const ops_flow_send_t &flow : stat.sends) {
        auto &cells = peers.emplace(ops_name_of(flow.dst), none).first->second;
        cells[0] = zebctl_inst(flow.dst);
        cells[1] = std::to_string(flow.send);
        cells[2] = std::to_string(flow.unack);
        cells[3] = std::to_string(flow.reject);
        cells[4] = std::to_string(flow.reply_reject);
    }
    for (const ops_flow_recv_t &flow : stat.recvs) {
        auto &cells = peers.emplace(ops_name_of(flow.src), none).first->second;
        cells[0] = zebctl_inst(flow.src);
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

static void show(const zebctl_rows_t *rows)
{
    const char *between = "";
    for (const zebctl_row_t &row : rows->rows) {
        printf("%s%s", between, zebctl_inst(row.seen.inst).c_str());
        between = "\n";
        if (zebctl_has_identity(row))
            printf("  pid %d", row.identity.info.pid);
        if (zebctl_has_application(row))
            printf("  [%s]  queue %u  exceptions %u  calls in progress %zu", ops_printable(row.stat.name).c_str(),
                   row.stat.queue, row.stat.exception, row.stat.calls.size());
        printf("%s%s\n", row.why.empty() ? "" : "  ", ops_printable(row.why).c_str());
        if ((row.stat.parts & OPS_STAT_FLOW) != 0)
            show_peers(row.stat);
    }
}

static int run(zebctl_t *zebctl, const zebctl_target_t &target)
{
    zebctl_rows_t rows;
    int code = zebctl_gather(&rows, zebctl, target);
    if (code == ZEBCTL_OK) {
        if (zebctl->json)
            zebctl_print(zebctl_record(&rows, "zeb.stat.1", zebctl_stat_json));
        else
            show(&rows);
        code = zebctl_conclude(&rows);
    }
    zebctl_close(&rows);
    return code;
}

void zebctl_add_stat(CLI::App *app, zebctl_t *zebctl)
{
    static zebctl_target_t target;
    CLI::App *command = app->add_subcommand("stat", "the counters of instances");
    zebctl_add_target(command, &target);
    command->callback([=] { zebctl->run = [](zebctl_t *self) { return run(self, target); }; });
}
