#include "shell.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

static proc_t *proc_of(void *ctx)
{
    return (proc_t *)ctx;
}

static int place_of(const proc_t *proc)
{
    return proc->index / 2;
}

// The application's place in its process. It always has one.
static int app_index(const proc_t *proc, uint32_t app)
{
    const place_config_t *place = &proc->world->config.place[place_of(proc)];
    return place->app[0].app == app ? 0 : 1;
}

static uint32_t get_seq(void *ctx)
{
    return ++proc_of(ctx)->seq;
}

static uint32_t get_id(void *ctx)
{
    return proc_of(ctx)->pid;
}

static bool is_server(void *ctx, uint32_t my_app)
{
    const proc_t *proc = proc_of(ctx);
    return proc->world->config.place[place_of(proc)].app[app_index(proc, my_app)].server;
}

static int start_timer(void *ctx, unsigned seconds, zeb_timer_t timer)
{
    return add_timer(proc_of(ctx), seconds, timer);
}

static int send_core(void *ctx, uint32_t src_app, zeb_inst_t dst, kind_t kind, const zeb_msg_sync_inst_ack_t *body)
{
    proc_t *proc = proc_of(ctx);
    message_t message;
    memset(&message, 0, sizeof(message));
    message.kind = kind;
    message.body = *body;
    proc->world->core_sends++;
    proc->world->last_send = proc->world->now;
    int *fail = kind == KIND_ACK ? &proc->fail_ack : &proc->fail_send;
    if (*fail > 0) {
        (*fail)--;
        return -EAGAIN;
    }
    return send_message(proc, app_index(proc, src_app), dst, &message);
}

static int send_sync(void *ctx, uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_t *body)
{
    zeb_msg_sync_inst_ack_t whole;
    memset(&whole, 0, sizeof(whole));
    whole.sync = *body;
    return send_core(ctx, src_app, dst, KIND_SYNC, &whole);
}

static void resend_sync(void *ctx, uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_t *body)
{
    (void)send_sync(ctx, src_app, dst, body);
}

static void send_ack(void *ctx, uint32_t src_app, zeb_inst_t dst, const zeb_msg_sync_inst_ack_t *body)
{
    (void)send_core(ctx, src_app, dst, KIND_ACK, body);
}

static int resend_ack(void *ctx, const zeb_returned_ack_t *ack)
{
    return send_core(ctx, ack->src_app, ack->dst, KIND_ACK, (const zeb_msg_sync_inst_ack_t *)(const void *)ack->msg);
}

static void count(void *, zeb_hs_count_t, uint32_t, zeb_inst_t, int)
{
}

static void forget_peer(void *, uint32_t, zeb_inst_t, bool)
{
}

static void end_calls(void *, uint32_t, zeb_inst_t)
{
}

static void notify_join(void *ctx, uint32_t my_app, zeb_inst_t peer)
{
    proc_t *proc = proc_of(ctx);
    int name = name_index(proc->world, peer);
    if (proc->world->verbose)
        printf("        %s: join of %u/%u for %u\n", proc_text(proc->index), peer.app, peer.node, my_app);
    if (proc->joined[name])
        violate(proc->world, VIOLATION_JOIN_TWICE, "%s: a second join of %u/%u", proc_text(proc->index), peer.app,
                peer.node);
    proc->joined[name] = true;
}

static void notify_quit(void *ctx, uint32_t my_app, zeb_inst_t peer)
{
    proc_t *proc = proc_of(ctx);
    int name = name_index(proc->world, peer);
    if (proc->world->verbose)
        printf("        %s: quit of %u/%u for %u\n", proc_text(proc->index), peer.app, peer.node, my_app);
    if (!proc->joined[name])
        violate(proc->world, VIOLATION_QUIT_WITHOUT_JOIN, "%s: quit of %u/%u without a join", proc_text(proc->index),
                peer.app, peer.node);
    proc->joined[name] = false;
}

static void unsubscribe(void *, uint32_t)
{
}

static bool log_on(void *ctx, zeb_dbg_level_t)
{
    return proc_of(ctx)->world->verbose;
}

__attribute__((format(printf, 5, 6))) static void log_line(void *ctx, zeb_dbg_level_t, const char *, int,
                                                           const char *format, ...)
{
    printf("        %s: ", proc_text(proc_of(ctx)->index));
    va_list args;
    va_start(args, format);
    (void)vprintf(format, args);
    va_end(args);
}

const zeb_hs_effects_t g_effects = {
    get_seq, get_id,      is_server, start_timer, send_sync,   resend_sync, send_ack, resend_ack,
    count,   forget_peer, end_calls, notify_join, notify_quit, unsubscribe, log_on,   log_line,
};

// What a process reads.

static void receive_traffic(proc_t *proc, uint32_t my_app, int from)
{
    // Not checked here: any ordinary message of a known instance counts as its acknowledgement, so one that was sent
    // before the withdrawal and is read after it brings the instance online until the name is published again.
    if (proc->withdrawn[from])
        return;
    zeb_inst_t sender = name_inst(proc->world, from);
    zeb_inst_state_t state = zeb_hs_get_inst_state(&proc->hs, sender);
    if (!state.instance)
        return; // dropped
    if (!state.online) {
        zeb_hs_del_reject_acks(&proc->hs, my_app, sender);
        zeb_hs_recv_traffic(&proc->hs, my_app, sender);
    }
    if (!proc->world->config.early && name_app(proc->world, from)->server && !proc->joined[from])
        violate(proc->world, VIOLATION_MESSAGE_WITHOUT_JOIN, "%s: a message of server %u/%u, which has not joined",
                proc_text(proc->index), sender.app, sender.node);
}

static void receive_ack(proc_t *proc, uint32_t my_app, zeb_inst_t peer, uint8_t ver,
                        const zeb_msg_sync_inst_ack_t *body)
{
    if (ver == 1)
        zeb_hs_recv_ack(&proc->hs, my_app, peer, &body->sync);
    else
        zeb_hs_recv_seq_ack(&proc->hs, my_app, peer, body);
}

static void receive_returned_ack(proc_t *proc, uint32_t my_app, zeb_inst_t peer, const message_t *message)
{
    if (message->body.sync.ttl == 0)
        return;
    zeb_returned_ack_t *ack = (zeb_returned_ack_t *)zeb_malloc(sizeof(zeb_returned_ack_t));
    zeb_msg_sync_inst_ack_t *body = (zeb_msg_sync_inst_ack_t *)zeb_malloc(sizeof(*body));
    *body = message->body;
    body->sync.ttl--;
    ack->src_app = my_app;
    ack->dst = peer;
    ack->ver = message->ver;
    ack->type = ZEB_MSG_SYNC_INST_ACK;
    ack->sync_seq = body->sync.seq;
    ack->msg = (zeb_msg_t *)(void *)body;
    zeb_hs_ack_returned(&proc->hs, ack);
}

void receive(proc_t *proc, message_t *message)
{
    const world_t *world = proc->world;
    uint32_t my_app = name_app(world, message->to)->app;
    zeb_inst_t peer = name_inst(world, message->from);
    // A process of version 1 reads only the older forms.
    uint8_t ver = world->config.place[place_of(proc)].ver == 1 ? 1 : message->ver;
    switch (message->kind) {
    case KIND_SYNC:
        zeb_hs_recv_sync(&proc->hs, my_app, peer, ver, &message->body.sync);
        return;
    case KIND_ACK:
        receive_ack(proc, my_app, peer, ver, &message->body);
        return;
    case KIND_RETURNED_ACK:
        receive_returned_ack(proc, my_app, peer, message);
        return;
    case KIND_TRAFFIC:
        receive_traffic(proc, my_app, message->from);
        return;
    }
}

constexpr uint8_t EVENT_PUBLISHED = 1;
constexpr uint8_t EVENT_WITHDRAWN = 2;

void read_event(proc_t *proc, const event_t *event)
{
    if (event->kind == EVENT_PUBLISHED) {
        proc->withdrawn[event->name] = false;
        zeb_hs_published(&proc->hs, name_inst(proc->world, event->name));
    } else if (event->kind == EVENT_WITHDRAWN) {
        zeb_inst_t inst = name_inst(proc->world, event->name);
        proc->withdrawn[event->name] = true;
        zeb_hs_withdrawn(&proc->hs, inst);
        if (zeb_hs_get_inst_state(&proc->hs, inst).online)
            violate(proc->world, VIOLATION_ONLINE_WITHDRAWN, "%s: online with %u/%u, just withdrawn",
                    proc_text(proc->index), inst.app, inst.node);
    } else {
        zeb_hs_timer(&proc->hs, event->timer);
    }
}

// An application sends only to servers that are online.
bool may_send_traffic(const proc_t *proc, int app, int to)
{
    const world_t *world = proc->world;
    const app_config_t *mine = &world->config.place[place_of(proc)].app[app];
    zeb_inst_t peer = name_inst(world, to);
    if (!proc->alive || !proc->bound || mine->app == 0 || peer.app == 0 ||
        !app_names(world, name_of(place_of(proc), app), peer.app))
        return false;
    const zeb_ol_app_t *ol = zeb_hs_get_ol_app(&proc->hs, peer.app);
    return ol != nullptr && zeb_app_set_test(&ol->ol_bmp, peer.node) && zeb_app_set_test(&ol->srv_bmp, peer.node);
}

void send_traffic(proc_t *proc, int app, int to)
{
    const world_t *world = proc->world;
    zeb_inst_t peer = name_inst(world, to);
    message_t message;
    memset(&message, 0, sizeof(message));
    message.kind = KIND_TRAFFIC;
    zeb_hs_del_reject_acks(&proc->hs, world->config.place[place_of(proc)].app[app].app, peer);
    (void)send_message(proc, app, peer, &message);
}
