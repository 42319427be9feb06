#include "zeb_flow_ctrl.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "zeb_dbg.h"
#include "zeb_error.h"
#include "zeb_gate.h"
#include "zeb_mng_msg.h"
#include "zeb_mng_msg_mng.h"
#include "zeb_probe.h"

static bool init_waiting(zeb_fc_t *fc, uint32_t app)
{
    return zeb_mutex_cond_init(&fc->mutex, &fc->cond, [app](zeb_init_step_t step, int err) {
        if (step == ZEB_INIT_STEP_MUTEX)
            ZEB_ERROR_WHY("ZEB init app %d flow ctrl condition mutex failed: %s.\n", app, strerror(err));
        else if (step == ZEB_INIT_STEP_ATTR)
            ZEB_ERROR_WHY("ZEB init app %d flow ctrl condition attribute failed: %s.\n", app, strerror(err));
        else if (step == ZEB_INIT_STEP_CLOCK)
            ZEB_ERROR_WHY("ZEB init app %d flow ctrl condition clock attribute failed: %s.\n", app, strerror(err));
        else
            ZEB_ERROR_WHY("ZEB init app %d flow ctrl condition failed: %s.\n", app, strerror(err));
    });
}

zeb_fc_t *zeb_add_app_fc(uint32_t app)
{
    ZEB_VERBOSE("ZEB add new flow ctrl for app %d.\n", app);
    zeb_fc_t *fc = (zeb_fc_t *)zeb_malloc(sizeof(zeb_fc_t));
    if (!init_waiting(fc, app)) {
        free(fc);
        return nullptr;
    }
    fc->app_id = app;
    zeb_scoped_lock lock(&fc->mutex);
    indexed_list_init(&fc->send_list);
    indexed_list_init(&fc->recv_list);
    return fc;
}

void zeb_del_app_fc(zeb_fc_t *fc)
{
    if (fc == nullptr)
        return;
    ZEB_VERBOSE("ZEB delete app %d flow ctrl.\n", fc->app_id);
    {
        zeb_scoped_lock lock(&fc->mutex);
        indexed_list_clear(&fc->send_list);
        indexed_list_clear(&fc->recv_list);
    }
    zeb_cond_destroy(&fc->cond);
    zeb_mutex_destroy(&fc->mutex);
    free(fc);
}

zeb_fc_t *zeb_fc_not_found(uint32_t app)
{
    ZEB_ERROR("ZEB app %d get flow control failed.\n", app);
    return nullptr;
}

// The record of the local application. If it is not registered, logs an ERROR line and returns null: get_fc names the
// application itself, get_receiver_fc the sender of the message.
static zeb_fc_t *get_fc(uint32_t app)
{
    zeb_fc_t *fc = zeb_get_app_fc(app);
    return fc != nullptr ? fc : zeb_fc_not_found(app);
}

static zeb_fc_t *get_receiver_fc(uint32_t my_app, zeb_inst_t src)
{
    zeb_fc_t *fc = zeb_get_app_fc(my_app);
    return fc != nullptr ? fc : zeb_fc_not_found(src.app);
}

zeb_send_app_fc_t *__zeb_get_send_app_fc(zeb_fc_t *fc, zeb_inst_t dst)
{
    return indexed_list_find_or_create(&fc->send_list, zeb_inst_key(dst), [&] {
        ZEB_VERBOSE("ZEB app %d add new send flow ctrl to %d/%d.\n", fc->app_id, dst.app, dst.node);
        zeb_send_app_fc_t *record = (zeb_send_app_fc_t *)zeb_malloc(sizeof(zeb_send_app_fc_t));
        record->dst = dst;
        return record;
    });
}

zeb_recv_app_fc_t *__zeb_get_recv_app_fc(zeb_fc_t *fc, zeb_inst_t src)
{
    return indexed_list_find_or_create(&fc->recv_list, zeb_inst_key(src), [&] {
        ZEB_VERBOSE("ZEB app %d add new recv flow ctrl from %d/%d.\n", fc->app_id, src.app, src.node);
        zeb_recv_app_fc_t *record = (zeb_recv_app_fc_t *)zeb_malloc(sizeof(zeb_recv_app_fc_t));
        record->src = src;
        return record;
    });
}

// Apart, because a window is passed once in a thousand messages.
__attribute__((noinline, cold)) static void pass_window(zeb_fc_t *fc, zeb_send_app_fc_t *record, bool blocks)
    ZEB_REQUIRES(fc->mutex)
{
    fc->blocked_num.fetch_add(blocks ? 1 : -1, std::memory_order_relaxed);
    record->blocked_since = zeb_monotonic_ns();
    ZEB_PROBE_WINDOW(fc->app_id, record->dst.app, record->dst.node, (int)blocks);
}

// Only this function changes the `unack` of a send record, so blocked_num stays right.
static void set_unack(zeb_fc_t *fc, zeb_send_app_fc_t *record, int32_t unack) ZEB_REQUIRES(fc->mutex)
{
    bool blocks = zeb_fc_past_window(unack);
    if (blocks != zeb_fc_past_window(record->unack))
        pass_window(fc, record, blocks);
    record->unack = unack;
}

// Calls visit(record) for each send record of `dst_app` that is past its window.
template <typename Visit>
static void each_blocking(zeb_fc_t *fc, uint32_t dst_app, Visit visit) ZEB_REQUIRES(fc->mutex)
{
    indexed_list_each(&fc->send_list, [&](const zeb_send_app_fc_t *record) {
        if (zeb_fc_blocks(record, dst_app))
            visit(record);
    });
}

int64_t zeb_fc_blocked_since(zeb_fc_t *fc, zeb_inst_t dst)
{
    zeb_scoped_lock lock(&fc->mutex);
    const zeb_send_app_fc_t *record = indexed_list_find(&fc->send_list, zeb_inst_key(dst));
    return record != nullptr && zeb_fc_past_window(record->unack) ? record->blocked_since : 0;
}

static void log_accepted(const zeb_fc_t *fc, uint32_t dst_app)
{
    ZEB_VERBOSE("ZEB app %d accept new msg to %d.\n", fc->app_id, dst_app);
}

// The window is per instance, but the check is per destination application: one congested node blocks sending to that
// application on every node.
bool zeb_fc_accept_msg(zeb_fc_t *fc, uint32_t dst_app)
{
    bool blocked = false;
    if (fc->blocked_num.load(std::memory_order_relaxed) != 0)
        each_blocking(fc, dst_app, [&](const zeb_send_app_fc_t *) { blocked = true; });
    if (blocked) {
        ZEB_VERBOSE("ZEB app %d reject new msg to %d.\n", fc->app_id, dst_app);
        return false;
    }
    log_accepted(fc, dst_app);
    return true;
}

static void zeb_fc_print_timeout_log(zeb_fc_t *fc, uint32_t dst_app) ZEB_REQUIRES(fc->mutex)
{
    each_blocking(fc, dst_app, [&](const zeb_send_app_fc_t *record) {
        ZEB_ERROR("ZEB app %d to %d/%d was blocked for too long.\n", fc->app_id, dst_app, record->dst.node);
    });
}

static void zeb_fc_reload_peer(zeb_fc_t *fc, uint32_t dst_app) ZEB_REQUIRES(fc->mutex)
{
    each_blocking(fc, dst_app, [&](const zeb_send_app_fc_t *record) {
        ZEB_ERROR("ZEB app %d try to reload %d/%d to resume communication.\n", fc->app_id, dst_app, record->dst.node);
        (void)zeb_send_fc_reload(fc->app_id, record->dst);
    });
}

// Waits without an overall limit until the destination is accepted; false when the library stops meanwhile. After 1, 2,
// 4, 8... periods without success it logs and diagnoses; after ZEB_FC_RELOAD_ROUND periods it asks the blocking peers
// to abort.
static bool zeb_fc_wait_for_send(zeb_fc_t *fc, uint32_t dst_app) ZEB_REQUIRES(fc->mutex)
{
    unsigned count = 0;
    unsigned interval = 1;
    struct timespec deadline = zeb_deadline_in(ZEB_FC_WAIT_PERIOD);
    while (!zeb_fc_accept_msg(fc, dst_app)) {
        if (zeb_stopping())
            return false;
        ZEB_VERBOSE("ZEB app %d to %d wait for flow ctrl condition.\n", fc->app_id, dst_app);
        if (zeb_cond_wait_until(&fc->cond, &fc->mutex, &deadline) == 0)
            continue;
        count++;
        if (count % interval == 0) {
            interval *= 2;
            zeb_fc_print_timeout_log(fc, dst_app);
            zeb_fc_diagnose_destination(fc, dst_app);
        }
        if (count == ZEB_FC_RELOAD_ROUND)
            zeb_fc_reload_peer(fc, dst_app);
        deadline = zeb_deadline_in(ZEB_FC_WAIT_PERIOD);
    }
    return true;
}

static int library_stops(uint32_t dst_app)
{
    zeb_note_error("ZEB send to %d: the library stops.\n", {{dst_app}});
    return -ESHUTDOWN;
}

int zeb_fc_check(zeb_fc_t *fc, uint32_t dst_app, int flags)
{
    if (fc == nullptr)
        return -ENOENT;
    // In the common case no destination blocks, and no lock is needed: the result is that of a check a moment earlier.
    if (fc->blocked_num.load(std::memory_order_relaxed) == 0) {
        log_accepted(fc, dst_app);
        return 0;
    }
    zeb_scoped_lock lock(&fc->mutex);
    if (zeb_fc_accept_msg(fc, dst_app))
        return 0;
    if ((flags & ZEB_SEND_NOWAIT) != 0)
        return -EAGAIN;
    ZEB_VERBOSE("ZEB app %d to %d wait for sending.\n", fc->app_id, dst_app);
    ZEB_PROBE_BLOCK(fc->app_id, dst_app);
    bool accepted = zeb_fc_wait_for_send(fc, dst_app);
    ZEB_PROBE_UNBLOCK(fc->app_id, dst_app, accepted ? 0 : -ESHUTDOWN);
    if (!accepted)
        return library_stops(dst_app);
    ZEB_VERBOSE("ZEB app %d to %d continue to send.\n", fc->app_id, dst_app);
    return ZEB_FC_WAITED;
}

// Totals wrap: false acknowledgements of several peers may take them past either limit.
static int32_t minus(int32_t value, uint32_t amount)
{
    return (int32_t)((uint32_t)value - amount);
}

static int32_t plus_1(int32_t value)
{
    return (int32_t)((uint32_t)value + 1);
}

void zeb_fc_release(zeb_fc_t *fc)
{
    {
        zeb_scoped_lock lock(&fc->mutex); // whoever has tested the gate is waiting now
    }
    zeb_cond_broadcast(&fc->cond);
}

// Sender.

void zeb_fc_update_sent_ok(zeb_fc_t *fc, zeb_inst_t dst)
{
    ZEB_VERBOSE("ZEB app %d update send OK to %d/%d.\n", fc->app_id, dst.app, dst.node);
    zeb_scoped_lock lock(&fc->mutex);
    zeb_send_app_fc_t *record = __zeb_get_send_app_fc(fc, dst);
    fc->total_send++;
    record->send++;
    fc->total_send_unack = plus_1(fc->total_send_unack);
    set_unack(fc, record, plus_1(record->unack));
}

void zeb_fc_update_sent_reject(uint32_t src_app, zeb_inst_t dst)
{
    zeb_fc_t *fc = get_fc(src_app);
    if (fc == nullptr)
        return;
    ZEB_VERBOSE("ZEB app %d update send reject to %d/%d.\n", src_app, dst.app, dst.node);
    zeb_scoped_lock lock(&fc->mutex);
    if (zeb_valid_inst(dst))
        __zeb_get_send_app_fc(fc, dst)->reject++;
    else
        fc->mcast_send_reject++;
}

void zeb_fc_update_rpc_reply_exception(uint32_t src_app, zeb_inst_t dst)
{
    zeb_fc_t *fc = get_fc(src_app);
    if (fc == nullptr)
        return;
    ZEB_VERBOSE("ZEB app %d update RPC reply reject to %d/%d.\n", src_app, dst.app, dst.node);
    zeb_scoped_lock lock(&fc->mutex);
    if (zeb_valid_inst(dst))
        __zeb_get_send_app_fc(fc, dst)->rpc_reply_reject++;
    else
        fc->rpc_reply_exception++;
}

// The part of `ack_num` that can be subtracted from `unack` without an overflow: a peer may claim any number.
static uint32_t acknowledgeable(int32_t unack, uint32_t ack_num)
{
    int64_t room = (int64_t)unack - INT32_MIN;
    return ack_num < room ? ack_num : (uint32_t)room;
}

void zeb_fc_update_sent_ack(uint32_t my_app, zeb_inst_t dst, uint32_t ack_num)
{
    zeb_fc_t *fc = get_fc(my_app);
    if (fc == nullptr)
        return;
    ZEB_VERBOSE("ZEB app %d update send ack from %d/%d, ack num %d.\n", my_app, dst.app, dst.node, ack_num);
    {
        zeb_scoped_lock lock(&fc->mutex);
        zeb_send_app_fc_t *record = __zeb_get_send_app_fc(fc, dst);
        uint32_t num = acknowledgeable(record->unack, ack_num);
        set_unack(fc, record, minus(record->unack, num));
        fc->total_send_unack = minus(fc->total_send_unack, num);
    }
    ZEB_VERBOSE("ZEB notify waiting app %d to %d/%d continue to send msg.\n", my_app, dst.app, dst.node);
    zeb_cond_broadcast(&fc->cond);
}

// Receiver.

void zeb_fc_update_recv_ok(zeb_fc_t *fc, zeb_inst_t src)
{
    uint32_t my_app = fc->app_id;
    ZEB_VERBOSE("ZEB app %d update recv OK from %d/%d.\n", my_app, src.app, src.node);
    zeb_scoped_lock lock(&fc->mutex);
    zeb_recv_app_fc_t *record = __zeb_get_recv_app_fc(fc, src);
    fc->total_recv++;
    fc->total_recv_unack = plus_1(fc->total_recv_unack);
    record->recv++;
    record->unack = plus_1(record->unack);
    // Sent under the mutex, so that a batch is never acknowledged twice. If the send fails, the next message tries it
    // again.
    if (record->unack <= (int32_t)ZEB_FC_ACK_BATCH || zeb_send_fc_ack(my_app, src, ZEB_FC_ACK_BATCH) != 0)
        return;
    ZEB_VERBOSE("ZEB app %d sent recv num ack %d to %d/%d OK.\n", my_app, ZEB_FC_ACK_BATCH, src.app, src.node);
    record->unack = minus(record->unack, ZEB_FC_ACK_BATCH);
    fc->total_recv_unack = minus(fc->total_recv_unack, ZEB_FC_ACK_BATCH);
}

void zeb_fc_update_recv_drop(uint32_t my_app, zeb_inst_t src, int num)
{
    if (num == 0)
        return;
    zeb_fc_t *fc = get_receiver_fc(my_app, src);
    if (fc == nullptr)
        return;
    ZEB_VERBOSE("ZEB app %d update recv drop num %d from %d/%d.\n", my_app, num, src.app, src.node);
    zeb_scoped_lock lock(&fc->mutex);
    if (indexed_list_num(&fc->recv_list) >= ZEB_FC_UNKNOWN_NUM_MAX &&
        indexed_list_find(&fc->recv_list, zeb_inst_key(src)) == nullptr) {
        ZEB_ERROR("ZEB app %d has no room for %d/%d.\n", my_app, src.app, src.node);
        return;
    }
    __zeb_get_recv_app_fc(fc, src)->drop += (uint32_t)num;
}

void zeb_fc_update_recv_retdata(uint32_t my_app, zeb_inst_t src)
{
    zeb_fc_t *fc = get_receiver_fc(my_app, src);
    if (fc == nullptr)
        return;
    ZEB_VERBOSE("ZEB app %d update recv retdata from %d/%d.\n", my_app, src.app, src.node);
    if (src.app == ZEBD_APP_ID)
        return;
    zeb_scoped_lock lock(&fc->mutex);
    __zeb_get_recv_app_fc(fc, src)->ret_data++;
}

void zeb_fc_update_recv_exception(uint32_t my_app)
{
    zeb_fc_t *fc = get_fc(my_app);
    if (fc == nullptr)
        return;
    ZEB_ERROR("ZEB app %d update recv exception msg.\n", my_app);
    fc->recv_exception.fetch_add(1, std::memory_order_relaxed);
}

// Joins and quits.

// Messages sent before the peer joined never arrived. The total is reduced by the number sent and not by the number
// unacknowledged; the drift is intended, and unack_drift keeps it.
static uint32_t reject_sent(zeb_fc_t *fc, zeb_inst_t dst) ZEB_REQUIRES(fc->mutex)
{
    zeb_recv_app_fc_t *recv = __zeb_get_recv_app_fc(fc, dst);
    recv->drop = 0;
    recv->ret_data = 0;
    zeb_send_app_fc_t *send = __zeb_get_send_app_fc(fc, dst);
    uint32_t sent = send->send;
    send->reject += sent;
    send->send = 0;
    if (sent != 0) {
        fc->unack_drift += sent - (uint32_t)send->unack;
        set_unack(fc, send, 0);
    }
    fc->total_send -= sent;
    fc->total_send_unack = minus(fc->total_send_unack, sent);
    return sent;
}

void zeb_fc_adjust_statistics(uint32_t src_app, zeb_inst_t dst)
{
    zeb_fc_t *fc = get_fc(src_app);
    if (fc == nullptr)
        return;
    uint32_t sent = 0;
    {
        zeb_scoped_lock lock(&fc->mutex);
        sent = reject_sent(fc, dst);
    }
    if (sent == 0)
        return;
    ZEB_WARN("ZEB app %d adjust sent reject num %d to %d/%d.\n", src_app, sent, dst.app, dst.node);
    zeb_cond_broadcast(&fc->cond);
}

static void forget_sent(zeb_fc_t *fc, zeb_inst_t dst) ZEB_REQUIRES(fc->mutex)
{
    zeb_send_app_fc_t *send = __zeb_get_send_app_fc(fc, dst);
    fc->total_send_unack = minus(fc->total_send_unack, (uint32_t)send->unack);
    fc->total_send -= send->send;
    set_unack(fc, send, 0);
    send->send = 0;
    send->reject = 0;
    send->rpc_reply_reject = 0;
}

static void forget_received(zeb_fc_t *fc, zeb_inst_t src) ZEB_REQUIRES(fc->mutex)
{
    zeb_recv_app_fc_t *recv = __zeb_get_recv_app_fc(fc, src);
    fc->total_recv_unack = minus(fc->total_recv_unack, (uint32_t)recv->unack);
    fc->total_recv -= recv->recv;
    recv->unack = 0;
    recv->recv = 0;
    recv->drop = 0;
    recv->ret_data = 0;
}

void zeb_fc_reset_unack(uint32_t my_app, zeb_inst_t peer)
{
    ZEB_INFO("ZEB reset unack stat between app %d and %d/%d.\n", my_app, peer.app, peer.node);
    zeb_fc_t *fc = zeb_get_app_fc(my_app);
    if (fc == nullptr) {
        ZEB_ERROR("ZEB get app %d flow ctrl info failed.\n", my_app);
        return;
    }
    {
        zeb_scoped_lock lock(&fc->mutex);
        forget_sent(fc, peer);
        forget_received(fc, peer);
    }
    (void)pthread_cond_broadcast(&fc->cond.impl);
}

void zeb_cli_print_fc_stat(uint32_t app)
{
    zeb_call_t entered("zeb_cli_print_fc_stat");
    if (entered.refused() != 0)
        return;
    zeb_fc_t *fc = zeb_get_app_fc(app);
    if (fc == nullptr)
        return;
    zeb_scoped_lock lock(&fc->mutex);
    zeb_buf_printf("Application %d overall statistics:\n", app);
    zeb_buf_printf("  total send %d, unack %d, mcast reject %d, RPC reply exception %d\n", fc->total_send,
                   fc->total_send_unack, fc->mcast_send_reject, fc->rpc_reply_exception);
    zeb_buf_printf("  total receive %d, unack %d, exception %d\n", fc->total_recv, fc->total_recv_unack,
                   fc->recv_exception.load(std::memory_order_relaxed));
    indexed_list_each(&fc->send_list, [](const zeb_send_app_fc_t *record) {
        zeb_buf_printf("    Send to application %d/%d: send %d, unack %d, reject %d, RPC reply reject %d\n",
                       record->dst.app, record->dst.node, record->send, record->unack, record->reject,
                       record->rpc_reply_reject);
    });
    indexed_list_each(&fc->recv_list, [](const zeb_recv_app_fc_t *record) {
        zeb_buf_printf("    Receive from application %d/%d: receive %d, unack %d, drop %d, return %d\n",
                       record->src.app, record->src.node, record->recv, record->unack, record->drop, record->ret_data);
    });
}
