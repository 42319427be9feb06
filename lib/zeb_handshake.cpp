// The steps of the handshake in their order: an instance is reported, we synchronise, the peer's synchronisation
// arrives and is acknowledged, the acknowledgement of ours arrives. Then follows what is sent again, and what begins
// anew: a quit, when the instance was online, and a new SYNC_INST.
#include "zeb_handshake.h"

#include <cerrno>
#include <cstdlib>

#include "zeb_handshake_record.h"

// A body without a sequence number and without the resume mark.
static zeb_msg_sync_inst_t my_sync_inst(const zeb_handshake_t *hs, uint32_t my_app)
{
    zeb_msg_sync_inst_t body;
    body.seq = 0;
    body.id = hs->effects->get_id(hs->ctx);
    body.is_server = hs->effects->is_server(hs->ctx, my_app) ? 1 : 0;
    body.resume = 0;
    body.ttl = ZEB_SYNC_TTL;
    return body;
}

// Sends a SYNC_INST and keeps it as pending. Returns 0, or the error; then it is not pending.
int zeb_sync_app_inst(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst, uint32_t resume)
{
    uint32_t seq = hs->effects->get_seq(hs->ctx);
    HS_VERBOSE(hs, "ZEB app %d sync inst to %d/%d, seq %d.\n", src_app, dst.app, dst.node, seq);
    zeb_msg_sync_inst_t body = my_sync_inst(hs, src_app);
    body.seq = seq;
    body.resume = resume;
    int ret = hs->effects->send_sync(hs->ctx, src_app, dst, &body);
    if (ret != 0) {
        HS_WARN(hs, "ZEB app %d sync inst to %d/%d, seq %d. SEND FAIL\n", src_app, dst.app, dst.node, seq);
        hs->effects->count(hs->ctx, ZEB_HS_SEND_FAILED, src_app, dst, ZEB_MSG_SYNC_INST);
        return ret;
    }
    zeb_get_or_add_inst_id(hs, src_app, dst)->send_seq = seq;
    hs->effects->count(hs->ctx, ZEB_HS_SENT, src_app, dst, ZEB_MSG_SYNC_INST);
    // The resume mark is sent once: each repetition would end the handshakes that other applications have completed.
    body.resume = 0;
    zeb_add_inst_sync(hs, src_app, dst, &body);
    HS_INFO(hs, "ZEB ADD INST app %d sync inst to %d/%d, seq %d.\n", src_app, dst.app, dst.node, seq);
    return 0;
}

// A synchronisation that cannot be sent is sent after the resume time-out. When nobody has the name, an event says
// when somebody has it.
static void sync_or_ask_later(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst, uint32_t resume)
{
    zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, dst.app);
    if (ol == nullptr || zeb_find_subscr_app(ol, src_app) == nullptr)
        return; // the application has left meanwhile
    int ret = zeb_sync_app_inst(hs, src_app, dst, resume);
    if (ret == 0)
        return;
    HS_ERROR(hs, "ZEB send app %d server notification to %d/%d failed.\n", src_app, dst.app, dst.node);
    if (ret != -EHOSTUNREACH)
        zeb_ask_later(hs, dst, ZEB_RESUME_UNSENT, src_app);
}

static void sync_subscribers(zeb_handshake_t *hs, zeb_inst_t inst, uint32_t resume)
{
    zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, inst.app);
    zeb_each_subscr_app(ol, [&](uint32_t subscr) { sync_or_ask_later(hs, subscr, inst, resume); });
}

// Synchronises every local subscriber with the instance.
void zeb_app_inst_join(zeb_handshake_t *hs, zeb_inst_t inst, uint32_t resume)
{
    zeb_clear_resume_comm(hs, inst, ZEB_RESUME_UNSENT);
    zeb_ol_app_t *ol = zeb_hs_get_ol_app(hs, inst.app);
    if (ol == nullptr) {
        HS_INFO(hs, "ZEB app %d/%d ol is NULL.\n", inst.app, inst.node);
        return;
    }
    if (zeb_app_set_test(&ol->ol_bmp, inst.node)) {
        HS_WARN(hs, "ZEB app %d/%d had already online.\n", inst.app, inst.node);
        return;
    }
    sync_subscribers(hs, inst, resume);
}

static void begin_anew(zeb_handshake_t *hs, zeb_inst_t inst, uint32_t resume)
{
    zeb_app_inst_force_quit(hs, inst);
    zeb_app_inst_join(hs, inst, resume);
}

// The topology service.

void zeb_hs_published(zeb_handshake_t *hs, zeb_inst_t inst)
{
    // A peer that kept its own connection still knows us. Without the resume mark it would take our synchronisation for
    // a repetition.
    uint32_t resume = zeb_take_unreported(hs, inst) ? 1 : 0;
    begin_anew(hs, inst, resume);
}

void zeb_hs_withdrawn(zeb_handshake_t *hs, zeb_inst_t inst)
{
    zeb_forget_holder(hs, inst); // another process may take the name
    (void)zeb_take_unreported(hs, inst);
    zeb_app_inst_quit(hs, inst);
}

void zeb_hs_topology_reopened(zeb_handshake_t *hs)
{
    hs->timer_inst_retry_open = false;
    zeb_expect_reports(hs);
    list_each<zeb_resume_comm_t>(&hs->resume_comm_list, [&](const zeb_resume_comm_t *resume) {
        if (resume->kind == ZEB_RESUME_OTHER_PROCESS)
            (void)zeb_hs_start_timer(hs, ZEB_RESUME_TIMEOUT, {ZEB_TIMER_TYPE_RESUME, resume->seq});
    });
}

void zeb_hs_topology_reported(zeb_handshake_t *hs)
{
    indexed_list_each(&hs->ol_app, [&](zeb_ol_app_t *ol) {
        zeb_app_set_each(&ol->unreported_bmp, [&](uint32_t node) {
            HS_WARN(hs, "ZEB perceived app %d/%d quit.\n", ol->app_id, node);
            zeb_hs_withdrawn(hs, {ol->app_id, node});
        });
    });
}

// A SYNC_INST arrives.

// While the retry list has entries, the timer is running already, unless it was lost with the topology connection.
void zeb_start_retry_inst_timer(zeb_handshake_t *hs, uint8_t peer_version, uint32_t src_app, zeb_inst_t dst)
{
    if (peer_version == 1)
        return;
    if (zeb_hs_start_timer(hs, ZEB_INST_RETRY_TIMEOUT, {ZEB_TIMER_TYPE_INST_RETRY, 0}) != 0)
        return;
    if (zeb_has_sync_inst_of(hs, src_app, dst))
        zeb_add_sync_inst_retry(hs, src_app, dst);
    else
        HS_VERBOSE(hs, "no instance msg need retry.\n");
}

// Decides whether a SYNC_INST ends what we know of the peer, and whether the handshake begins anew.
static void update_peer_state(zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer, const zeb_msg_sync_inst_t *body,
                              bool other_process)
{
    if (body->resume != 0 || other_process) {
        begin_anew(hs, peer, 0);
        return;
    }
    if (zeb_hs_get_inst_state(hs, peer).instance)
        return;
    uint32_t recv_seq = zeb_get_inst_recv_seq(hs, my_app, peer);
    if (recv_seq == 0 || recv_seq == body->seq) {
        HS_VERBOSE(hs, "ZEB app %d quit comm to %d/%d by request.recv_seq:%d, seq:%d\n", my_app, peer.app, peer.node,
                   recv_seq, body->seq);
        zeb_app_inst_try_quit(hs, peer);
        return;
    }
    HS_VERBOSE(hs, "ZEB app %d resume comm to %d/%d by request. recv_seq:%d, seq:%d\n", my_app, peer.app, peer.node,
               recv_seq, body->seq);
    begin_anew(hs, peer, 0);
}

// If a peer has synchronised but does not come online, we synchronise with it again after the resume time-out.
void zeb_try_resume_comm(zeb_handshake_t *hs, zeb_inst_t dst)
{
    if (!zeb_hs_get_inst_state(hs, dst).online && !zeb_has_sync_inst(hs, dst))
        zeb_ask_later(hs, dst, ZEB_RESUME_PEER, 0);
}

// Synchronises after the resume time-out. If the timer cannot be started, only a name that two processes have had is
// remembered: the next topology connection starts its timer.
void zeb_ask_later(zeb_handshake_t *hs, zeb_inst_t dst, zeb_resume_kind_t kind, uint32_t unsent_app)
{
    if (!zeb_has_room_for_resume(hs, dst)) {
        HS_WARN(hs, "ZEB resume comm to %d/%d is pending already.\n", dst.app, dst.node);
        return;
    }
    uint32_t seq = hs->effects->get_seq(hs->ctx);
    int ret = zeb_hs_start_timer(hs, ZEB_RESUME_TIMEOUT, {ZEB_TIMER_TYPE_RESUME, seq});
    if (ret != 0 && kind != ZEB_RESUME_OTHER_PROCESS)
        return;
    zeb_resume_comm_t *resume = zeb_add_resume_comm(hs, seq, dst);
    resume->kind = kind;
    resume->unsent_app = unsent_app;
}

static void send_ack(zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer, uint32_t seq)
{
    zeb_msg_sync_inst_ack_t ack;
    ack.sync = my_sync_inst(hs, my_app);
    ack.sync.seq = seq;
    ack.pseq = zeb_get_pseq_for_inst_ack(hs, my_app, peer);
    hs->effects->send_ack(hs->ctx, my_app, peer, &ack);
}

// True when the instance is online and `process_id` is that of another process, which has its name now.
static bool is_other_process(const zeb_handshake_t *hs, zeb_inst_t peer, const zeb_inst_id_t *id, uint32_t process_id)
{
    return zeb_hs_get_inst_state(hs, peer).online && id->sync_id == id->sync_ack_id && id->sync_id != 0 &&
           process_id != 0 && process_id != id->sync_id;
}

// Two processes may have the name at the same time for a while, and no event says which of them stays: the one that
// stays gets a synchronisation after the resume time-out.
static void note_holder(zeb_handshake_t *hs, zeb_inst_t peer, zeb_inst_id_t *id, uint32_t process_id)
{
    uint32_t holder = id->holder;
    if (process_id != 0)
        id->holder = process_id;
    if (holder == 0 || holder == id->holder)
        return;
    zeb_resume_comm_t *resume = zeb_get_resume_comm(hs, peer, ZEB_RESUME_OTHER_PROCESS);
    if (resume == nullptr)
        zeb_ask_later(hs, peer, ZEB_RESUME_OTHER_PROCESS, 0);
    else
        resume->again = true;
}

void zeb_recv_inst_sync(zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer, const zeb_msg_sync_inst_t *body)
{
    zeb_inst_id_t *known = zeb_get_or_add_inst_id(hs, my_app, peer);
    bool other_process = is_other_process(hs, peer, known, body->id);
    note_holder(hs, peer, known, body->id);
    known->sync_id = body->id;
    HS_VERBOSE(hs, "ZEB app %d recv sync inst from %d/%d resume:%d, seq:%d\n", my_app, peer.app, peer.node,
               body->resume, body->seq);
    update_peer_state(hs, my_app, peer, body, other_process);
    zeb_set_app_inst(hs, peer);
    // The record is looked up again, because a quit may have freed it.
    zeb_inst_id_t *id = zeb_get_or_add_inst_id(hs, my_app, peer);
    id->recv_seq = body->seq;
    id->sync_server = body->is_server;
    send_ack(hs, my_app, peer, body->seq);
    id->sync_id = body->id;
    id->holder = body->id;
    zeb_try_notify_app_join(hs, my_app, peer);
    zeb_try_resume_comm(hs, peer);
}

void zeb_hs_recv_sync(zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer, uint8_t ver,
                      const zeb_msg_sync_inst_t *body)
{
    zeb_start_retry_inst_timer(hs, ver, my_app, peer);
    hs->effects->count(hs->ctx, ZEB_HS_RECEIVED, my_app, peer, ZEB_MSG_SYNC_INST);
    zeb_recv_inst_sync(hs, my_app, peer, body);
    // If the pair has begun anew, our synchronisation is pending only now.
    if (zeb_has_sync_inst_of(hs, my_app, peer))
        zeb_start_retry_inst_timer(hs, ver, my_app, peer);
}

// An acknowledgement arrives.

void zeb_hs_recv_ack(zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer, const zeb_msg_sync_inst_t *body)
{
    hs->effects->count(hs->ctx, ZEB_HS_RECEIVED, my_app, peer, ZEB_MSG_SYNC_INST_ACK);
    zeb_get_or_add_inst_id(hs, my_app, peer)->sync_ack_id = body->id;
    if (zeb_del_inst_sync(hs, my_app, peer, body->seq) != 0) {
        HS_WARN(hs, "ZEB app %d del inst sync to %d/%d seq %d failed.\n", my_app, peer.app, peer.node, body->seq);
        return;
    }
    zeb_set_app_inst_ack(hs, peer);
    if (body->is_server != 0)
        zeb_set_app_server(hs, peer);
    zeb_try_notify_app_join(hs, my_app, peer);
}

// True when the instance is online and the pair's last synchronisation came from another process.
static bool is_other_holder(const zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer, uint32_t process_id)
{
    const zeb_inst_id_t *id = zeb_get_inst_id(hs, my_app, peer);
    return zeb_hs_get_inst_state(hs, peer).online && id != nullptr && id->holder != process_id;
}

static void begin_pair_anew(zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer)
{
    zeb_del_inst_syncs_of(hs, my_app, peer);
    sync_or_ask_later(hs, my_app, peer, 1);
}

// True when the instance has not synchronised, or another process than `process_id` is online in its place.
static bool is_unknown(const zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer, uint32_t process_id)
{
    const zeb_inst_state_t state = zeb_hs_get_inst_state(hs, peer);
    const zeb_inst_id_t *id = zeb_get_inst_id(hs, my_app, peer);
    return !state.instance || (id != nullptr && is_other_process(hs, peer, id, process_id));
}

// An acknowledgement without a pseq says which process the peer is and whether it is a server. Only one with the right
// pseq completes our synchronisation.
void zeb_hs_recv_seq_ack(zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer, const zeb_msg_sync_inst_ack_t *body)
{
    hs->effects->count(hs->ctx, ZEB_HS_RECEIVED, my_app, peer, ZEB_MSG_SYNC_INST_SEQ_ACK);
    uint32_t recv_seq = zeb_get_inst_recv_seq(hs, my_app, peer);
    uint32_t pseq = body->pseq;
    uint32_t seq = body->sync.seq;
    HS_VERBOSE(hs, "ZEB app %u recv from %u/%u ack pseq %u seq %u, recv_seq %u, is_server %u.\n", my_app, peer.app,
               peer.node, pseq, seq, recv_seq, body->sync.is_server);

    if (pseq == 0 || pseq == recv_seq) {
        zeb_get_or_add_inst_id(hs, my_app, peer)->sync_ack_id = body->sync.id;
        if (body->sync.is_server != 0)
            zeb_set_app_server(hs, peer);
    }
    if (pseq == 0 || pseq != recv_seq) {
        HS_VERBOSE(hs, "ZEB app %d recv from %d/%d ack pseq %d invalid, need seq %d.\n", my_app, peer.app, peer.node,
                   pseq, recv_seq);
        // The peer knows us and took our synchronisation for a repetition; we have forgotten the peer's.
        if (pseq == 0 || !zeb_has_sync_inst_seq(hs, my_app, peer, seq))
            return;
        if (is_unknown(hs, my_app, peer, body->sync.id))
            begin_anew(hs, peer, 1);
        else if (recv_seq == 0 || is_other_holder(hs, my_app, peer, body->sync.id))
            begin_pair_anew(hs, my_app, peer); // online through another local application
        return;
    }
    if (zeb_del_inst_sync(hs, my_app, peer, seq) != 0) {
        HS_VERBOSE(hs, "ZEB app %d del inst sync to %d/%d failed. ack seq %d pseq %d \n", my_app, peer.app, peer.node,
                   seq, pseq);
        return;
    }
    if (zeb_hs_get_inst_state(hs, peer).instance)
        zeb_del_sync_inst_retry(hs, my_app, peer);
    else if (zeb_hs_start_timer(hs, ZEB_INST_RETRY_TIMEOUT, {ZEB_TIMER_TYPE_INST_RETRY, 0}) == 0)
        zeb_add_sync_inst_retry(hs, my_app, peer); // see await_sync
    zeb_set_app_inst_ack(hs, peer);
    zeb_try_notify_app_join(hs, my_app, peer);
}

// An ordinary message arrives before the acknowledgement.
void zeb_hs_recv_traffic(zeb_handshake_t *hs, uint32_t my_app, zeb_inst_t peer)
{
    zeb_hs_del_reject_acks(hs, my_app, peer);
    zeb_del_inst_syncs_of(hs, my_app, peer);
    bool known_app = zeb_hs_get_ol_app(hs, peer.app) != nullptr;
    if (known_app)
        zeb_set_app_inst_ack(hs, peer);
    zeb_inst_id_t *id = zeb_get_inst_id(hs, my_app, peer);
    if (id != nullptr) {
        id->sync_ack_id = id->sync_id;
        // No acknowledgement will follow to say that the peer is a server.
        if (id->sync_server != 0 && known_app)
            zeb_set_app_server(hs, peer);
    }
    zeb_try_notify_app_join(hs, my_app, peer);
}

// Returned acknowledgements.

void zeb_hs_ack_returned(zeb_handshake_t *hs, zeb_returned_ack_t *ack)
{
    if (hs->sync_inst_ack_num.load(std::memory_order_relaxed) >= ZEB_ACK_RESEND_NUM_MAX) {
        HS_ERROR(hs, "ZEB drop sync inst ack to %d/%d, too many come back.\n", ack->dst.app, ack->dst.node);
        zeb_free_returned_ack(ack);
        return;
    }
    ack->timer_seq = hs->effects->get_seq(hs->ctx);
    if (zeb_hs_start_timer(hs, ZEB_RESEND_ACK_TIMEOUT, {ZEB_TIMER_TYPE_INST, ack->timer_seq}) != 0) {
        zeb_free_returned_ack(ack);
        return;
    }
    HS_VERBOSE(hs, "ZEB add sync inst ack resend to %d/%d, seq %d.\n", ack->dst.app, ack->dst.node, ack->sync_seq);
    list_add_tail(&ack->list, &hs->sync_inst_ack_list);
    hs->sync_inst_ack_num.fetch_add(1, std::memory_order_relaxed);
}

void zeb_hs_del_reject_acks(zeb_handshake_t *hs, uint32_t src_app, zeb_inst_t dst)
{
    list_each<zeb_returned_ack_t>(&hs->sync_inst_ack_list, [&](zeb_returned_ack_t *ack) {
        if (ack->ver == 2 && ack->src_app == src_app && zeb_same_inst(ack->dst, dst))
            zeb_drop_returned_ack(hs, ack);
    });
}

// An acknowledgement that cannot be sent stays on the list until traffic to or from the peer makes it unnecessary.
void zeb_process_resend_inst_timer_event(zeb_handshake_t *hs, uint32_t seq)
{
    list_each<zeb_returned_ack_t>(&hs->sync_inst_ack_list, [&](zeb_returned_ack_t *ack) {
        if (ack->timer_seq != seq)
            return;
        if (hs->effects->resend_ack(hs->ctx, ack) != 0) {
            hs->effects->count(hs->ctx, ZEB_HS_SEND_FAILED, ack->src_app, ack->dst, ack->type);
            return;
        }
        hs->effects->count(hs->ctx, ZEB_HS_SENT, ack->src_app, ack->dst, ack->type);
        zeb_drop_returned_ack(hs, ack);
    });
}

// Time-outs.

// A peer that has acknowledged our synchronisation and already knows us may never synchronise by itself. We lack its
// synchronisation because a late report has made us forget it.
static void await_sync(zeb_handshake_t *hs, zeb_retry_inst_t *retry)
{
    if (zeb_has_sync_inst_of(hs, retry->src_app, retry->dst))
        return;
    uint32_t src_app = retry->src_app;
    zeb_inst_t dst = retry->dst;
    bool known = zeb_hs_get_inst_state(hs, dst).instance;
    if (!known && ++retry->unknown_rounds < ZEB_UNKNOWN_ROUND_NUM)
        return;
    zeb_del_sync_inst_retry(hs, src_app, dst);
    if (!known)
        begin_anew(hs, dst, 1);
}

// Sends every pending synchronisation again, not only those to peers in the retry list.
void zeb_process_inst_retry_timer_event(zeb_handshake_t *hs, uint32_t)
{
    hs->timer_inst_retry_open = false;
    indexed_list_each(&hs->inst_sync, [&](const zeb_pending_sync_t *pending) {
        hs->effects->resend_sync(hs->ctx, pending->src_app, pending->dst, &pending->body);
    });
    indexed_list_each(&hs->inst_retry, [&](zeb_retry_inst_t *retry) { await_sync(hs, retry); });
    if (indexed_list_num(&hs->inst_retry) != 0)
        (void)zeb_hs_start_timer(hs, ZEB_INST_RETRY_TIMEOUT, {ZEB_TIMER_TYPE_INST_RETRY, 0});
}

// A running peer acknowledges at once, and once it has synchronised, the retry timer runs. A synchronisation that is
// still pending was lost: the process that received it has ended, and no event reports that while another process has
// the same name.
void zeb_hs_minute(zeb_handshake_t *hs)
{
    indexed_list_each(&hs->inst_sync, [&](zeb_pending_sync_t *pending) {
        if (++pending->minutes == ZEB_UNANSWERED_MINUTES)
            hs->effects->resend_sync(hs->ctx, pending->src_app, pending->dst, &pending->body);
    });
}

// A peer that has named us synchronises as soon as it sees us. One that has not acknowledges our SYNC_INST, but without
// a pseq, since it has none of its own: ours stays pending.
void zeb_hs_find_one_sided(zeb_handshake_t *hs, void (*tell)(void *ctx, uint32_t my_app, zeb_inst_t peer))
{
    indexed_list_each(&hs->inst_sync, [&](zeb_pending_sync_t *pending) {
        if (++pending->looks < ZEB_ONE_SIDED_LOOKS)
            return;
        zeb_inst_id_t *id = zeb_get_inst_id(hs, pending->src_app, pending->dst);
        if (id == nullptr || id->sync_ack_id == 0 || id->recv_seq != 0 || id->one_sided)
            return;
        id->one_sided = true;
        tell(hs->ctx, pending->src_app, pending->dst);
    });
}

// Sends a synchronisation to the process that has the name. It changes nothing if that process is the one online. A
// pending synchronisation does the same.
static void ask_holder(zeb_handshake_t *hs, zeb_inst_t inst)
{
    zeb_each_subscr_app(zeb_hs_get_ol_app(hs, inst.app), [&](uint32_t subscr) {
        if (!zeb_has_sync_inst_of(hs, subscr, inst))
            sync_or_ask_later(hs, subscr, inst, 0);
    });
}

void zeb_process_resume_timer_event(zeb_handshake_t *hs, uint32_t seq)
{
    zeb_resume_comm_t resume = zeb_del_resume_comm(hs, seq);
    if (resume.seq == 0)
        return; // a join or a quit has dropped the resume meanwhile
    HS_ERROR(hs, "ZEB resume communication to %d/%d.\n", resume.dst.app, resume.dst.node);
    if (resume.again)
        zeb_ask_later(hs, resume.dst, ZEB_RESUME_OTHER_PROCESS, 0);
    if (resume.kind == ZEB_RESUME_UNSENT)
        sync_or_ask_later(hs, resume.unsent_app, resume.dst, 1);
    else if (resume.kind == ZEB_RESUME_OTHER_PROCESS && zeb_hs_get_inst_state(hs, resume.dst).online)
        ask_holder(hs, resume.dst);
    else
        begin_anew(hs, resume.dst, 1);
}

int zeb_hs_start_timer(zeb_handshake_t *hs, unsigned seconds, zeb_timer_t timer)
{
    bool retry = timer.type == ZEB_TIMER_TYPE_INST_RETRY;
    if (retry && hs->timer_inst_retry_open)
        return 0;
    if (retry)
        hs->timer_inst_retry_open = true; // stays set if the start fails, until the topology connection is reopened
    return hs->effects->start_timer(hs->ctx, seconds, timer);
}

void zeb_hs_timer(zeb_handshake_t *hs, zeb_timer_t timer)
{
    switch (timer.type) {
    case ZEB_TIMER_TYPE_RESUME:
        zeb_process_resume_timer_event(hs, timer.seq);
        return;
    case ZEB_TIMER_TYPE_INST:
        zeb_process_resend_inst_timer_event(hs, timer.seq);
        return;
    case ZEB_TIMER_TYPE_INST_RETRY:
        zeb_process_inst_retry_timer_event(hs, timer.seq);
        return;
    default:
        return;
    }
}
