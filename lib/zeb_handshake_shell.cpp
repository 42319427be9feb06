#include "zeb_handshake_shell.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "platform/list_algo.h"
#include "zeb_app_info.h"
#include "zeb_dbg.h"
#include "zeb_error.h"
#include "zeb_flow_ctrl.h"
#include "zeb_flow_ctrl_stat.h"
#include "zeb_handshake_record.h"
#include "zeb_mng_msg.h"
#include "zeb_probe.h"
#include "zeb_rpc.h"
#include "zeb_tipc.h"

zeb_handshake_t g_zeb_handshake;

static bool s_subscribed ZEB_GUARDED_BY(g_lib_mutex); // to the applications that were named by then
static bool s_late ZEB_GUARDED_BY(g_lib_mutex);       // a subscriber is late

// What is carried out once g_lib_mutex is released.
typedef enum later_kind_e : int {
    LATER_RESEND_SYNC,
    LATER_SEND_ACK,
    LATER_JOIN,
    LATER_LATE_JOIN, // of an instance that was online when the application named it
    LATER_QUIT,
    LATER_TELL_ONE_SIDED,
} later_kind_t;

typedef struct later_s {
    struct list_head list;
    later_kind_t kind;
    uint32_t my_app;
    zeb_inst_t peer;
    zeb_msg_sync_inst_ack_t body; // of the message; a SYNC_INST has no pseq
} later_t;

static void do_later(void *ctx, later_kind_t kind, uint32_t my_app, zeb_inst_t peer,
                     const zeb_msg_sync_inst_ack_t *body)
{
    later_t *later = (later_t *)zeb_malloc(sizeof(later_t));
    later->kind = kind;
    later->my_app = my_app;
    later->peer = peer;
    if (body != nullptr)
        later->body = *body;
    list_add_tail(&later->list, (struct list_head *)ctx);
}

// Whom an event reaches: the application that the core chose, and each other one that has named the peer and has asked
// for every event.

static bool gets_every_event(uint32_t app)
{
    const zeb_app_info_t *app_info = zeb_get_app_info(app);
    return app_info != nullptr && app_info->options.every_subscriber != 0;
}

// Calls visit(app) for each of them. Called by effects, so under g_lib_mutex.
template <typename Visit>
static void each_reached(uint32_t chosen, zeb_inst_t peer, Visit visit) ZEB_NO_THREAD_SAFETY_ANALYSIS
{
    visit(chosen);
    zeb_each_subscr_app(zeb_hs_get_ol_app(&g_zeb_handshake, peer.app), [&](uint32_t app) {
        if (app != chosen && gets_every_event(app))
            visit(app);
    });
}

// Effects that are carried out at once.

static uint32_t get_seq(void *)
{
    return zeb_get_seq();
}

// A library that was started again in the same process is another one to its peers, which may not yet have read that
// the first has gone. A process id has 22 bits, so the first start has the bare one.
constexpr uint32_t PID_BITS = 22;
constexpr uint32_t PID_MASK = (1u << PID_BITS) - 1;

static uint32_t get_id(void *)
{
    return (uint32_t)getpid() | (g_zeb_mng.starts - 1) << PID_BITS;
}

static bool is_server(void *, uint32_t my_app)
{
    return zeb_is_app_server(my_app);
}

static int start_timer(void *, unsigned seconds, zeb_timer_t timer)
{
    return zeb_start_timer(seconds, timer);
}

static int write_sync(uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_t *body)
{
    zeb_msg_t *msg = zeb_new_sync_inst_msg(src_app, dst, body);
    int ret = zeb_tipc_sendto(src_app, msg, dst, 0);
    if (ret == -1) // a write failed, and errno says why
        ret = -errno;
    free(msg);
    return ret;
}

static int send_sync(void *, uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_t *body)
{
    zeb_since_touch(dst);
    return write_sync(src_app, dst, body);
}

static int resend_ack(void *, const zeb_returned_ack_t *ack)
{
    ack->msg->hdr.seq = ack->timer_seq;
    return zeb_tipc_sendto(ack->src_app, ack->msg, ack->dst, 0);
}

static void count(void *, zeb_hs_count_t what, uint32_t my_app, zeb_inst_t peer, int type)
{
    zeb_since_touch(peer);
    switch (what) {
    case ZEB_HS_SENT:
        zeb_mng_stat_update_sent(my_app, peer, type);
        return;
    case ZEB_HS_SEND_FAILED:
        zeb_mng_stat_update_send_fail(my_app, peer);
        return;
    case ZEB_HS_RECEIVED:
        zeb_mng_stat_update_recv(my_app, peer, type);
        return;
    }
}

static void forget_peer(void *, uint32_t my_app, zeb_inst_t peer, bool was_online)
{
    zeb_since_touch(peer);
    zeb_fc_reset_unack(my_app, peer);
    if (!was_online)
        return;
    zeb_clean_mng_msg_stat(my_app, peer);
    zeb_discard_app_msg(my_app, peer);
}

static void end_calls(void *, uint32_t my_app, zeb_inst_t peer)
{
    each_reached(my_app, peer, [&](uint32_t app) { (void)zeb_terminate_rpc(app, peer); });
}

static void unsubscribe(void *, uint32_t app)
{
    (void)zeb_unsubscr_app_events(zeb_tipc_instance({app, 0}), zeb_tipc_instance({app, 0xFFFF}));
}

static bool log_on(void *, zeb_dbg_level_t level)
{
    return zeb_log_on(level);
}

static void log(void *, zeb_dbg_level_t level, const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 5, 6)));

static void log(void *, zeb_dbg_level_t level, const char *file, int line, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    zeb_vlog_line(level, file, line, format, args);
    va_end(args);
}

// Effects that are carried out later.

static void resend_sync_later(void *ctx, uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_t *body)
{
    zeb_msg_sync_inst_ack_t without_pseq = {*body, 0};
    do_later(ctx, LATER_RESEND_SYNC, src_app, dst, &without_pseq);
}

static void send_ack_later(void *ctx, uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_ack_t *body)
{
    do_later(ctx, LATER_SEND_ACK, src_app, dst, body);
}

static void notify_join_later(void *ctx, uint32_t my_app, zeb_inst_t peer)
{
    each_reached(my_app, peer, [&](uint32_t app) { do_later(ctx, LATER_JOIN, app, peer, nullptr); });
}

static void notify_quit_later(void *ctx, uint32_t my_app, zeb_inst_t peer)
{
    each_reached(my_app, peer, [&](uint32_t app) {
        if (app != my_app)
            ZEB_INFO("ZEB notify app %d of %d/%d quit.\n", app, peer.app, peer.node);
        do_later(ctx, LATER_QUIT, app, peer, nullptr);
    });
}

static const zeb_hs_effects_t s_effects = {
    get_seq,           get_id,      is_server, start_timer, send_sync, resend_sync_later,
    send_ack_later,    resend_ack,  count,     forget_peer, end_calls, notify_join_later,
    notify_quit_later, unsubscribe, log_on,    log,
};

static void resend_sync(const later_t *later)
{
    uint32_t app = later->my_app;
    zeb_inst_t peer = later->peer;
    uint32_t seq = later->body.sync.seq;
    if (write_sync(app, peer, &later->body.sync) != 0) {
        ZEB_WARN("ZEB app %d sync inst to %d/%d, seq %d FAIL.\n", app, peer.app, peer.node, seq);
        zeb_mng_stat_update_send_fail(app, peer);
        return;
    }
    ZEB_VERBOSE("ZEB app %d sync inst to %d/%d, seq %d SUCC.\n", app, peer.app, peer.node, seq);
    zeb_mng_stat_update_sent(app, peer, ZEB_MSG_SYNC_INST);
}

// Sends an acknowledgement, counts it and frees it.
static int send_ack_msg(uint32_t src_app, zeb_inst_t dst, zeb_msg_t *msg, zeb_msg_type_t type)
{
    int ret = zeb_tipc_sendto(src_app, msg, dst, 0);
    if (ret == 0)
        zeb_mng_stat_update_sent(src_app, dst, type);
    else
        zeb_mng_stat_update_send_fail(src_app, dst);
    free(msg);
    return ret;
}

static void send_ack(const later_t *later)
{
    zeb_inst_t peer = later->peer;
    zeb_msg_t *msg = zeb_new_sync_inst_seq_ack_msg(later->my_app, peer, &later->body);
    int ret = send_ack_msg(later->my_app, peer, msg, ZEB_MSG_SYNC_INST_SEQ_ACK);
    ZEB_VERBOSE("ZEB app %d sync inst ack_anc to %d/%d, seq %d, pseq %d. ret:%d.\n", later->my_app, peer.app, peer.node,
                later->body.sync.seq, later->body.pseq, ret);
}

static void queue_event(const later_t *later, zeb_event_type_t type)
{
    zeb_msg_t *msg = zeb_new_event_msg(later->my_app, type, later->peer);
    if (zeb_enqueue_event_msg(later->my_app, msg) != 0)
        free(msg);
}

static void queue_join(const later_t *later)
{
    ZEB_PROBE_JOIN(later->my_app, later->peer.app, later->peer.node);
    queue_event(later, ZEB_APP_JOIN);
}

static void tell_one_sided(uint32_t app, zeb_inst_t peer)
{
    ZEB_WARN("ZEB app %d waits for %d/%d, which has not named it: name it with zeb_comm_with there.\n", app, peer.app,
             peer.node);
    ZEB_SAY_UNHANDLED("zeb: application %u waits for application %u on node %u, which has not named it: name it with "
                      "zeb_comm_with there: zeb_comm_with(%u, %u)",
                      app, peer.app, peer.node, peer.app, app);
}

static void carry_out(const later_t *later)
{
    switch (later->kind) {
    case LATER_RESEND_SYNC:
        resend_sync(later);
        return;
    case LATER_SEND_ACK:
        send_ack(later);
        return;
    case LATER_JOIN:
        zeb_fc_adjust_statistics(later->my_app, later->peer);
        queue_join(later);
        return;
    case LATER_LATE_JOIN:
        queue_join(later);
        return;
    case LATER_QUIT:
        ZEB_PROBE_QUIT(later->my_app, later->peer.app, later->peer.node);
        queue_event(later, ZEB_APP_QUIT);
        return;
    case LATER_TELL_ONE_SIDED:
        tell_one_sided(later->my_app, later->peer);
        return;
    }
}

void zeb_carry_out(struct list_head *later)
{
    list_each<later_t>(later, [](later_t *effect) {
        carry_out(effect);
        free(effect);
    });
}

void zeb_handshake_start()
{
    if (g_zeb_handshake.effects != nullptr)
        zeb_hs_clear(&g_zeb_handshake);
    zeb_hs_init(&g_zeb_handshake, &s_effects, nullptr);
    __zeb_since_clear();
    s_subscribed = false;
    s_late = false;
}

// An application may send or list before it registers. It then finds nobody.
__attribute__((constructor)) static void start_at_load() ZEB_NO_THREAD_SAFETY_ANALYSIS
{
    zeb_handshake_start();
}

// Who talks to whom.

int __zeb_add_comm_app(uint32_t src_app, uint32_t dst_app)
{
    zeb_hs_add_comm_app(&g_zeb_handshake, src_app, dst_app);
    return 0;
}

static zeb_subscr_app_t *find_subscriber(zeb_ol_app_t *ol, uint32_t src_app) ZEB_REQUIRES(g_lib_mutex)
{
    return ol == nullptr ? nullptr : zeb_find_subscr_app(ol, src_app);
}

// An application that gets every event has named a peer whose servers may be online: it gets their joins. The receive
// thread alone queues events, so that they keep their order; a timer that expires at once wakes it.
static void note_late(uint32_t src_app, uint32_t dst_app) ZEB_REQUIRES(g_lib_mutex)
{
    zeb_app_set_t servers;
    zeb_hs_get_app_server(&g_zeb_handshake, dst_app, &servers);
    if (!gets_every_event(src_app) || !zeb_has_app_server(&servers))
        return;
    find_subscriber(zeb_hs_get_ol_app(&g_zeb_handshake, dst_app), src_app)->late = true;
    s_late = true;
    if (g_zeb_mng.subscr_sd != -1)
        (void)zeb_start_timer(0, {ZEB_TIMER_TYPE_WAKE, 0});
}

static void tell_late(zeb_ol_app_t *ol, zeb_subscr_app_t *subscr) ZEB_REQUIRES(g_lib_mutex)
{
    zeb_app_set_t servers;
    zeb_hs_get_app_server(&g_zeb_handshake, ol->app_id, &servers);
    zeb_app_set_each(&servers, [&](uint32_t node) ZEB_NO_THREAD_SAFETY_ANALYSIS {
        do_later(g_zeb_handshake.ctx, LATER_LATE_JOIN, subscr->subscr_app, {ol->app_id, node}, nullptr);
    });
    subscr->late = false;
}

void __zeb_tell_late_subscribers()
{
    if (!s_late)
        return;
    s_late = false;
    indexed_list_each(&g_zeb_handshake.ol_app, [](zeb_ol_app_t *ol) {
        list_each<zeb_subscr_app_t>(&ol->subscr_app_list, [&](zeb_subscr_app_t *subscr) ZEB_NO_THREAD_SAFETY_ANALYSIS {
            if (subscr->late)
                tell_late(ol, subscr);
        });
    });
}

int zeb_add_comm_app(uint32_t src_app, uint32_t dst_app)
{
    if (zeb_get_app_mng(src_app) == nullptr) {
        ZEB_ERROR_WHY("ZEB app %d does not registered.\n", src_app);
        return -ENOENT;
    }
    zeb_scoped_lock lock(&g_lib_mutex);
    uint32_t before = g_zeb_handshake.ol_app_changes.load(std::memory_order_relaxed);
    bool named = find_subscriber(zeb_hs_get_ol_app(&g_zeb_handshake, dst_app), src_app) != nullptr;
    int ret = __zeb_add_comm_app(src_app, dst_app);
    if (ret == 0 && !named)
        note_late(src_app, dst_app);
    if (s_subscribed && g_zeb_handshake.ol_app_changes.load(std::memory_order_relaxed) != before)
        ZEB_WARN(
            "ZEB app %d named %d after the start: not subscribed to until the topology connection is next opened.\n",
            src_app, dst_app);
    return ret;
}

void zeb_del_comm_app(uint32_t src_app)
{
    zeb_hs_del_comm_app(&g_zeb_handshake, src_app);
}

// Who is online.

void zeb_get_app_server(uint32_t app, zeb_app_set_t *ol_srv)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_hs_get_app_server(&g_zeb_handshake, app, ol_srv);
}

bool zeb_get_app_server_on(uint32_t app, const uint32_t *nodes, int num, zeb_app_set_t *ol_srv)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    return zeb_hs_get_app_server_on(&g_zeb_handshake, app, nodes, num, ol_srv);
}

bool zeb_has_app_server(const zeb_app_set_t *ol_srv)
{
    return ol_srv->blocks != 0;
}

zeb_inst_state_t zeb_get_inst_state(zeb_inst_t inst)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    return zeb_hs_get_inst_state(&g_zeb_handshake, inst);
}

zeb_since_t zeb_get_inst_since(zeb_inst_t inst)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    return __zeb_get_since(&g_zeb_handshake, inst);
}

// The record of the application that sent last. It is valid until an application comes or goes.
static struct {
    uint32_t changes;
    uint32_t app;
    const zeb_ol_app_t *ol;
} s_sender;

static void look_up_sender(uint32_t app)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    s_sender.changes = g_zeb_handshake.ol_app_changes.load(std::memory_order_relaxed);
    s_sender.app = app;
    s_sender.ol = zeb_hs_get_ol_app(&g_zeb_handshake, app);
}

zeb_inst_state_t zeb_get_sender_state(zeb_inst_t inst) ZEB_NO_THREAD_SAFETY_ANALYSIS
{
    if (s_sender.app != inst.app || s_sender.changes != g_zeb_handshake.ol_app_changes.load(std::memory_order_acquire))
        look_up_sender(inst.app);
    return zeb_ol_app_inst_state(s_sender.ol, inst.node);
}

bool zeb_app_online(zeb_inst_t inst)
{
    return zeb_get_inst_state(inst).online;
}

bool zeb_app_instance(zeb_inst_t inst)
{
    return zeb_get_inst_state(inst).instance;
}

// Events.

void zeb_subscr_tipc_events()
{
    zeb_scoped_lock lock(&g_lib_mutex);
    indexed_list_each(&g_zeb_handshake.ol_app, [](const zeb_ol_app_t *ol) {
        (void)zeb_subscr_app_events(zeb_tipc_instance({ol->app_id, 0}), zeb_tipc_instance({ol->app_id, 0xFFFF}),
                                    TIPC_WAIT_FOREVER);
    });
    s_subscribed = true;
}

void zeb_inst_published(zeb_inst_t inst)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_hs_published(hs, inst); });
}

void zeb_inst_withdrawn(zeb_inst_t inst)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_hs_withdrawn(hs, inst); });
}

void zeb_topology_reopened()
{
    zeb_handshake_event([](zeb_handshake_t *hs) { zeb_hs_topology_reopened(hs); });
}

void zeb_topology_reported()
{
    zeb_handshake_event([](zeb_handshake_t *hs) { zeb_hs_topology_reported(hs); });
}

void zeb_handshake_minute()
{
    zeb_handshake_event([](zeb_handshake_t *hs) { zeb_hs_minute(hs); });
}

void zeb_handshake_look()
{
    zeb_handshake_event([](zeb_handshake_t *hs) {
        zeb_hs_find_one_sided(hs, [](void *ctx, uint32_t my_app, zeb_inst_t peer) {
            do_later(ctx, LATER_TELL_ONE_SIDED, my_app, peer, nullptr);
        });
    });
}

// Two processes of this node may have registered one application: TIPC lets both have its name, and brings what
// one sends to it now to the one, now to the other. A synchronisation or an acknowledgement of the other process gives
// both away. Told once for each application.
static void tell_shared_name(zeb_inst_t peer, uint32_t process_id)
{
    if (process_id == 0 || (process_id & PID_MASK) == (uint32_t)getpid() || !zeb_take_shared_name(peer))
        return;
    ZEB_ERROR("ZEB app %d/%d is that of process %d too.\n", peer.app, peer.node, process_id & PID_MASK);
    ZEB_SAY_UNHANDLED(
        "zeb: processes %u and %u of node %u have both registered application %u: end one of them, or give "
        "it another id. Type: ps -p %u,%u",
        (uint32_t)getpid(), process_id & PID_MASK, peer.node, peer.app, (uint32_t)getpid(), process_id & PID_MASK);
}

// Handles one element of a synchronisation message. Returns false when the value is too short for its type.
static bool process_sync_item(const zeb_msg_hdr_t *hdr, const zeb_tlv_item_t *item)
{
    uint32_t my_app = hdr->dst_app;
    zeb_inst_t peer = {hdr->src_app, hdr->src_node};
    zeb_msg_sync_inst_ack_t body;
    switch (item->type) {
    case ZEB_MSG_SYNC_INST:
        if (!zeb_get_sync_inst(item, &body.sync))
            return false;
        tell_shared_name(peer, body.sync.id);
        zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_hs_recv_sync(hs, my_app, peer, hdr->zeb_ver, &body.sync); });
        return true;
    case ZEB_MSG_SYNC_INST_ACK:
        if (hdr->zeb_ver != 1)
            return true;
        if (!zeb_get_sync_inst(item, &body.sync))
            return false;
        zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_hs_recv_ack(hs, my_app, peer, &body.sync); });
        return true;
    case ZEB_MSG_SYNC_INST_SEQ_ACK:
        if (hdr->zeb_ver != 2)
            return true;
        if (!zeb_get_sync_inst_ack(item, &body))
            return false;
        tell_shared_name(peer, body.sync.id);
        zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_hs_recv_seq_ack(hs, my_app, peer, &body); });
        return true;
    default:
        ZEB_WARN("ZEB app %d recv unexpected data type %d from %d/%d.\n", my_app, item->type, peer.app, peer.node);
        return true;
    }
}

// False when the sender or the receiver cannot exist: nothing would ever remove the records of such a pair.
static bool is_pair(const zeb_msg_t *msg)
{
    return zeb_get_app_mng(msg->hdr.dst_app) != nullptr && zeb_valid_inst(zeb_msg_sender(msg));
}

static bool has_room_for_pair(const zeb_msg_t *msg)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    return zeb_hs_has_room_for_pair(&g_zeb_handshake, msg->hdr.dst_app, zeb_msg_sender(msg));
}

void zeb_sync_msg_process(zeb_msg_t *msg)
{
    const zeb_msg_hdr_t *hdr = &msg->hdr;
    bool pair = is_pair(msg);
    if (pair && !has_room_for_pair(msg)) {
        ZEB_ERROR("ZEB app %d has no room for %d/%d.\n", hdr->dst_app, hdr->src_app, hdr->src_node);
        free(msg);
        return;
    }
    struct tlv_list_desc cursor = zeb_tlv_body(msg);
    zeb_tlv_item_t item;
    zeb_tlv_step_t step = pair ? zeb_tlv_next(&cursor, &item) : ZEB_TLV_INVALID;
    for (; step == ZEB_TLV_ITEM; step = zeb_tlv_next(&cursor, &item)) {
        ZEB_VERBOSE("ZEB app %d recv sync msg from %d/%d, data len %d, type %s.\n", hdr->dst_app, hdr->src_app,
                    hdr->src_node, item.len, zeb_msg_type_string(item.type));
        if (!process_sync_item(hdr, &item)) {
            step = ZEB_TLV_INVALID;
            break;
        }
    }
    if (step == ZEB_TLV_INVALID)
        ZEB_ERROR("ZEB recv invalid TLV section for %d from %d/%d .\n", hdr->dst_app, hdr->src_app, hdr->src_node);
    free(msg);
}

void zeb_notify_app_join(uint32_t my_app, zeb_inst_t peer)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) {
        if (zeb_hs_get_inst_state(hs, peer).instance)
            zeb_since_touch(peer);
        zeb_hs_recv_traffic(hs, my_app, peer);
    });
}

void zeb_process_return_sync(zeb_msg_t *msg)
{
    int type = 0;
    uint32_t seq = 0;
    if (!zeb_take_ack_ttl(msg, &type, &seq))
        return;
    zeb_returned_ack_t *ack = (zeb_returned_ack_t *)zeb_malloc(sizeof(zeb_returned_ack_t));
    ack->src_app = msg->hdr.src_app;
    ack->dst = zeb_msg_receiver(msg);
    ack->ver = msg->hdr.zeb_ver;
    ack->type = type;
    ack->sync_seq = seq;
    ack->msg = zeb_msg_alloc((int)zeb_msg_data_len(msg), 1, 0);
    assert(ack->msg != NULL);
    memcpy(&ack->msg->hdr, &msg->hdr, msg->hdr.len);
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_hs_ack_returned(hs, ack); });
}

void zeb_del_reject_acks(uint32_t src_app, zeb_inst_t dst)
{
    zeb_scoped_lock lock(&g_lib_mutex);
    zeb_hs_del_reject_acks(&g_zeb_handshake, src_app, dst);
}

int zeb_subscr_timer_event(uint64_t timeout, zeb_timer_t timer)
{
    if (timer.type != ZEB_TIMER_TYPE_INST_RETRY)
        return zeb_start_timer(timeout, timer);
    zeb_scoped_lock lock(&g_lib_mutex);
    return zeb_hs_start_timer(&g_zeb_handshake, (unsigned)timeout, timer);
}

void zeb_process_sync_timer_event(zeb_timer_t timer)
{
    zeb_handshake_event([&](zeb_handshake_t *hs) { zeb_hs_timer(hs, timer); });
}

int zeb_sync_app_inst_ack(uint32_t src_app, zeb_inst_t dst, uint32_t seq, bool is_server)
{
    ZEB_VERBOSE("ZEB app %d sync inst ack to %d/%d, seq %d.\n", src_app, dst.app, dst.node, seq);
    zeb_msg_sync_inst_t body = {seq, (uint32_t)getpid(), is_server ? 1u : 0u, 0, ZEB_SYNC_TTL};
    return send_ack_msg(src_app, dst, zeb_new_sync_inst_ack_msg(src_app, dst, &body), ZEB_MSG_SYNC_INST_ACK);
}
