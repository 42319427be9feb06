// The diagnosis of a peer that blocks its senders. The blocked side logs its counters and pings; the pinged side logs
// its own counters and echoes. The diagnosis runs on the blocked sending thread, which holds the mutex of its record.
// The ping handlers run on the receive thread and take the mutex of the pinged application's record.
#include "zeb_dbg.h"
#include "zeb_flow_ctrl.h"
#include "zeb_mng_msg_mng.h"

static void log_totals(zeb_fc_t *fc) ZEB_REQUIRES(fc->mutex)
{
    ZEB_ERROR("ZEB app %d total send %d, unack %d, mcast reject %d, RPC reply exception %d\n", fc->app_id,
              fc->total_send, fc->total_send_unack, fc->mcast_send_reject, fc->rpc_reply_exception);
    ZEB_ERROR("ZEB app %d total receive %d, unack %d, exception %d\n", fc->app_id, fc->total_recv, fc->total_recv_unack,
              fc->recv_exception.load(std::memory_order_relaxed));
}

static void log_send(const zeb_fc_t *fc, const zeb_send_app_fc_t *record)
{
    ZEB_ERROR("ZEB app %d send to application %d/%d: send %d, unack %d, reject %d, RPC reply reject %d\n", fc->app_id,
              record->dst.app, record->dst.node, record->send, record->unack, record->reject, record->rpc_reply_reject);
}

static void log_receives(zeb_fc_t *fc, zeb_inst_t src) ZEB_REQUIRES(fc->mutex)
{
    const zeb_recv_app_fc_t *record = indexed_list_find(&fc->recv_list, zeb_inst_key(src));
    if (record != nullptr)
        ZEB_ERROR("ZEB app %d receive from application %d/%d: receive %d, unack %d, drop %d, return %d\n", fc->app_id,
                  src.app, src.node, record->recv, record->unack, record->drop, record->ret_data);
}

void zeb_fc_diagnose_destination(zeb_fc_t *fc, uint32_t dst_app)
{
    log_totals(fc);
    indexed_list_each(&fc->send_list, [&](const zeb_send_app_fc_t *record) ZEB_NO_THREAD_SAFETY_ANALYSIS {
        if (!zeb_fc_blocks(record, dst_app))
            return;
        (void)zeb_send_fc_ping(fc->app_id, record->dst);
        log_send(fc, record);
        log_receives(fc, record->dst);
    });
}

void zeb_fc_ping_request(uint32_t my_app, zeb_inst_t src, int unprocessed)
{
    ZEB_ERROR("ZEB app %d recv ping request from %d/%d.\n", my_app, src.app, src.node);
    ZEB_ERROR("ZEB app %d from %d/%d unprocess num: %d.\n", my_app, src.app, src.node, unprocessed);
    (void)zeb_send_fc_ping_echo(my_app, src);
    zeb_fc_t *fc = zeb_get_app_fc(my_app);
    if (fc == nullptr)
        return;
    zeb_scoped_lock lock(&fc->mutex);
    log_totals(fc);
    const zeb_send_app_fc_t *record = indexed_list_find(&fc->send_list, zeb_inst_key(src));
    if (record != nullptr)
        log_send(fc, record);
    log_receives(fc, src);
}

// The echo only proves that the peer's receive thread is alive; the blocked sender goes on waiting.
void zeb_fc_ping_echo(uint32_t my_app, zeb_inst_t src)
{
    ZEB_ERROR("ZEB app %d recv ping echo from %d/%d.\n", my_app, src.app, src.node);
}
