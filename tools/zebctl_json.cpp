// Rows as JSON.
#include <cstdio>

#include "zebctl_rows.h"
#include "zebctl_text.h"

json_t zebctl_identity_json(const zebctl_row_t &row)
{
    json_t out = {{"app", row.seen.inst.app}, {"node", row.seen.inst.node}, {"sockets", row.seen.sockets}};
    if (zebctl_has_identity(row)) {
        out["pid"] = row.identity.info.pid;
        out["levels"] = ops_level_names(row.identity.info.dbg_mask);
        out["answer_ms"] = row.identity.took;
    }
    if (!row.process.program.empty())
        out["program"] = ops_printable(row.process.program);
    if (!row.why.empty())
        out["missing"] = ops_printable(row.why);
    return out;
}

json_t zebctl_list_json(const zebctl_row_t &row)
{
    json_t out = zebctl_identity_json(row);
    if (!zebctl_has_application(row))
        return out;
    out["name"] = ops_printable(row.stat.name);
    out["server"] = !row.stat.versions.empty();
    out["versions"] = row.stat.versions;
    out["queue_messages"] = row.stat.queue;
    return out;
}

json_t zebctl_inst_json(ops_inst_t inst)
{
    return {{"app", inst.app}, {"node", inst.node}};
}

static json_t sync_json(const std::vector<ops_sync_t> &list, const char *failed)
{
    json_t out = json_t::array();
    for (const ops_sync_t &sync : list)
        out.push_back({{"peer", zebctl_inst_json(sync.peer)},
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
        sends.push_back({{"peer", zebctl_inst_json(flow.dst)},
                         {"messages", flow.send},
                         {"unacknowledged", flow.unack},
                         {"rejected", flow.reject},
                         {"replies_rejected", flow.reply_reject}});
    for (const ops_flow_recv_t &flow : stat.recvs)
        recvs.push_back({{"peer", zebctl_inst_json(flow.src)},
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
            waiting.push_back(zebctl_inst_json(inst));
        out.push_back({{"sequence", call.seq},
                       {"timeout_s", call.timeout},
                       {"waiting_for", waiting},
                       {"replies", call.replied.size()}});
    }
    return out;
}

json_t zebctl_stat_json(const zebctl_row_t &row)
{
    json_t out = zebctl_list_json(row);
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

json_t zebctl_record(const zebctl_rows_t *rows, const char *type, json_t (*json)(const zebctl_row_t &row))
{
    json_t instances = json_t::array();
    for (const zebctl_row_t &row : rows->rows)
        instances.push_back(json(row));
    return {{"type", type},
            {"node", rows->session.node},
            {"application_1_held", rows->session.held},
            {"unanswered", zebctl_unanswered(rows)},
            {"instances", instances}};
}

void zebctl_print(const json_t &record)
{
    printf("%s\n", record.dump(2, ' ', false, json_t::error_handler_t::replace).c_str());
}

void zebctl_print_line(const json_t &record)
{
    printf("%s\n", record.dump(-1, ' ', false, json_t::error_handler_t::replace).c_str());
    (void)fflush(stdout); // a reader of a stream waits for it
}
