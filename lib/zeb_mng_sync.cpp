// The instance handshake's memory: pair records, pending synchronisations, resume, retry and returned acknowledgements.
// Everything runs on the receive thread, but for zeb_del_reject_sync_inst_ack, which senders call. g_lib_mutex guards
// the lists; zeb_app_inst_join holds it while it sends, and the sender takes it again.
//
// One pair (local application L, remote instance R); [x] are the bits of zeb_mng_online:
//   state    event                                              action                                        next
//   idle     R is published                                     force quit R; L sends SYNC_INST, kept pending waiting
//   idle     SYNC_INST from R, resume 0, first time             record id and seq; [inst]; acknowledge;       half
//   waiting                                                     arm resume when nothing is pending towards R
//   waiting  SYNC_INST from R of version 2, ours pending        add a retry entry; all pending are re-sent    waiting
//                                                               every 2 s
//   waiting  acknowledgement with the right pseq and seq        drop pending and retry; [inst_ack], [srv]     acked
//   half                                                                                                      both
//   both     identities equal                                   [online]; join event when R is a server       online
//   both     identities differ                                  clear [inst]                                  acked
//   half     ordinary message from R                            drop pending; [inst_ack]; identity confirmed  online
//   any      SYNC_INST from R, resume 1, or a new seq while     force quit R; send SYNC_INST                  waiting
//            [inst] is clear and a seq is known
//   half     60 s passed                                        force quit R; send SYNC_INST with resume 1    waiting
//   any      R, [inst], is reported once more by a reopened     as idle; then every 5 s until [online]:       waiting
//            topology connection                                force quit R; send SYNC_INST with resume 1;
//                                                               once [online] a last SYNC_INST, resume 0
//   online   R is withdrawn                                     clear the bits; quit event when R was server  idle
#include "zeb_mng_sync.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/list_algo.h"
#include "zeb_app_info.h"
#include "zeb_dbg.h"
#include "zeb_flow_ctrl_stat.h"
#include "zeb_mng_msg.h"
#include "zeb_mng_online.h"
#include "zeb_mng_rejoin.h"
#include "zeb_mng_timer.h"
#include "zeb_wire.h"

// The indexes are by remote instance: a process has few local applications, and a quit concerns all of them.
zeb_inst_id_t *__zeb_get_inst_id(uint32_t src_app, uint32_t dst_app, uint32_t dst_node)
{
    return list_index_find_if<zeb_inst_id_t>(&g_zeb_mng.inst_id_index, list_index_key(dst_app, dst_node),
                                             [&](const zeb_inst_id_t *id) { return id->src_app == src_app; });
}

static zeb_inst_id_t *__get_or_add_inst_id(uint32_t src_app, uint32_t dst_app, uint32_t dst_node)
    ZEB_REQUIRES(g_lib_mutex)
{
    zeb_inst_id_t *id = __zeb_get_inst_id(src_app, dst_app, dst_node);
    if (id != nullptr)
        return id;
    id = (zeb_inst_id_t *)zeb_malloc(sizeof(zeb_inst_id_t));
    id->src_app = src_app;
    id->dst_app = dst_app;
    id->dst_node = dst_node;
    list_index_append(&g_zeb_mng.inst_id_list, &g_zeb_mng.inst_id_index, id, list_index_key(dst_app, dst_node));
    return id;
}

bool zeb_has_room_for_pair(uint32_t src_app, uint32_t dst_app, uint32_t dst_node)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    return __zeb_get_inst_id(src_app, dst_app, dst_node) != nullptr || g_zeb_mng.inst_id_index.num < ZEB_PAIR_NUM_MAX;
}

static void update_inst_id(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t zeb_inst_id_t::*field,
                           uint32_t value)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    __get_or_add_inst_id(src_app, dst_app, dst_node)->*field = value;
}

void zeb_update_inst_sync_id(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t value)
{
    update_inst_id(src_app, dst_app, dst_node, &zeb_inst_id_t::sync_id, value);
}

void zeb_update_inst_sync_ack_id(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t value)
{
    update_inst_id(src_app, dst_app, dst_node, &zeb_inst_id_t::sync_ack_id, value);
}

void zeb_update_inst_send_seq(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t value)
{
    update_inst_id(src_app, dst_app, dst_node, &zeb_inst_id_t::send_seq, value);
}

void zeb_update_inst_recv_seq(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t value)
{
    update_inst_id(src_app, dst_app, dst_node, &zeb_inst_id_t::recv_seq, value);
}

void zeb_update_inst_sync_server(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t value)
{
    update_inst_id(src_app, dst_app, dst_node, &zeb_inst_id_t::sync_server, value);
}

static void get_inst_id(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t zeb_inst_id_t::*field,
                        uint32_t *value)
{
    if (value == nullptr) {
        ZEB_ERROR("Invalid param.\n");
        return;
    }
    zeb_scoped_lock lock(&g_lib_mutex);
    const zeb_inst_id_t *id = __zeb_get_inst_id(src_app, dst_app, dst_node);
    *value = id == nullptr ? 0 : id->*field;
}

void zeb_get_inst_send_seq(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t *seq)
{
    get_inst_id(src_app, dst_app, dst_node, &zeb_inst_id_t::send_seq, seq);
}

void zeb_get_inst_recv_seq(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t *seq)
{
    get_inst_id(src_app, dst_app, dst_node, &zeb_inst_id_t::recv_seq, seq);
}

bool __zeb_inst_id_equal(uint32_t src_app, uint32_t dst_app, uint32_t dst_node)
{
    const zeb_inst_id_t *id = __zeb_get_inst_id(src_app, dst_app, dst_node);
    return id != nullptr && id->sync_id == id->sync_ack_id;
}

int zeb_get_pseq_for_inst_ack(uint32_t src_app, uint32_t dst_node, uint32_t dst_app)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    const zeb_inst_id_t *id = __zeb_get_inst_id(src_app, dst_app, dst_node);
    return id != nullptr && id->sync_id == id->sync_ack_id ? (int)id->send_seq : 0;
}

// Any record about the instance: every list element that has a remote side names it alike.
template <typename T>
static bool is_towards(const T *record, uint32_t dst_app, uint32_t dst_node)
{
    return record->dst_app == dst_app && record->dst_node == dst_node;
}

static bool is_msg_of_pair(const zeb_msg_t *msg, uint32_t src_app, uint32_t dst_app, uint32_t dst_node)
{
    return msg->hdr.src_app == src_app && is_towards(&msg->hdr, dst_app, dst_node);
}

// Only the first record, whichever local application it belongs to.
void __zeb_clear_inst_id(uint32_t dst_app, uint32_t dst_node)
{
    zeb_inst_id_t *id = list_index_find<zeb_inst_id_t>(&g_zeb_mng.inst_id_index, list_index_key(dst_app, dst_node));
    if (id == nullptr)
        return;
    list_index_remove(&g_zeb_mng.inst_id_index, id);
    free(id);
}

void __zeb_add_inst_sync_msg(zeb_msg_t *msg)
{
    zeb_pending_sync_t *pending = (zeb_pending_sync_t *)zeb_malloc(sizeof(zeb_pending_sync_t));
    pending->msg = msg;
    list_add_tail(&msg->list, &g_zeb_mng.inst_sync_list);
    list_index_add(&g_zeb_mng.inst_sync_index, pending, list_index_key(msg->hdr.dst_app, msg->hdr.dst_node));
}

// The first pending synchronisation with an instance for which match(message), or null.
template <typename Match>
static zeb_pending_sync_t *__find_pending(uint32_t dst_app, uint32_t dst_node, Match match) ZEB_REQUIRES(g_lib_mutex)
{
    return list_index_find_if<zeb_pending_sync_t>(
        &g_zeb_mng.inst_sync_index, list_index_key(dst_app, dst_node),
        [&](const zeb_pending_sync_t *pending) { return match(pending->msg); });
}

static void __drop_pending(zeb_pending_sync_t *pending) ZEB_REQUIRES(g_lib_mutex)
{
    zeb_msg_t *msg = pending->msg;
    ZEB_INFO("ZEB DEL INST app %d sync inst to %d/%d, seq %d.\n", msg->hdr.src_app, msg->hdr.dst_app, msg->hdr.dst_node,
             zeb_sync_inst_msg_seq(msg));
    list_index_del(&g_zeb_mng.inst_sync_index, pending);
    list_del(&msg->list);
    free(msg);
    free(pending);
}

static bool any_message(const zeb_msg_t *)
{
    return true;
}

template <typename Match>
static void __drop_all_pending(uint32_t dst_app, uint32_t dst_node, Match match) ZEB_REQUIRES(g_lib_mutex)
{
    zeb_pending_sync_t *pending = nullptr;
    while ((pending = __find_pending(dst_app, dst_node, match)) != nullptr)
        __drop_pending(pending);
}

int zeb_del_inst_sync_msg(uint32_t src_app, uint32_t dst_app, uint32_t dst_node, uint32_t seq)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_pending_sync_t *pending = __find_pending(dst_app, dst_node, [&](const zeb_msg_t *msg) {
        return msg->hdr.src_app == src_app && zeb_sync_inst_msg_seq(msg) == seq;
    });
    if (pending == nullptr)
        return -ENOENT;
    __drop_pending(pending);
    return 0;
}

void __zeb_clear_sync_inst_msg(uint32_t dst_app, uint32_t dst_node)
{
    __drop_all_pending(dst_app, dst_node, any_message);
}

bool zeb_has_sync_inst_msg(uint32_t dst_app, uint32_t dst_node)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    return __find_pending(dst_app, dst_node, any_message) != nullptr;
}

void zeb_app_inst_join(uint32_t app, uint32_t node, int resume)
{
    (void)zeb_synchronise(app, node, resume);
}

bool zeb_synchronise(uint32_t app, uint32_t node, int resume)
{
    bool sent = true;
    zeb_scoped_lock lock(&g_lib_mutex);
    __zeb_clear_resume_comm(app, node);
    zeb_ol_app_t *ol = __zeb_get_ol_app(app);
    if (ol == nullptr) {
        ZEB_INFO("ZEB app %d/%d ol is NULL.\n", app, node);
        return true;
    }
    if (zeb_app_set_test(&ol->ol_bmp, node)) {
        ZEB_WARN("ZEB app %d/%d had already online.\n", app, node);
        return true;
    }
    list_each<zeb_subscr_app_t>(&ol->subscr_app_list, [&](const zeb_subscr_app_t *subscr) {
        if (zeb_sync_app_inst(subscr->subscr_app, node, app, zeb_is_app_server(subscr->subscr_app) ? 1 : 0, resume) ==
            0)
            return;
        ZEB_ERROR("ZEB send app %d server notification to %d/%d failed.\n", subscr->subscr_app, app, node);
        sent = false;
    });
    return sent;
}

void zeb_notify_app_join(uint32_t my_app, uint32_t inst_node, uint32_t inst_app)
{
    {
        zeb_scoped_lock lock(&g_lib_mutex);
        __drop_all_pending(inst_app, inst_node, [&](const zeb_msg_t *msg) { return msg->hdr.src_app == my_app; });
        if (__zeb_get_ol_app(inst_app) != nullptr)
            zeb_set_app_inst_ack(inst_app, inst_node);
        zeb_inst_id_t *id = __zeb_get_inst_id(my_app, inst_app, inst_node);
        if (id != nullptr)
            id->sync_ack_id = id->sync_id;
        // No acknowledgement will come any more to say so.
        if (id != nullptr && id->sync_server != 0 && __zeb_get_ol_app(inst_app) != nullptr)
            zeb_set_app_server(inst_app, inst_node);
    }
    zeb_try_notify_app_join(my_app, inst_node, inst_app);
}

// Retry of unacknowledged synchronisations.

static zeb_retry_inst_t *find_retry(uint32_t src_app, uint32_t dst_app, uint32_t dst_node) ZEB_REQUIRES(g_lib_mutex)
{
    return list_index_find_if<zeb_retry_inst_t>(
        &g_zeb_mng.sync_inst_retry_index, list_index_key(dst_app, dst_node),
        [&](const zeb_retry_inst_t *retry) { return retry->src_app == src_app; });
}

static void __drop_retry(zeb_retry_inst_t *retry) ZEB_REQUIRES(g_lib_mutex)
{
    list_index_remove(&g_zeb_mng.sync_inst_retry_index, retry);
    free(retry);
}

static bool has_retry()
{
    zeb_scoped_lock lock(&g_lib_mutex);
    return !list_empty(&g_zeb_mng.sync_inst_retry_list);
}

static int start_retry_timer()
{
    return zeb_subscr_timer_event(ZEB_INST_RETRY_TIMEOUT, {ZEB_TIMER_TYPE_INST_RETRY, 0});
}

void zeb_start_retry_inst_timer(uint8_t peer_version, uint32_t src_app, uint32_t dst_app, uint32_t dst_node)
{
    if (peer_version == 1)
        return;
    // With entries on the list its timer is pending already, unless that was lost with its connection.
    if (start_retry_timer() != 0)
        return;
    zeb_scoped_lock lock(&g_lib_mutex);
    auto from_src = [&](const zeb_msg_t *msg) { return msg->hdr.src_app == src_app; };
    if (__find_pending(dst_app, dst_node, from_src) == nullptr) {
        ZEB_VERBOSE("no instance msg need retry.\n");
        return;
    }
    if (find_retry(src_app, dst_app, dst_node) != nullptr)
        return;
    zeb_retry_inst_t *retry = (zeb_retry_inst_t *)zeb_malloc(sizeof(zeb_retry_inst_t));
    retry->src_app = src_app;
    retry->dst_app = dst_app;
    retry->dst_node = dst_node;
    list_index_append(&g_zeb_mng.sync_inst_retry_list, &g_zeb_mng.sync_inst_retry_index, retry,
                      list_index_key(dst_app, dst_node));
    ZEB_INFO("ZEB retry sync inst to %d/%d.\n", dst_app, dst_node);
}

int zeb_del_sync_inst_retry(uint32_t src_app, uint32_t dst_app, uint32_t dst_node)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_retry_inst_t *retry = find_retry(src_app, dst_app, dst_node);
    if (retry == nullptr)
        return -ENOENT;
    ZEB_INFO("ZEB clear inst retry from %d to %d/%d.\n", src_app, dst_app, dst_node);
    __drop_retry(retry);
    return 0;
}

// Only the first entry, whichever local application it belongs to.
void __zeb_clear_sync_inst_retry(uint32_t dst_app, uint32_t dst_node)
{
    zeb_retry_inst_t *retry =
        list_index_find<zeb_retry_inst_t>(&g_zeb_mng.sync_inst_retry_index, list_index_key(dst_app, dst_node));
    if (retry != nullptr)
        __drop_retry(retry);
}

// Without the lock, since a send may block: only this thread adds to and removes from the list of pending messages.
static void resend_pending() ZEB_NO_THREAD_SAFETY_ANALYSIS
{
    list_each<zeb_msg_t>(&g_zeb_mng.inst_sync_list, [](zeb_msg_t *msg) {
        uint32_t src_app = msg->hdr.src_app;
        uint32_t dst_app = msg->hdr.dst_app;
        uint32_t dst_node = msg->hdr.dst_node;
        uint32_t seq = zeb_sync_inst_msg_seq(msg);
        if (zeb_tipc_sendto(src_app, msg, dst_app, dst_node, 0) != 0) {
            ZEB_WARN("ZEB app %d sync inst to %d/%d, seq %d FAIL.\n", src_app, dst_app, dst_node, seq);
            zeb_mng_stat_update_send_fail(dst_app, dst_node, src_app);
            return;
        }
        ZEB_VERBOSE("ZEB app %d sync inst to %d/%d, seq %d SUCC.\n", src_app, dst_app, dst_node, seq);
        zeb_mng_stat_update_sent(src_app, dst_app, dst_node, ZEB_MSG_SYNC_INST);
    });
}

void zeb_process_inst_retry_timer_event(uint32_t)
{
    zeb_timer_inst_retry_open = false;
    resend_pending();
    if (has_retry())
        (void)start_retry_timer();
}

// Returned acknowledgements.

static void count_acks(int change) ZEB_REQUIRES(g_lib_mutex)
{
    zeb_store_relaxed(&g_zeb_mng.sync_inst_ack_num, g_zeb_mng.sync_inst_ack_num + change);
}

void zeb_resend_sync_inst_ack_later(zeb_msg_t *msg)
{
    if (zeb_load_relaxed(&g_zeb_mng.sync_inst_ack_num) >= ZEB_ACK_RESEND_NUM_MAX) {
        ZEB_ERROR("ZEB drop sync inst ack to %d/%d, too many come back.\n", msg->hdr.dst_app, msg->hdr.dst_node);
        free(msg);
        return;
    }
    msg->hdr.seq = zeb_get_seq();
    if (zeb_subscr_timer_event(ZEB_RESEND_ACK_TIMEOUT, {ZEB_TIMER_TYPE_INST, msg->hdr.seq}) != 0) {
        free(msg);
        return;
    }
    zeb_scoped_lock lock(&g_lib_mutex);
    ZEB_VERBOSE("ZEB add sync inst ack resend to %d/%d, seq %d.\n", msg->hdr.dst_app, msg->hdr.dst_node,
                zeb_sync_inst_msg_seq(msg));
    list_add_tail(&msg->list, &g_zeb_mng.sync_inst_ack_list);
    count_acks(1);
}

// One that cannot be sent stays on the list until traffic to or from the peer makes it needless.
void zeb_process_resend_inst_timer_event(uint32_t seq)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    list_each<zeb_msg_t>(&g_zeb_mng.sync_inst_ack_list, [&](zeb_msg_t *msg) ZEB_NO_THREAD_SAFETY_ANALYSIS {
        if (msg->hdr.seq != seq)
            return;
        uint32_t src_app = msg->hdr.src_app;
        uint32_t dst_app = msg->hdr.dst_app;
        uint32_t dst_node = msg->hdr.dst_node;
        if (zeb_tipc_sendto(src_app, msg, dst_app, dst_node, 0) != 0) {
            zeb_mng_stat_update_send_fail(dst_app, dst_node, src_app);
            return;
        }
        zeb_mng_stat_update_sent(src_app, dst_app, dst_node, TLV_DATA_TYPE(msg->data));
        list_del(&msg->list);
        count_acks(-1);
        free(msg);
    });
}

// Every send asks: without the lock when there is none at all, as there nearly always is.
void zeb_del_reject_sync_inst_ack(uint32_t src_app, uint32_t dst_app, uint32_t dst_node)
{
    if (zeb_load_relaxed(&g_zeb_mng.sync_inst_ack_num) == 0)
        return;
    zeb_scoped_lock lock(&g_lib_mutex);
    count_acks(-list_remove_matching<zeb_msg_t>(&g_zeb_mng.sync_inst_ack_list, [&](const zeb_msg_t *msg) {
        return msg->hdr.zeb_ver == 2 && is_msg_of_pair(msg, src_app, dst_app, dst_node);
    }));
}

// Resume.

void __zeb_clear_resume_comm(uint32_t dst_app, uint32_t dst_node)
{
    (void)list_remove_matching<zeb_resume_comm_t>(
        &g_zeb_mng.resume_comm_list,
        [&](const zeb_resume_comm_t *resume) { return is_towards(resume, dst_app, dst_node); },
        [](const zeb_resume_comm_t *resume) {
            ZEB_VERBOSE("ZEB clear resume comm to %d/%d.\n", resume->dst_app, resume->dst_node);
        });
}

zeb_resume_comm_t zeb_del_resume_comm(uint32_t seq)
{
    zeb_resume_comm_t last;
    memset(&last, 0, sizeof(last));
    zeb_scoped_lock lock(&g_lib_mutex);
    (void)list_remove_matching<zeb_resume_comm_t>(
        &g_zeb_mng.resume_comm_list, [&](const zeb_resume_comm_t *resume) { return resume->seq == seq; },
        [&](const zeb_resume_comm_t *resume) { last = *resume; });
    return last;
}

// The first of an instance's entries to expire ends the others: a peer that repeats itself gains nothing by more, and
// each is a subscription of the kernel's.
static bool has_room_for_resume(uint32_t dst_app, uint32_t dst_node)
{
    int all = 0;
    int same = 0;
    zeb_scoped_lock lock(&g_lib_mutex);
    list_each<zeb_resume_comm_t>(&g_zeb_mng.resume_comm_list, [&](const zeb_resume_comm_t *resume) {
        all++;
        same += is_towards(resume, dst_app, dst_node) ? 1 : 0;
    });
    return same < ZEB_RESUME_PER_INSTANCE_MAX && all < ZEB_RESUME_NUM_MAX;
}

void zeb_try_resume_comm(uint32_t dst_app, uint32_t dst_node)
{
    if (zeb_app_online(dst_app, dst_node) || zeb_has_sync_inst_msg(dst_app, dst_node))
        return;
    if (!has_room_for_resume(dst_app, dst_node)) {
        ZEB_WARN("ZEB resume comm to %d/%d is pending already.\n", dst_app, dst_node);
        return;
    }
    zeb_resume_comm_t *resume = (zeb_resume_comm_t *)zeb_malloc(sizeof(zeb_resume_comm_t));
    resume->seq = zeb_get_seq();
    resume->dst_app = dst_app;
    resume->dst_node = dst_node;
    if (zeb_subscr_timer_event(ZEB_RESUME_TIMEOUT, {ZEB_TIMER_TYPE_RESUME, resume->seq}) != 0) {
        free(resume);
        return;
    }
    zeb_scoped_lock lock(&g_lib_mutex);
    ZEB_INFO("ZEB try resume comm to %d/%d.\n", dst_app, dst_node);
    list_add_tail(&resume->list, &g_zeb_mng.resume_comm_list);
}

void zeb_process_resume_timer_event(uint32_t seq)
{
    if (zeb_process_rejoin_timer_event(seq))
        return;
    zeb_resume_comm_t resume = zeb_del_resume_comm(seq);
    if (resume.seq == 0)
        return; // a join or a quit has dropped it meanwhile
    ZEB_ERROR("ZEB resume communication to %d/%d.\n", resume.dst_app, resume.dst_node);
    zeb_app_inst_force_quit(resume.dst_app, resume.dst_node);
    zeb_app_inst_join(resume.dst_app, resume.dst_node, 1);
}
