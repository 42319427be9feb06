// The diagnosis of a peer that blocks its senders: the blocked side logs its counters and pings; the pinged side logs
// its own view and answers. The diagnosis runs on the blocked sending thread with its record's mutex held; the ping
// handlers run on the receive thread and take the mutex of the pinged application.
#include "platform/list_algo.h"
#include "zeb_app_info.h"
#include "zeb_dbg.h"
#include "zeb_flow_ctrl.h"
#include "zeb_mng_msg.h"

static void log_totals(zeb_fc_t *fc) ZEB_REQUIRES(fc->mutex)
{
    ZEB_ERROR("ZEB app %d total send %d, unack %d, mcast reject %d, RPC reply exception %d\n", fc->app_id,
              fc->total_send, fc->total_send_unack, fc->mcast_send_reject, fc->rpc_reply_exception);
    ZEB_ERROR("ZEB app %d total receive %d, unack %d, exception %d\n", fc->app_id, fc->total_recv, fc->total_recv_unack,
              zeb_load_relaxed(&fc->recv_exception));
}

static void log_send(const zeb_fc_t *fc, const zeb_send_app_fc_t *record)
{
    ZEB_ERROR("ZEB app %d send to application %d/%d: send %d, unack %d, reject %d, RPC reply reject %d\n", fc->app_id,
              record->dst_app_id, record->dst_node_id, record->send, record->unack, record->reject,
              record->rpc_reply_reject);
}

static void log_receives(zeb_fc_t *fc, uint32_t app, uint32_t node) ZEB_REQUIRES(fc->mutex)
{
    list_each<zeb_recv_app_fc_t>(&fc->recv_list, [&](const zeb_recv_app_fc_t *record) {
        if (record->src_app_id == app && record->src_node_id == node)
            ZEB_ERROR("ZEB app %d receive from application %d/%d: receive %d, unack %d, drop %d, return %d\n",
                      fc->app_id, app, node, record->recv, record->unack, record->drop, record->ret_data);
    });
}

void zeb_fc_diagnose_destination(zeb_fc_t *fc, uint32_t dst_app)
{
    log_totals(fc);
    for (struct list_head *link = fc->send_list.next; link != &fc->send_list; link = link->next) {
        const zeb_send_app_fc_t *record = list_record<zeb_send_app_fc_t>(link);
        if (!zeb_fc_blocks(record, dst_app))
            continue;
        (void)zeb_send_fc_ping(fc->app_id, record->dst_node_id, dst_app);
        log_send(fc, record);
        log_receives(fc, dst_app, record->dst_node_id);
    }
}

void zeb_fc_ping_request(uint32_t src_app, uint32_t src_node, uint32_t my_app)
{
    ZEB_ERROR("ZEB app %d recv ping request from %d/%d.\n", my_app, src_app, src_node);
    if (zeb_log_on(ZEB_DBG_LEVEL_ERROR)) // counting walks the whole queue
        ZEB_ERROR("ZEB app %d from %d/%d unprocess num: %d.\n", my_app, src_app, src_node,
                  zeb_unprocess_app_msg_num(my_app, src_app, src_node));
    (void)zeb_send_fc_ping_echo(my_app, src_node, src_app);
    zeb_fc_t *fc = zeb_get_app_fc(my_app);
    if (fc == nullptr)
        return;
    zeb_scoped_lock lock(&fc->mutex);
    log_totals(fc);
    list_each<zeb_send_app_fc_t>(&fc->send_list, [&](const zeb_send_app_fc_t *record) {
        if (record->dst_app_id == src_app && record->dst_node_id == src_node)
            log_send(fc, record);
    });
    log_receives(fc, src_app, src_node);
}

// The echo proves only that the peer's receive thread is alive; the blocked sender keeps waiting.
void zeb_fc_ping_echo(uint32_t src_app, uint32_t src_node, uint32_t my_app)
{
    ZEB_ERROR("ZEB app %d recv ping echo from %d/%d.\n", my_app, src_app, src_node);
}
